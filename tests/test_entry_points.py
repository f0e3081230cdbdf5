"""The two public calls: what they check, in which order, and what they start."""

import inspect
import sys
import threading
from contextlib import suppress
from types import ModuleType, SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from collaborators import chain, dismantle, node, raises_exactly, set_children
from quillstone.functions._typed_shapes import FunctionGraphNode, StageData

AGGREGATION = "graph node type 'aggregation' is not allowed"
UNSAFE = "named_universe must be a single safe path segment, got 'a/b'"
ENTRY_POINTS = [
    (qs.simulate_signal, "signal_pool_id", "SIGNAL", "signal"),
    (qs.simulate_strategy, "strategy_pool_id", "STRATEGY", "strategy"),
]


@pytest.mark.parametrize(("entry", "pool", "expression_type", "kind"), ENTRY_POINTS)
def test_first_failure_wins_and_nothing_starts(kit, entry, pool, expression_type, kind):
    kit.wire()
    before = threading.active_count()
    aggregation = node("rotation", node("aggregation"))
    with raises_exactly(ValueError, AGGREGATION):
        entry(aggregation, "a/b", **{pool: 5})
    with raises_exactly(ValueError, UNSAFE):
        entry(node(), "a/b", **{pool: 5})
    for bad in (5, "", None):
        with raises_exactly(ValueError, f"{pool} must be a non-empty string"):
            entry(node(), "top", **{pool: bad})
    qs._import_typed_shapes = lambda: (FunctionGraphNode, StageData, "one too many")
    with pytest.raises(ValueError, match="unpack"):
        entry(node(), "a/b", **{pool: 5})
    assert threading.active_count() == before
    assert kit.script.calls == []


@pytest.mark.parametrize(("entry", "pool", "expression_type", "kind"), ENTRY_POINTS)
def test_handle_receives_everything_by_keyword(kit, entry, pool, expression_type, kind):
    kit.wire()
    made = []
    qs.SimulationHandle = lambda *args, **kwargs: made.append((args, kwargs)) or "handle"
    qs._resolve_simulation_named_universe = lambda *args: ("resolved", args)
    qs._validate_selected_pool_id = lambda *args: ("validated", args)
    raw = {"type": "feature", "name": "close"}
    switches = ("include_correlation", "include_mi", "record", "return_series", "return_weights")
    chosen = {name: object() for name in (*switches, "metaparameters", "fail_fast")}
    assert entry(raw, "where", **{pool: "p9"}, **chosen) == "handle"
    assert entry(graph=raw, named_universe="where") == "handle"
    [(args, given), (_, default)] = made
    assert args == ()
    assert isinstance(given["graph"], FunctionGraphNode)
    assert {name: given.pop(name) for name in chosen} == chosen
    given.pop("graph")
    assert given == {
        "named_universe": ("resolved", ("where", expression_type, "p9")),
        "expression_type": expression_type,
        "selected_pool_id": ("validated", ("p9", pool)),
        "selected_pool_kind": kind,
    }
    assert [default[name] for name in switches] == [True, True, True, False, False]
    assert (default["metaparameters"], default["fail_fast"]) == (None, True)


def test_typed_graph_passes_through_and_raw_errors_propagate(kit):
    kit.wire()
    graph = node("rotation", node())
    handle = qs.simulate_signal(graph, signal_pool_id="p1")
    assert handle._graph is graph
    assert handle._named_universe == "top"
    handle.result()
    broken = {"type": "feature"}
    text = "graph: node name must be a non-empty string, got None"
    with raises_exactly(ValueError, text):
        qs.simulate_signal(broken, "top", signal_pool_id="p1")


@pytest.mark.parametrize("raw", [{}, [], None, 3])
def test_require_typed_graph_names_the_type(raw):
    text = "graph must be FunctionGraphNode at the simulation runtime boundary; got "
    with raises_exactly(TypeError, text + type(raw).__name__):
        qs._require_typed_runtime_graph(raw)
    with raises_exactly(TypeError, text + type(raw).__name__):
        qs.SimulationHandle(raw, "top", "SIGNAL", selected_pool_id=5)


