"""What Python users expect of functions, classes and names of a module."""

import copy
import functools
import inspect
import pickle
import threading
import traceback
import weakref
from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from collaborators import Scripted, ended, node

SWITCHES = (
    "metaparameters=None, include_correlation=True, include_mi=True, record=True, "
    "return_series=False, return_weights=False"
)
ENTRY = "(graph, named_universe=None, *, {}_pool_id=None, " + SWITCHES + ", fail_fast=True)"
FUNCTIONS = {
    "simulate_signal": ENTRY.format("signal"),
    "simulate_strategy": ENTRY.format("strategy"),
    "init_simulate_signal": "(auth, sync_manager, vault, backtester, search_tracker, era_thread, "
    "graph_validator=None, batch_orchestrator=None, compute_search_plan=None, era_config=None, "
    "load_vocabulary=None, useful_signal_metadata=None, useful_signals=None, "
    "useful_signal_pool=None, found_signal_pool=None, load_found_signal_pnl=None, "
    "signal_dir=None, network_client=None, server_client=None, BatchOrchestrator_cls=None, "
    "set_phase=None, correlate_per_pool=None, compute_mi_per_pool=None, vocabulary=None, "
    "vocabulary_raw=None, runtime_freshness_guard=None)",
    "effective_simulation_options": "(era_config)",
    "_import_typed_shapes": "()",
    "_typed_runtime_graph": "(graph)",
    "_reject_public_aggregation_graph": "(graph)",
    "_require_typed_runtime_graph": "(graph)",
    "_has_filtration_runtime_graph": "(graph)",
    "_pool_v2_signature": "(pool_parameter_name)",
    "_import_graph_validator_runtime": "()",
    "_factory_from_catalog_path": "(module_path, class_name)",
    "_resolve_runtime_era_config": "(era_id)",
    "_coerce_era_id": "(value)",
    "_era_id_from_manifest": "(manifest)",
    "_derive_synced_era_id": "(sync_manager)",
    "_required_runtime_data_shape_value": "(era_config, field)",
    "_primary_evaluation_pnl_column": "(era_config)",
    "_selected_pool_field_name": "(expression_type)",
    "_validate_selected_pool_id": "(pool_id, field_name)",
    "_safe_named_universe": "(named_universe)",
    "_pool_allowed_named_universes": "(pool_cfg)",
    "_configured_named_universe": "()",
    "_first_pool_named_universe": "(era_cfg, expression_type, selected_pool_id)",
    "_resolve_simulation_named_universe": "(named_universe, expression_type, selected_pool_id)",
    "_selected_pool_config": "(era_cfg, expression_type, selected_pool_id)",
    "_selected_pool_runtime_name": "(pool_cfg, expression_type, selected_pool_id)",
    "_coerce_int_rule_id": "(value)",
    "_resolve_universe_rule_id_for_sdk": "(era_cfg, named_universe)",
    "_resolve_pool_universe_thresholds": "(pool_cfg, universe_rule_id)",
    "_strategy_signal_pool_id": "(strategy_pool_cfg, strategy_pool_id)",
    "_metadata_for_signal_ref": "(signal_ref, useful_signal_metadata)",
    "_signal_ref_label": "(signal_ref, metadata)",
    "_metadata_signal_pool_id": "(metadata)",
    "_validate_strategy_useful_signal_pools": "(strategy_pool_id, strategy_pool_cfg, "
    "useful_signals, useful_signal_metadata)",
    "_strategy_referenced_signal_ids": "(useful_signals, useful_signal_metadata, pool_cfg)",
    "_tracking_metric": "(value, default=0.0)",
    "_is_mi_score": "(value)",
    "_pool_metric_gate_passed": "(metrics, pool_thresholds)",
    "_pnl_mi_gate_passed": "(score, threshold)",
    "_correlation_gate_passed": "(correlation, threshold)",
    "_build_tracking_stats": "(bt_stats, per_column_stats, era_config)",
    "_is_function_store_registry": "(value)",
    "_iter_synced_function_payloads": "(raw_vocabulary)",
    "_walk_synced_function_payloads": "(node, default_type, path)",
    "_build_obfuscated_store": "(vocabulary_dict)",
    "_runtime_vocabulary_freshness_state": "(guard)",
    "_is_vocabulary_artifact_path": "(path, named_universe=None)",
    "_runtime_vocabulary_refreshed": "(before_state, after_state, named_universe=None)",
    "_reload_runtime_vocabulary_after_freshness": "(named_universe=None)",
    "_load_runtime_shuffle_blob": "(data_dir)",
    "_validate_shuffle_blob": "(shuffle_blob)",
    "_stage_value": "(stage, name, default=None)",
    "_resolved_stage_option": "(stage, metaparameters)",
    "_option_uses_rescale": "(option, option_config=None)",
    "_pipeline_applies_rescale": "(transform_pipeline, metaparameters)",
    "_empty_runtime_stage_data": "()",
    "_finalize_rescaled_weights": "(weights)",
    "_install_finalized_weights": "(backtester, graph, metaparameters, named_universe, weights)",
    "_universe_options": "(era_config)",
    "_engine_definitions_from_agent_payload": "(source_era_config, typed_era_config)",
    "_plain_engine_definition_payload": "(value)",
    "_stage_attr": "(stage, key, default=None)",
}
METHODS = {
    "SimulationHandle.__init__": "(self, graph, named_universe, expression_type, " + SWITCHES
    + ", selected_pool_id=None, selected_pool_kind=None, fail_fast=True)",
    "SimulationHandle.status": "(self)",
    "SimulationHandle.result": "(self)",
    "SimulationHandle.cancel": "(self)",
    "SimulationHandle._update_status": "(self, phase, progress=0.0, message='')",
    "SimulationHandle._check_cancelled": "(self)",
    "SimulationHandle._do_release": "(self)",
    "SimulationHandle._run_pipeline": "(self)",
    "SimulationResult.__repr__": "(self)",
    "_SimulationOrchestratorEvaluator.__init__": "(self, delegate, extra_kwargs)",
    "_SimulationOrchestratorEvaluator.evaluate": "(self, **kwargs)",
}  # fmt: skip
ALL = {**FUNCTIONS, **METHODS}


