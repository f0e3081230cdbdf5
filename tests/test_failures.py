"""How a run ends that cannot go on: type, text, and the last step that was taken."""

import pytest

import quillstone.simulate_signal as qs
from collaborators import VOCABULARY_KEYS, Scripted, ended, node, vocabulary
from quillstone.errors import SdkRuntimeNotReadyError
from quillstone.sync import EraError

GONE = object()
NOT_READY = str(SdkRuntimeNotReadyError())
VALIDATOR = (
    "GraphValidator runtime is required for simulation. Initialize the synced graph validation "
    "runtime before calling simulate_signal()."
)
NO_SIGNALS = (
    "No useful signals match the filtration criteria. "
    "Cannot execute strategy graph without useful signals."
)
FOUND = {"tested.found_signal_ids": ["f1", "f2", "f1"]}


def unknown_universe(available, allowed):
    return (
        f"Unknown named_universe 'top'. Available named_universe values: {available}. "
        f"Allowed named_universe values: {allowed}"
    )


def lacking(key):
    present = [name for name in VOCABULARY_KEYS if name != key]
    raw = dict.fromkeys(present, 1)
    text = f"Vocabulary missing required keys: { {key} }. Present keys: {present}"
    return {"pieces.load_vocabulary": lambda era_id: raw}, ValueError, text, "init_if_needed"


def not_returned(raw):
    text = "load_vocabulary returned empty or invalid vocabulary"
    return {"pieces.load_vocabulary": lambda era_id: raw}, ValueError, text, "init_if_needed"


