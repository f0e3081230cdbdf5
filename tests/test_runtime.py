"""What Python users expect of functions, classes and names of a module."""

import copy
import functools
import inspect
import pickle
import traceback
import weakref
from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from collaborators import Scripted, ended, node

SWITCHES = (
    "metaparameters=None, include_correlation=True, include_mi=True, record=True, "
    "return_series=False, return_weights=False, fail_fast=True"
)
# The published signatures of the entry points differ from what they accept.
ACCEPTED = {
    f"simulate_{kind}": f"(graph, named_universe=None, *, {kind}_pool_id=None, {SWITCHES})"
    for kind in ("signal", "strategy")
}
CLASSES = ("SimulationHandle", "SimulationResult", "_SimulationOrchestratorEvaluator")
FUNCTION = type(qs._coerce_era_id)
ALL = {name: f for name, f in vars(qs).items() if type(f) is FUNCTION} | {
    f"{owner}.{name}": f
    for owner in CLASSES
    for name, f in vars(getattr(qs, owner)).items()
    if type(f) is FUNCTION and f.__qualname__ == f"{owner}.{name}"
}
ALL = {name: f for name, f in ALL.items() if f.__module__ == "quillstone.simulate_signal"}


def twin(name):
    """A Python function of the same name and parameters that does nothing."""
    *owner, plain = name.split(".")
    lines = [f"class {owner[0]}:"] if owner else []
    parameters = ACCEPTED.get(name) or inspect.signature(ALL[name])
    lines.append(" " * len(lines) + f"def {plain}{parameters}: pass")
    names = {}
    exec("\n".join(lines), names)
    return functools.reduce(getattr, name.split(".")[1:], names[name.split(".")[0]])


def wrong_calls(function):
    """Argument lists that do not fit the function, by every rule of the interpreter."""
    parameters = list(inspect.signature(function).parameters)
    required = len([p for p in inspect.signature(function).parameters.values()
                    if p.default is p.empty and p.kind is p.POSITIONAL_OR_KEYWORD])  # fmt: skip
    yield from [((1,) * count, {}) for count in (*range(required), 40)]
    yield (1,) * 40, {"no_such": 1}
    yield (1,) * required, {"no_such": 1}
    yield (), {"no_such": 1, "other": 2}
    if parameters:
        yield (1,) * max(required, 1), {parameters[0]: 1}
        yield (), {parameters[-1]: 1, "no_such": 1}
        yield (1,) * 40, {parameters[-1]: 1}
        yield (), {parameters[0] + "s": 1}
        yield (), {parameters[0][:-1] + "x": 1}
    if required > 2:
        yield (1,), {parameters[2]: 1}


@pytest.mark.parametrize("name", ALL)
def test_function_is_like_one_written_in_python(name):
    function, model = ALL[name], twin(name)
    for attribute in ("__name__", "__qualname__", "__defaults__", "__kwdefaults__"):
        assert getattr(function, attribute) == getattr(model, attribute)
    assert name in repr(function)
    outcomes = []
    for args, kwargs in wrong_calls(model):
        try:
            model(*args, **kwargs)
        except TypeError as error:
            outcomes.append(str(error))
            with pytest.raises(TypeError) as caught:
                function(*args, **kwargs)
            assert str(caught.value) == outcomes[-1]
    assert outcomes


def test_every_function_is_looked_at():
    assert len(ALL) >= 65
    assert {"_coerce_era_id", "simulate_strategy", "SimulationHandle.__init__"} <= set(ALL)
    assert str(inspect.signature(qs.SimulationHandle._update_status)) == (
        "(self, phase, progress=0.0, message='')"
    )


def test_functions_carry_attributes_and_references():
    function = qs._coerce_era_id
    function.note = 5
    assert function.__dict__ == {"note": 5} == vars(function)
    del function.note
    assert weakref.ref(function)() is function
    assert copy.deepcopy(function) is copy.copy(function) is function
    assert pickle.loads(pickle.dumps(function)) is function
    assert {function: 1}[qs._coerce_era_id] == 1