def find(name):
    return functools.reduce(getattr, name.split("."), qs)


def twin(name):
    """A Python function of the same name and parameters that does nothing."""
    *owner, plain = name.split(".")
    lines = [f"class {owner[0]}:"] if owner else []
    lines.append(" " * len(lines) + f"def {plain}{ALL[name]}: pass")
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
def test_wrong_arguments_are_reported_in_the_interpreters_words(name):
    function, model = find(name), twin(name)
    tried = 0
    for args, kwargs in wrong_calls(model):
        try:
            model(*args, **kwargs)
        except TypeError as error:
            expected = str(error)
        else:
            continue
        with pytest.raises(TypeError) as caught:
            function(*args, **kwargs)
        assert str(caught.value) == expected
        tried += 1
    assert tried


@pytest.mark.parametrize("name", ALL)
def test_functions_describe_themselves(name):
    function, model = find(name), twin(name)
    published = name in ("simulate_signal", "simulate_strategy")
    if not published:
        assert str(inspect.signature(function)) == ALL[name]
    assert (function.__name__, function.__qualname__) == (model.__name__, model.__qualname__)
    assert function.__module__ == "quillstone.simulate_signal"
    assert function.__defaults__ == model.__defaults__
    assert function.__kwdefaults__ == model.__kwdefaults__
    assert callable(function)
    assert name.split(".")[-1] in repr(function)


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
    assert holder.fixed("3") == 3
    assert qs.SimulationHandle.status.__get__(holder).__self__ is holder
    handle = ended(node_handle())
    bound = handle.status
    assert bound == handle.status
    assert bound() == handle._status or bound().phase == handle._status.phase
    assert bound.__name__ == "status"


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


def pools(**keys):
    return {"signal_pools": [{"pool_id": "p", **keys}]}


def era_config_of_7():
    qs._era_config = {"era_id": 7}
    return qs._resolve_runtime_era_config(8)


class Told(Exception):
    """A replaced name was used."""


def told(*args, **kwargs):
    raise Told