FAILURES = [
    *(({f"pieces.{name}": None}, RuntimeError,
       "Pipeline dependencies not initialized. Call register() or login() first.", None)
      for name in ("auth", "sync_manager")),
    ({"pieces.vault": None}, RuntimeError, "Vault runtime is required for simulation. Call "
     "register()/login() so the synced vault runtime is initialized.", "request_for_sync"),
    *map(not_returned, ({}, None, [1], "x")),
    *map(lacking, VOCABULARY_KEYS),
    ({"pieces.load_vocabulary": None, "pieces.vocabulary": None}, RuntimeError,
     "Vocabulary is required for simulation. Call init_simulate_signal(..., load_vocabulary=...) "
     "or initialize the runtime vocabulary.", "init_if_needed"),
    ({"pieces.load_vocabulary": None, "pieces.vocabulary": vocabulary()}, TypeError,
     "Raw vocabulary dict is not accepted at runtime. Runtime simulation requires a FunctionStore "
     "registry.", "init_if_needed"),
    ({"pieces.backtester": None}, RuntimeError, "Backtester runtime is required for simulation. "
     "Call register()/login() so the synced backtester runtime is initialized.",
     "load_vocabulary"),
    ({"pieces.era_config": None}, RuntimeError, "era_config is required for simulation. Call "
     "init_simulate_signal(..., era_config=...) with the synced era config.",
     "init_reconstruction"),
    ({"era.era_id": GONE}, ValueError, "era_config missing required field: era_id",
     "init_reconstruction"),
    ({"era.era_id": 8}, EraError, "Synced era_id=7 does not match era_config era_id=8",
     "init_reconstruction"),
    ({"era.transform_pipeline": GONE}, SdkRuntimeNotReadyError,
     "missing required era config field: transform_pipeline", "init_reconstruction"),
    ({"era.universe_rules": {"b": {"rule_id": 1}, "a": {}}}, ValueError,
     unknown_universe(["a", "b"], []), "init_reconstruction"),
    ({"era.universe_rules": GONE, "era.allowed_named_universes": ("x", "y")}, ValueError,
     unknown_universe([], ["x", "y"]), "init_reconstruction"),
    ({"era.universes": None}, SdkRuntimeNotReadyError, NOT_READY, "init_reconstruction"),
    ({"pieces.graph_validator": None, "pieces.load_vocabulary": None,
      "pieces.vocabulary": object()}, RuntimeError, VALIDATOR, "init_reconstruction"),
    ({"signal_pool.allowed_named_universes": ["low", "mid"]}, ValueError,
     "named_universe 'top' is not in selected pool allowed_named_universes=['low', 'mid']",
     "validate"),
    ({"era.signal_pools": []}, ValueError,
     "era_config must contain a 'signal_pools' key with at least one pool definition.",
     "validate"),
    ({"signal_pool.pool_id": "q", "signal_pool.name": ""}, ValueError,
     "Unknown signal_pool_id 'p1'. Available signal_pools ids: ['q']. "
     "Valid signal_pool_id values include: q", "validate"),
    ({"backtester.evaluate_expression": GONE}, RuntimeError, "RuntimeEvaluationAdapter is required "
     "for simulation. Call register()/login() so the synced evaluation runtime is initialized.",
     "validate"),
    ({**FOUND, "pieces.load_found_signal_pnl": None}, ValueError, "Signal PnL data could not be "
     "loaded for found signal IDs: f1, f2. Inject _load_found_signal_pnl to provide per-ID PnL "
     "loading.", "backtest"),
    ({**FOUND, "pieces.load_found_signal_pnl": lambda i, pool_name: None}, ValueError,
     "Signal PnL data is missing for found signal IDs: f1, f2", "backtest"),
    ({**FOUND, "pieces.load_found_signal_pnl": lambda i, pool_name: i if i == "f1" else None},
     ValueError, "Signal PnL data is missing for found signal IDs: f2", "backtest"),
    ({"signal_pool.universes": {3: {}, "4": {}}}, SdkRuntimeNotReadyError, NOT_READY, "backtest"),
    ({"signal_pool.is_correlation_threshold": GONE}, ValueError,
     "era config selected pool missing required is_correlation_threshold", "gate:metrics"),
    ({**FOUND, "pieces.correlate_per_pool": None}, ValueError, "Per-pool correlation function "
     "required. Inject _correlate_per_pool to compute pool-level correlations.", "gate:metrics"),
    ({"signal_pool.is_pnl_mi_threshold": GONE}, ValueError,
     "era config selected signal pool missing required is_pnl_mi_threshold", "gate:metrics"),
]  # fmt: skip
STRATEGY_FAILURES = [
    *(({f"pieces.{name}": empty, "strategy_pool.pool_id": "gone"}, NO_SIGNALS, "validate")
      for name, empty in (("useful_signals", []), ("useful_signals", None),
                          ("useful_signal_pool", {}), ("useful_signal_pool", None))),
    ({"strategy_pool.signal_pool_name": ""},
     "Strategy pool 's1' must declare a linked signal pool via signal_pool_name.", "validate"),
    ({"strategy_pool.signal_pool_name": "p9"}, "Strategy pool 's1' is linked to signal pool 'p9', "
     "but useful signal 'u1' belongs to signal pool 'p1'. Strategies may only reference useful "
     "signals from the same pool.", "validate"),
    ({"strategy_pool.is_correlation_threshold": GONE},
     "era config selected pool missing required is_correlation_threshold", "gate:metrics"),
    ({"strategy_pool.strategy_is_pnl_mi_threshold": GONE}, "era config selected strategy pool "
     "missing required strategy_is_pnl_mi_threshold", "gate:metrics"),
]  # fmt: skip


def apply(kit, changes):
    for place, value in changes.items():
        holder, name = place.split(".", 1)
        holder = getattr(kit, holder)
        content = holder if isinstance(holder, dict) else vars(holder)
        if value is GONE:
            del content[name]
        else:
            content[name] = value


def check_failure(kit, kind, changes, expected, last):
    apply(kit, changes)
    error = kit.failure(kind)
    assert (type(error), str(error)) == expected
    aside = ("set_phase", "release", "get_manifest", "load_found_signal_pnl")
    names = [name for name in kit.script.names() if name not in aside]
    assert names[-1:] == [last] * (last is not None)


@pytest.mark.parametrize(("changes", "error", "text", "last"), FAILURES)
def test_signal_run(kit, changes, error, text, last):
    check_failure(kit, "signal", changes, (error, text), last)