def test_functions_bind_as_methods():
    class Holder:
        stage = qs._stage_value
        fixed = staticmethod(qs._coerce_era_id)
        kind = "mine"

    holder = Holder()
    assert holder.stage("kind") == "mine"
    assert holder.stage.__self__ is holder
    assert holder.stage.__func__ is Holder.stage is qs._stage_value
    assert holder.stage == holder.stage
    assert holder.fixed("3") == 3
    assert node_handle().status.__name__ == "status"


def node_handle(**options):
    class Idle(qs.SimulationHandle):
        def _run_pipeline(self):
            self._acquire_done.set()

    return Idle(node(), "top", "SIGNAL", selected_pool_id="p1", **options)


def test_classes_are_ordinary_classes():
    for name in ("SimulationHandle", "SimulationStatus", "SimulationResult", "CancelledError",
                 "_SimulationOrchestratorEvaluator"):  # fmt: skip
        kind = getattr(qs, name)
        assert type(kind) is type
        assert (kind.__name__, kind.__qualname__) == (name, name)
        assert kind.__module__ == "quillstone.simulate_signal"
    handle = ended(node_handle())
    handle.extra = 1
    assert vars(handle)["extra"] == 1
    assert isinstance(handle, qs.SimulationHandle)
    assert weakref.ref(handle)() is handle

    class Loud(qs.SimulationHandle):
        def status(self):
            return super().status().phase.upper()

        def _run_pipeline(self):
            self._acquire_done.set()

    assert Loud(node(), "top", "SIGNAL", selected_pool_id="p1").status() == "SYNCING"


def era_config_of_7():
    qs._era_config = {"era_id": 7}
    return qs._resolve_runtime_era_config(8)


class Told(Exception):
    """A replaced name was used."""


def told(*args, **kwargs):
    raise Told


LATE = [
    ("_safe_named_universe", lambda: qs._pool_allowed_named_universes({"named_universe": "a"})),
    ("_configured_named_universe",
     lambda: qs._resolve_simulation_named_universe(None, "SIGNAL", "p")),
    ("_selected_pool_field_name", lambda: qs._selected_pool_runtime_name({}, "SIGNAL", "p")),
    ("_coerce_era_id", lambda: qs._era_id_from_manifest({"era_id": 1})),
    ("_coerce_int_rule_id",
     lambda: qs._resolve_universe_rule_id_for_sdk({"universe_rules": {"a": {}}}, "a")),
    ("EraError", era_config_of_7),
    ("SdkRuntimeNotReadyError", lambda: qs._required_runtime_data_shape_value({}, "field")),
    ("SdkRuntimeNotReadyError", lambda: qs._resolve_universe_rule_id_for_sdk({"universes": 1}, "")),
    ("evaluate_threshold_gates", lambda: qs._pnl_mi_gate_passed(1, 2)),
    ("_import_typed_shapes", lambda: qs._has_filtration_runtime_graph(node())),
    ("_reject_public_aggregation_graph", lambda: qs._require_typed_runtime_graph(node())),
    ("_has_filtration_node", lambda: qs._has_filtration_runtime_graph({})),
    ("_walk_synced_function_payloads", lambda: list(qs._iter_synced_function_payloads({}))),
    ("_iter_synced_function_payloads", lambda: qs._build_obfuscated_store({})),
    ("_signal_ref_label", lambda: qs._strategy_referenced_signal_ids([1], {1: {}}, {})),
    ("_is_vocabulary_artifact_path",
     lambda: qs._runtime_vocabulary_refreshed(({"a": 1}, {}), ({}, {}))),
    ("_option_uses_rescale", lambda: qs._pipeline_applies_rescale([{}], {})),
    ("_validate_selected_pool_id", lambda: qs.SimulationHandle(node(), "top", "SIGNAL")),
    ("SimulationStatus", node_handle),
    ("_resolve_simulation_named_universe", lambda: qs.simulate_strategy(node())),
]  # fmt: skip


