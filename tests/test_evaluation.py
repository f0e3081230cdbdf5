"""Phases 4 to 7: validator, metaparameters, pool, orchestrator, adapter, freshness, weights."""

import sys
from types import SimpleNamespace

import numpy as np
import pytest

import quillstone.simulate_signal as qs
from collaborators import Scripted, node, vocabulary
from quillstone import _runtime
from quillstone.functions._typed_shapes import StageData

RUN_INPUTS = {
    "search_plan": "plan",
    "feature_dir": "features",
    "signal_dir": "signals",
    "manifest": {"era_id": 7},
}


@pytest.mark.parametrize(
    ("pieces", "raw"),
    [
        ({}, vocabulary()),
        ({"load_vocabulary": None, "vocabulary_raw": "raw"}, "raw"),
        ({"load_vocabulary": None}, {}),
    ],
)
def test_validator_is_built_once_over_the_registry(kit, monkeypatch, pieces, raw):
    built = []
    validator = kit.pieces.pop("graph_validator")
    engine = SimpleNamespace(
        GraphValidator=lambda *args: built.append(args) or validator, ValidatorConfig=None
    )
    monkeypatch.setattr(_runtime, "_graph_validator_config", lambda raw: ("config", raw))
    monkeypatch.setattr(_runtime, "_graph_validator_names", lambda raw: ("names", raw))
    monkeypatch.setitem(sys.modules, "quillstone.simulator_engine.graph_validator", engine)
    kit.pieces.update(pieces)
    kit.run()
    assert built == [(kit.pieces["vocabulary"], ("config", raw), ("names", raw))]
    assert qs._graph_validator is validator
    qs.simulate_signal(node(), "top", signal_pool_id="p1").result()
    assert len(built) == 1


def test_metaparameters_are_resolved_for_the_selected_pool(kit):
    seen = []

    def note(name, answer):
        return lambda *args: seen.append((name, args)) or answer

    qs._resolve_metaparameters = note("resolve", "resolved")
    qs._resolve_metaparameters_per_pool = note("per pool", "by pool")
    qs._canonicalize_metaparameters = note("canonical", {"p1": {"smooth": "five"}})
    stages = kit.era["transform_pipeline"] = [{"per_pool_default": {}}, SimpleNamespace(name="x")]
    result = kit.run(metaparameters="asked")
    assert seen == [("per pool", ("asked", ["p1"])), ("canonical", ("by pool",))]
    assert result.resolved_metaparameters == {"smooth": "five"}
    for name in ("evaluate_expression", "backtest"):
        given = kit.script.arguments(name)[1]
        assert given.get("metaparameters", result.resolved_metaparameters) == {"smooth": "five"}
    seen.clear()
    stages.append({"per_pool_default": {"p1": "a"}})
    qs._canonicalize_metaparameters = note("canonical", {})
    assert kit.run(metaparameters="asked").resolved_metaparameters == {}
    assert seen[:2] == [("resolve", ("asked", stages)), ("per pool", ("resolved", ["p1"]))]


@pytest.mark.parametrize("orchestrator", ["instance", "class"])
@pytest.mark.parametrize("kind", ["signal", "strategy"])
def test_orchestrator_keywords(make_kit, orchestrator, kind):
    kit = make_kit("backtest", orchestrator)
    metadata = {"u1": {"universe_rule_id": 3}, "5": {"universe_rule_id": 4}, "u3": {"id": "u3"}}
    kit.pieces.update(useful_signals=["u1", 5, "u3"], useful_signal_metadata=metadata)
    graph = node("filtration" if kind == "strategy" else "rotation", node())
    kit.run(kind, graph)
    expression = kind.upper()
    args, keywords = kit.script.arguments("compute_search_plan")
    assert args[0] is graph
    assert (args[1:], keywords) == ((expression,), {"requested_n_jobs": 1})
    if orchestrator == "class":
        _, keywords = kit.script.arguments("BatchOrchestrator")
        assert keywords == {**RUN_INPUTS, "backtester": kit.backtester, "named_universe": "top"}
    args, keywords = kit.script.arguments("evaluate")
    assert args == ()
    assert keywords.pop("graph") is graph
    assert isinstance(keywords.pop("stage_data"), StageData)
    assert keywords.pop("registry") is kit.pieces["vocabulary"]
    assert keywords == {
        **RUN_INPUTS,
        "expression_type": expression,
        "useful_signals": ["u1", 5, "u3"],
        "universe": "mask",
        "metaparameters": {},
        "transform_pipeline": [],
        "column_labels": ["net", "gross"],
        "signal_universe_rule_ids": {"u1": 3, 5: 4} if kind == "strategy" else {},
        "backtester": kit.backtester,
    }
    assert kit.script.arguments("universe_mask") == (("top",), {})