def test_published_signatures_differ_from_the_binding_rules():
    for entry, pool, _, _ in ENTRY_POINTS:
        shown = inspect.signature(entry)
        assert entry.__signature__ == qs._pool_v2_signature(pool) == shown
        assert str(shown) == (
            f"(graph, *, named_universe=None, {pool}, metaparameters=None, "
            "include_correlation=True, include_mi=True, record=True, return_series=False, "
            "return_weights=False, fail_fast=True)"
        )
    unknown = r"simulate_strategy\(\) got an unexpected keyword argument 'signal_pool_id'"
    with pytest.raises(TypeError, match=unknown):
        qs.simulate_strategy(node(), signal_pool_id="p1")


def test_graph_classes_come_from_a_loaded_engine_first(monkeypatch):
    names = [
        f"quillstone.simulator_engine.{unit}"
        for unit in ("expression_evaluator", "batch_orchestrator", "graph_validator")
    ]
    for name in names:
        monkeypatch.setitem(sys.modules, name, None)
    fallback = sys.modules["quillstone.functions._typed_shapes"]
    assert qs._import_typed_shapes() == (FunctionGraphNode, StageData)

    def engine(defined_in):
        return SimpleNamespace(FunctionGraphNode=SimpleNamespace(__module__=defined_in))

    shapes = ModuleType("own_shapes")
    shapes.FunctionGraphNode, shapes.StageData = object(), object()
    monkeypatch.setitem(sys.modules, "own_shapes", shapes)
    for name in names:
        monkeypatch.setitem(sys.modules, name, engine("own_shapes"))
        assert qs._import_typed_shapes() == (shapes.FunctionGraphNode, shapes.StageData)
        monkeypatch.setitem(sys.modules, name, None)
    monkeypatch.setitem(sys.modules, names[0], engine("no_such_module_anywhere"))
    monkeypatch.setitem(sys.modules, names[1], engine(""))
    monkeypatch.setitem(sys.modules, names[2], engine("own_shapes"))
    assert qs._import_typed_shapes() == (shapes.FunctionGraphNode, shapes.StageData)
    del shapes.StageData
    with pytest.raises(AttributeError):
        qs._import_typed_shapes()

    monkeypatch.setitem(sys.modules, names[2], engine("no_such_module_anywhere"))
    assert qs._import_typed_shapes() == (fallback.FunctionGraphNode, fallback.StageData)
    monkeypatch.setitem(sys.modules, fallback.__name__, None)
    text = "Typed graph runtime is required for direct simulation evaluation"
    for entry, pool, _, _ in ENTRY_POINTS:
        with raises_exactly(RuntimeError, text):
            entry(node(), "a/b", **{pool: 5})


def test_aggregation_is_found_anywhere_and_untyped_nodes_are_leaves():
    for graph in (
        node("aggregation"),
        node("rotation", node(), node("rotation", node("aggregation"), node())),
        SimpleNamespace(children=[object(), SimpleNamespace(type="aggregation")]),
    ):
        with raises_exactly(ValueError, AGGREGATION):
            qs._reject_public_aggregation_graph(graph)
    for harmless in (object(), {"type": "aggregation"}, SimpleNamespace(children=None), None):
        assert qs._reject_public_aggregation_graph(harmless) is None


def test_filtration_is_found_through_typed_and_raw_nodes():
    assert qs._has_filtration_runtime_graph(node("rotation", node(), node("filtration")))
    assert qs._has_filtration_runtime_graph(node("rotation", node())) is False
    seen = []
    qs._has_filtration_node = lambda raw: seen.append(raw) or raw == "second"
    graph = set_children(node("rotation"), ["first", "second", "third"])
    assert qs._has_filtration_runtime_graph(graph)
    assert seen == ["first", "second"]


def test_deep_shared_and_cyclic_graphs_end():
    deep = chain(100_000, node("filtration"))
    assert qs._typed_runtime_graph(deep) is deep
    with suppress(RecursionError):
        assert qs._has_filtration_runtime_graph(deep)
    dismantle(deep)
    deep = chain(100_000, node("aggregation"))
    with raises_exactly(ValueError, AGGREGATION):
        qs._typed_runtime_graph(deep)
    dismantle(deep)

    shared = node()
    for _ in range(60):
        shared = node("rotation", shared, shared)
    assert qs._require_typed_runtime_graph(shared) is shared
    assert qs._has_filtration_runtime_graph(shared) is False

    ring = node("rotation")
    set_children(ring, [node("rotation", ring)])
    with suppress(RecursionError):
        assert qs._require_typed_runtime_graph(ring) is ring
        assert qs._has_filtration_runtime_graph(ring) is False
    set_children(ring, [])