LATE = [
    ("_safe_named_universe", lambda: qs._pool_allowed_named_universes({"named_universe": "a"})),
    ("_safe_named_universe", lambda: qs._resolve_simulation_named_universe("a", "SIGNAL", "p")),
    ("_configured_named_universe",
     lambda: qs._resolve_simulation_named_universe(None, "SIGNAL", "p")),
    ("_selected_pool_field_name", lambda: qs._selected_pool_config(pools(), "SIGNAL", "p")),
    ("_selected_pool_field_name", lambda: qs._selected_pool_runtime_name({}, "SIGNAL", "p")),
    ("_coerce_era_id", lambda: qs._era_id_from_manifest({"era_id": 1})),
    ("_era_id_from_manifest",
     lambda: qs._derive_synced_era_id(SimpleNamespace(get_manifest=dict))),
    ("_required_runtime_data_shape_value", lambda: qs._primary_evaluation_pnl_column({})),
    ("_coerce_int_rule_id",
     lambda: qs._resolve_universe_rule_id_for_sdk({"universe_rules": {"a": {}}}, "a")),
    ("_coerce_int_rule_id",
     lambda: qs._universe_options(SimpleNamespace(universe_rules={"a": {}}))),
    ("EraError", era_config_of_7),
    ("SdkRuntimeNotReadyError", lambda: qs._required_runtime_data_shape_value({}, "field")),
    ("SdkRuntimeNotReadyError", lambda: qs._resolve_universe_rule_id_for_sdk({"universes": 1}, "")),
    ("evaluate_threshold_gates", lambda: qs._pnl_mi_gate_passed(1, 2)),
    ("_pool_metric_gate_passed", lambda: qs._correlation_gate_passed(1, 2)),
    ("_primary_evaluation_pnl_column", lambda: qs._build_tracking_stats(None, None, {})),
    ("_import_typed_shapes", lambda: qs._typed_runtime_graph(node())),
    ("_import_typed_shapes", lambda: qs._has_filtration_runtime_graph(node())),
    ("_import_typed_shapes", lambda: qs._empty_runtime_stage_data()),
    ("_reject_public_aggregation_graph", lambda: qs._require_typed_runtime_graph(node())),
    ("_reject_public_aggregation_graph", lambda: qs._typed_runtime_graph(node())),
    ("_has_filtration_node", lambda: qs._has_filtration_runtime_graph({})),
    ("_walk_synced_function_payloads", lambda: list(qs._iter_synced_function_payloads({}))),
    ("_iter_synced_function_payloads", lambda: qs._build_obfuscated_store({})),
    ("_metadata_for_signal_ref", lambda: qs._strategy_referenced_signal_ids([1], {}, {})),
    ("_signal_ref_label", lambda: qs._strategy_referenced_signal_ids([1], {1: {}}, {})),
    ("_strategy_signal_pool_id",
     lambda: qs._validate_strategy_useful_signal_pools("s", {}, [], {})),
    ("_is_vocabulary_artifact_path",
     lambda: qs._runtime_vocabulary_refreshed(({"a": 1}, {}), ({}, {}))),
    ("_stage_value", lambda: qs._resolved_stage_option({}, {})),
    ("_resolved_stage_option", lambda: qs._pipeline_applies_rescale([{}], {})),
    ("_option_uses_rescale", lambda: qs._pipeline_applies_rescale([{}], {})),
    ("_plain_engine_definition_payload",
     lambda: qs._engine_definitions_from_agent_payload({"engine_definitions": {}}, None)),
    ("_require_typed_runtime_graph", lambda: qs.SimulationHandle(node(), "top", "SIGNAL")),
    ("_validate_selected_pool_id", lambda: qs.SimulationHandle(node(), "top", "SIGNAL")),
    ("SimulationStatus", node_handle),
    ("_typed_runtime_graph", lambda: qs.simulate_signal(node())),
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


def test_functions_may_be_called_from_many_threads():
    def work():
        for number in range(2000):
            assert qs._coerce_era_id(str(number)) == number
            assert len(list(qs._walk_synced_function_payloads([{"name": 1}] * 3, "d", ()))) == 3
        done.append(1)

    done = []
    threads = [threading.Thread(target=work) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(done) == 4