@pytest.mark.parametrize(("changes", "text", "last"), STRATEGY_FAILURES)
def test_strategy_run(kit, changes, text, last):
    check_failure(kit, "strategy", changes, (ValueError, text), last)


@pytest.mark.parametrize(
    ("kind", "other", "text"),
    [
        ("signal", "filtration", "simulate_signal only accepts signal graphs (rotation/feature "
         "nodes only). Strategy simulation is deferred in the v1 public SDK."),
        ("strategy", "rotation", "Strategy graph must contain at least one filtration node. "
         "Use simulate_signal() for signal graphs."),
    ],
)  # fmt: skip
def test_graph_kind_is_checked_before_everything_else(kit, kind, other, text):
    kit.pieces["auth"] = None
    error = kit.failure(kind, node("rotation", node(other, node())))
    assert (type(error), str(error)) == (ValueError, text)
    assert set(kit.script.names()) == {"set_phase"}


def test_first_failing_rule_is_reported(kit):
    kit.pieces.update(graph_validator=None, load_vocabulary=None, vocabulary=object())
    kit.era.update(transform_pipeline=None, universe_rules=None, signal_pools=[])
    texts = []
    for repair in (
        lambda: kit.pieces.update(graph_validator=Scripted(kit.script, {"validate": None})),
        lambda: kit.era.update(transform_pipeline=[]),
        lambda: kit.era.update(universe_rules={"top": {"rule_id": "3"}}),
        lambda: kit.script.on("validate", None),
    ):
        kit.script.on("validate", ValueError("bad graph"))
        texts.append(str(kit.failure())[:40])
        repair()
    texts.append(str(kit.failure())[:40])
    assert texts == [
        VALIDATOR[:40], "missing required era config field: trans",
        "Unknown named_universe 'top'. Available ", "bad graph",
        "era_config must contain a 'signal_pools'",
    ]  # fmt: skip


def test_era_change_discards_the_run(kit):
    kit.script.on("get_current_era_id", lambda: "8")
    handle = ended(kit.start())
    assert (type(handle._error), str(handle._error)) == (
        EraError,
        "Era changed during simulation. Started with era_id=7, current era_id=8. "
        "Results are invalid. Retry with the new era.",
    )
    assert (handle._pending_recording, handle._result) == (None, None)
    assert "gate:is_pnl_mi" in kit.script.names()
    kit.script.on("get_current_era_id", lambda: 7.0)
    assert kit.run().passed


@pytest.mark.parametrize("fault", [TypeError, ImportError, SdkRuntimeNotReadyError, SystemExit])
def test_validator_bootstrap(kit, logged, fault):
    kit.pieces["graph_validator"] = None
    if fault is TypeError:
        raised = fault("GraphValidator requires a FunctionStore registry in runtime simulation")
        kit.pieces.update(load_vocabulary=None, vocabulary=object())
    else:
        raised = fault("scripted")
        module = Scripted(kit.script, {"classes": None})
        kit.script.on("classes", raised)
        qs._import_graph_validator_runtime = module.classes
    error = kit.failure()
    if fault in (SdkRuntimeNotReadyError, SystemExit):
        assert error is raised
        assert logged() == []
        return
    assert (type(error), str(error)) == (RuntimeError, VALIDATOR)
    cause = error.__context__
    assert (type(cause), str(cause)) == (fault, str(raised))
    assert logged() == [("WARNING", "Failed to bootstrap _graph_validator: %s", (cause,))]
    assert qs._graph_validator is None


def test_configuration_gaps_do_not_matter_where_a_gate_is_off_or_not_reached(kit):
    apply(kit, FOUND)
    for pool in (kit.signal_pool, kit.strategy_pool):
        for key in [key for key in pool if key.endswith("_threshold")]:
            del pool[key]
    for kind in ("signal", "strategy"):
        assert kit.run(kind, include_correlation=False, include_mi=False).passed
    kit.signal_pool["is_correlation_threshold"] = 0.5
    kit.tested.structural_failed = True
    assert kit.run().failure_reason == "invalid_weights"
    del kit.signal_pool["is_correlation_threshold"]
    assert "is_correlation_threshold" in str(kit.failure())