def test_orchestrator_inputs_when_pieces_are_missing(make_kit):
    kit = make_kit("backtest", "class")
    kit.pieces.update(compute_search_plan=None, useful_signals=None, signal_dir=None)
    del kit.sync_manager.feature_dir
    kit.vault.universe_mask = mask = object()
    manifests = iter([{"era_id": 7}])
    kit.script.on("get_manifest", lambda: next(manifests))
    kit.run()
    _, keywords = kit.script.arguments("evaluate")
    for name in RUN_INPUTS:
        assert keywords[name] is None
    assert keywords["useful_signals"] == {}
    assert keywords["universe"] is mask
    assert kit.script.arguments("backtest")[1]["universe"] is mask
    del kit.vault.universe_mask
    kit.script.on("get_manifest", None)
    kit.run()
    assert kit.script.arguments("evaluate")[1]["universe"] is None
    kit.era.pop("column_labels")
    assert str(kit.failure()) == "missing required runtime data-shape field: column_labels"


@pytest.mark.parametrize("fault", [None, LookupError("lost"), KeyboardInterrupt("stop")])
@pytest.mark.parametrize("place", ["evaluate", "ensure_fresh_before_evaluation"])
def test_adapter_is_installed_for_the_evaluation_only(make_kit, fault, place):
    kit = make_kit("backtest", "class")
    own = kit.backtester.evaluator, kit.backtester.search_plan_factory
    guard = {"ensure_fresh_before_evaluation": None}
    kit.pieces["runtime_freshness_guard"] = Scripted(kit.script, guard)
    seen = []

    def look(**kwargs):
        seen.append(kit.backtester.evaluator)
        assert kit.backtester.search_plan_factory(1, 2, a=3) == "plan"
        kit.backtester.evaluator.evaluate(signal_dir="mine", x=1)
        if fault is not None:
            raise fault
        return kit.evaluated

    kit.script.on(place, look)
    kit.script.on("backtest", lambda **kwargs: seen.append(kit.backtester.evaluator) or kit.tested)
    if fault is None:
        kit.run()
        assert seen[1] is own[0]
    else:
        assert kit.failure() is fault
    assert isinstance(seen[0], qs._SimulationOrchestratorEvaluator)
    assert kit.script.arguments("inner_evaluate") == (
        (), {**RUN_INPUTS, "signal_dir": "mine", "x": 1}
    )  # fmt: skip
    assert (kit.backtester.evaluator, kit.backtester.search_plan_factory) == own


def test_adapter_merges_keywords():
    extra = {"x": 2, "y": 3}
    delegate = SimpleNamespace(evaluate=lambda **kwargs: kwargs)
    adapter = qs._SimulationOrchestratorEvaluator(delegate, extra)
    extra["z"] = 4
    assert vars(adapter) == {"_delegate": delegate, "_extra_kwargs": {"x": 2, "y": 3}}
    merged = adapter.evaluate(x=1)
    assert merged == {"x": 1, "y": 3}
    assert list(adapter.evaluate(a=0)) == ["a", "x", "y"]
    merged.clear()
    assert adapter._extra_kwargs == {"x": 2, "y": 3}
    with pytest.raises(TypeError, match="positional argument"):
        adapter.evaluate(1)