@pytest.mark.parametrize(("name", "use"), LATE, ids=[name for name, _ in LATE])
def test_names_are_looked_up_when_used(name, use):
    setattr(qs, name, told)
    with pytest.raises(Told):
        use()
    delattr(qs, name)
    with pytest.raises(NameError, match=f"^name '{name}' is not defined$"):
        use()


class Slotted:
    __slots__ = ("children", "type")

    def __init__(self):
        self.children, self.type = (), "aggregation"


def test_attributes_in_slots_follow_their_class():
    def is_refused(graph):
        try:
            qs._reject_public_aggregation_graph(graph)
        except ValueError:
            return True
        return False

    changing = type("Changing", (Slotted,), {"__slots__": ()})
    graph, other = changing(), Slotted()
    assert is_refused(graph)
    graph.type = "rotation"
    assert not is_refused(graph)
    assert is_refused(other)
    del graph.type
    assert not is_refused(graph)
    for value, refused in [("aggregation", True), (property(lambda self: "feature"), False)]:
        changing.type = value
        assert is_refused(graph) is refused
        assert is_refused(other)
    graph.children = [other]
    assert is_refused(graph)
    changing.children = None
    assert not is_refused(graph)
    del changing.type, changing.children
    changing.__getattribute__ = lambda self, name: "aggregation"
    assert is_refused(graph)
    # Another class keeps attributes of these names at other places.
    swapped = type("Slotted", (), {"__slots__": ("type", "name", "children")})()
    swapped.type, swapped.name, swapped.children = "rotation", "aggregation", (graph,)
    assert is_refused(swapped)
    swapped.children = ()
    assert not is_refused(swapped)
    assert is_refused(other)


def test_replaced_values_take_effect_at_once(kit):
    told_to = []
    qs.logger = Scripted(kit.script, {"warning": None, "debug": None})
    kit.script.on("set_phase", ValueError("x"))
    qs.STRATEGY, qs._set_phase = "PLAN", kit.function("set_phase")
    assert qs._selected_pool_field_name("PLAN") == "strategy_pool_id"
    ended(node_handle())._update_status("phase")
    assert kit.script.arguments("warning")[0][1] == "phase"
    qs._install_finalized_weights(5, None, None, None, None)
    assert kit.script.arguments("debug")[0][0].endswith("on backtester: %s")
    qs._TrackingStats = lambda **kwargs: told_to.append(kwargs) or "stats"
    qs._tracking_metric = lambda value: ("metric", value)
    stats = qs._build_tracking_stats(kit.stats, {}, kit.era)
    assert stats == "stats"
    assert list(told_to[0]) == [
        "sharpe", "returns", "turnover", "drawdown", "delta_exposure", "max_weight",
        "quality_score", "correlation", "liquidity_metrics", "custom_stats",
    ]  # fmt: skip
    assert told_to[0]["turnover"] == ("metric", 0.25)
    assert told_to[0]["correlation"] == 0.0
    qs._POOL_METRIC_THRESHOLD_SET = "all"
    qs.evaluate_threshold_gates = lambda **kwargs: SimpleNamespace(passed=kwargs["threshold_set"])
    assert qs._correlation_gate_passed(1, 2) == "all"


def test_replaced_exception_class_is_raised_and_caught(kit):
    class Stopped(Exception):
        pass

    blocked = kit.script.block("backtest")
    handle = kit.start()
    blocked.wait_until_entered()
    qs.CancelledError = Stopped
    handle.cancel()
    blocked.leave.set()
    with pytest.raises(Stopped, match=r"^Simulation cancelled$"):
        handle.result()
    assert handle.status().phase == "cancelled"


def test_errors_keep_their_context_and_their_trace(kit):
    fault = LookupError("first")
    kit.script.on("validate", fault)
    handle = kit.start()
    with pytest.raises(LookupError):
        handle.result()
    assert fault.__context__ is None
    names = [frame.name for frame in traceback.extract_tb(fault.__traceback__)]
    assert "_run_pipeline" in names
    assert names[-1] == "answer"
    handled = ValueError("handled")
    try:
        raise handled
    except ValueError:
        with pytest.raises(LookupError):
            handle.result()
    assert fault.__context__ is handled
