"""The module as it loads, and the wiring of its collaborators."""

import inspect
import json
import logging
import os
import subprocess
import sys
from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs

REQUIRED = ("auth", "sync_manager", "vault", "backtester", "search_tracker", "era_thread")
OPTIONAL = (
    "graph_validator", "batch_orchestrator", "compute_search_plan", "era_config",
    "load_vocabulary", "useful_signal_metadata", "useful_signals", "useful_signal_pool",
    "found_signal_pool", "load_found_signal_pnl", "signal_dir", "network_client",
    "server_client", "BatchOrchestrator_cls", "set_phase", "correlate_per_pool",
    "compute_mi_per_pool", "vocabulary", "vocabulary_raw", "runtime_freshness_guard",
)  # fmt: skip
ENGINE = "quillstone.simulator_engine.graph_validator"
PRIMITIVES = {
    "_canonicalize_metaparameters": "canonicalize",
    "_has_filtration_node": "has_filtration_node",
    "_resolve_metaparameters": "resolve_metaparameters",
    "_resolve_metaparameters_per_pool": "resolve_metaparameters_per_pool",
}


def variable(parameter):
    return "_BatchOrchestrator" if parameter == "BatchOrchestrator_cls" else f"_{parameter}"


def fresh_import(*lines):
    """What a new process prints, as JSON, that imports the module after running `lines`."""
    script = "\n".join(["import json, sys", *lines])
    env = {**os.environ, "PYTHONPATH": os.pathsep.join(filter(None, sys.path))}
    done = subprocess.run(
        [sys.executable, "-c", script], env=env, capture_output=True, text=True, check=True
    )
    return json.loads(done.stdout)


def test_state_of_a_freshly_loaded_module():
    names = [*map(variable, REQUIRED + OPTIONAL), "_sync_result_cache", "_sync_exception_cache"]
    state = fresh_import(
        "import quillstone.simulate_signal as qs",
        f"unset = all(getattr(qs, name) is None for name in {names!r})",
        "locks = [qs._simulation_lock.locked(), qs._sync_lock.locked()]",
        "print(json.dumps([unset, locks, qs._sync_in_progress, qs._sync_event.is_set()]))",
    )
    assert state == [True, [False, False], False, False]
    assert qs.logger is logging.getLogger("quillstone.simulate_signal")
    assert (qs.SIGNAL, qs.STRATEGY) == ("SIGNAL", "STRATEGY")
    assert {"bypassed_thresholds": qs.SCALAR_THRESHOLD_FIELDS} == qs._POOL_METRIC_THRESHOLD_SET


@pytest.mark.parametrize("missing", ["graph_shape", "metaparameters", None])
def test_primitives_come_from_one_place(missing):
    found = fresh_import(
        "import types",
        "def offer(name, origin):",
        "    module = sys.modules['quillstone.' + name] = types.ModuleType(name)",
        f"    for function in {list(PRIMITIVES.values())!r}:",
        "        setattr(module, function, origin)",
        "offer('_simulate_primitives', 'fallback')",
        "for unit in ('', '.graph_shape', '.metaparameters'):",
        "    offer('simulate_primitives' + unit, 'first')",
        f"sys.modules['quillstone.simulate_primitives.{missing}'] = None" if missing else "",
        "import quillstone.simulate_signal as qs",
        f"print(json.dumps([getattr(qs, name) for name in {list(PRIMITIVES)!r}]))",
    )
    assert found == ["fallback" if missing else "first"] * 4


def test_every_call_binds_every_variable():
    parameters = inspect.signature(qs.init_simulate_signal).parameters
    assert tuple(parameters) == REQUIRED + OPTIONAL
    assert all(parameters[name].default is None for name in OPTIONAL)
    values = {name: object() for name in REQUIRED + OPTIONAL}
    assert qs.init_simulate_signal(**values) is None
    assert {name: getattr(qs, variable(name)) for name in values} == values
    required = [values[name] for name in REQUIRED]
    qs.init_simulate_signal(*required)
    assert [getattr(qs, variable(name)) for name in REQUIRED] == required
    assert [getattr(qs, variable(name)) for name in OPTIONAL] == [None] * len(OPTIONAL)
    qs.init_simulate_signal(*[None] * 6)
    assert qs._runtime_freshness_guard is None


def test_freshness_guard_follows_the_backtester():
    told = []
    guard = SimpleNamespace(register_module_consumer=lambda *args: told.append(args))
    manager = SimpleNamespace(runtime_freshness_guard=guard)
    plain, wrapping = SimpleNamespace(), SimpleNamespace(raw_backtester=None)
    qs.init_simulate_signal(None, None, None, wrapping, None, None)
    assert qs._runtime_freshness_guard is None
    qs.init_simulate_signal(None, manager, None, plain, None, None)
    assert qs._runtime_freshness_guard is guard
    assert told == []
    qs.init_simulate_signal(None, manager, None, wrapping, None, None)
    assert told == [("backtester", wrapping, "raw_backtester")]
    own = SimpleNamespace()
    with pytest.raises(AttributeError, match="register_module_consumer"):
        qs.init_simulate_signal(
            1, manager, 2, wrapping, 3, 4, vocabulary_raw=5, runtime_freshness_guard=own
        )
    assert (qs._runtime_freshness_guard, qs._auth, qs._vocabulary_raw) == (own, 1, 5)


@pytest.mark.parametrize("failures", [0, 1, 2])
def test_validator_classes_are_imported_with_one_more_try(monkeypatch, failures):
    attempts = []

    class Finder:
        @staticmethod
        def find_spec(name, path=None, target=None):
            if name == ENGINE:
                attempts.append(name)
                if len(attempts) <= failures:
                    raise ImportError(f"attempt {len(attempts)}")

    monkeypatch.delitem(sys.modules, ENGINE, raising=False)
    monkeypatch.setattr(sys, "meta_path", [Finder, *sys.meta_path])
    if failures == 2:
        with pytest.raises(ImportError, match="attempt 2"):
            qs._import_graph_validator_runtime()
    else:
        classes = qs._import_graph_validator_runtime()
        assert [c.__name__ for c in classes] == ["GraphValidator", "ValidatorConfig"]
    assert len(attempts) == max(failures, 1) + (failures == 1)
    engine = SimpleNamespace(GraphValidator="first", ValidatorConfig="second")
    monkeypatch.setitem(sys.modules, ENGINE, engine)
    assert qs._import_graph_validator_runtime() == ("first", "second")
    del engine.ValidatorConfig
    with pytest.raises(AttributeError):
        qs._import_graph_validator_runtime()


def test_factory_lookup(monkeypatch):
    for nothing in ((None, "Rank"), ("", "Rank"), ("json", None), ("json", "")):
        assert qs._factory_from_catalog_path(*nothing) is None
    assert qs._factory_from_catalog_path("json", "JSONDecoder") is json.JSONDecoder
    assert qs._factory_from_catalog_path("json", "no_such_name") is None
    tried = []
    finder = SimpleNamespace(find_spec=lambda name, path=None, target=None: tried.append(name))
    monkeypatch.setattr(sys, "meta_path", [finder, *sys.meta_path])
    assert qs._factory_from_catalog_path("quillstone.functions.absent_unit", "Rank") is None
    assert tried == ["quillstone.functions.absent_unit"] * 2
    broken = SimpleNamespace(find_spec=lambda *args: (_ for _ in ()).throw(ImportError("broken")))
    monkeypatch.setattr(sys, "meta_path", [broken])
    with pytest.raises(ImportError, match="broken"):
        qs._factory_from_catalog_path("absent_unit", "Rank")