def test_weights_of_the_selected_pool_finalized_when_rescaled(kit):
    kit.evaluated.weights = weights = np.array([[1.0, -3.0], [0.0, np.nan]])
    installed = []
    install = qs._install_finalized_weights
    qs._install_finalized_weights = lambda *args: installed.append(args) or install(*args)
    for per_pool, expected in (
        ({"alpha": "own"}, "own"),
        ({}, None),
        (None, weights),
        (5, weights),
    ):
        kit.evaluated.per_pool_weights = per_pool
        kit.run()
        assert kit.script.arguments("backtest")[1]["weights"] is expected
    assert installed == []
    kit.era["transform_pipeline"] = [{"name": "scale", "default": "none"}]
    chosen = {"scale": "rescale"}
    kit.run(metaparameters=chosen, graph=(graph := node()))
    final = kit.script.arguments("backtest")[1]["weights"]
    assert final.tolist() == [[0.25, -0.75], [0.0, 0.0]]
    assert [args[:-1] for args in installed] == [(kit.backtester, graph, chosen, "top")]
    assert kit.backtester._last_weights is installed[0][-1] is final


def test_elapsed_time_covers_evaluation_and_installation_only(kit):
    now = [100.0]
    qs.time = SimpleNamespace(monotonic=lambda: now[0])
    guard = Scripted(kit.script, {"ensure_fresh_before_evaluation": None})
    kit.pieces["runtime_freshness_guard"] = guard

    def spend(name, seconds, answer=None):
        def action(*args, **kwargs):
            now[0] += seconds
            return answer

        kit.script.on(name, action)

    spend("ensure_fresh_before_evaluation", 50.0)
    spend("evaluate_expression", 2.5, kit.evaluated)
    spend("backtest", 70.0, kit.tested)
    assert kit.run().expression_elapsed_seconds == 2.5


def test_refreshed_vocabulary_is_rebuilt_before_the_evaluation(make_kit):
    kit = make_kit("backtest", "instance")
    path = "/data/top/vocabulary.json"
    guard = Scripted(kit.script, snapshot=SimpleNamespace(
        pending_data_artifact_shas={path: "new"}, loaded_data_artifact_shas={path: "old"}
    ))  # fmt: skip

    def refresh(named_universe):
        kit.script.calls.append(("refreshed", (named_universe,), {}))
        guard.snapshot = SimpleNamespace(loaded_data_artifact_shas={path: "new"})

    guard.ensure_fresh_before_evaluation = refresh
    kit.pieces["runtime_freshness_guard"] = guard
    fresh = vocabulary(rotations=[{"name": "added"}])
    told = []

    def reload(named_universe):
        told.append(named_universe)
        qs._vocabulary_raw = fresh

    qs._reload_runtime_vocabulary_after_freshness = reload
    kit.run()
    used = kit.script.arguments("evaluate")[1]["registry"]
    assert used.has("added")
    assert used is qs._vocabulary is not kit.pieces["vocabulary"]
    assert told == ["top"]
    kit.run()
    assert told == ["top"]
    assert kit.script.arguments("evaluate")[1]["registry"] is kit.pieces["vocabulary"]


@pytest.mark.parametrize("step", ["evaluation", "backtest"])
def test_freshness_guard_is_called_by_falling_arity(kit, step):
    calls = []

    def ensure(*args, **kwargs):
        calls.append((args, kwargs))
        if args or kwargs:
            raise TypeError("too many")

    guard = SimpleNamespace(**{f"ensure_fresh_before_{step}": ensure})
    kit.pieces["runtime_freshness_guard"] = guard
    assert kit.run().passed
    assert calls == [((), {"named_universe": "top"}), (("top",), {}), ((), {})]
    setattr(guard, f"ensure_fresh_before_{step}", lambda: [][0])
    assert type(kit.failure()) is IndexError
