"""The ten phases as a whole: order of calls, status protocol, outcome of every failure."""

import gc
import sys
import threading

import pytest

import quillstone.simulate_signal as qs
from collaborators import SEED, ended, node, raises_exactly, set_children

START = [
    "get_wallet_secret", "set_phase", "acquire", "set_phase", "request_for_sync", "get_manifest",
    "set_phase", "initialize_era_vault", "init_if_needed", "load_vocabulary",
    "init_reconstruction", "validate", "set_phase", "get_manifest",
]  # fmt: skip
EVALUATION = {
    None: ["evaluate_expression"],
    "instance": ["compute_search_plan", "evaluate"],
    "class": ["compute_search_plan", "BatchOrchestrator", "evaluate"],
}
SHAPES = [
    (flavour, orchestrator, kind)
    for flavour in ("backtest", "run_backtest")
    for orchestrator in (None, "instance", "class")
    for kind in ("signal", "strategy")
]
EVENTS = ("_acquire_done", "_post_acquire_gate", "_done_event")


def watched(log):
    """A handle class that notes every status update."""

    class Watched(qs.SimulationHandle):
        def _update_status(self, phase, progress=0.0, message=""):
            log.append((phase, progress, message))
            super()._update_status(phase, progress, message)

    return Watched


@pytest.mark.parametrize(("flavour", "orchestrator", "kind"), SHAPES)
def test_calls_of_a_whole_run_in_order(make_kit, flavour, orchestrator, kind):
    kit = make_kit(flavour, orchestrator)
    kit.tested.found_signal_ids = ["f1", "f2", "f1"]
    kit.run(kind)
    assert [name for name in kit.script.names() if name != "universe_mask"] == [
        *START,
        *EVALUATION[orchestrator],
        "set_phase",
        flavour,
        "load_found_signal_pnl",
        "load_found_signal_pnl",
        "gate:metrics",
        "correlate_per_pool",
        "gate:is_correlation",
        "set_phase",
        "compute_mi_per_pool",
        "gate:is_pnl_mi",
        "get_current_era_id",
        "set_phase",
        f"record_{kind}_evaluation",
        "release",
    ]


def test_status_updates_of_a_whole_run(kit):
    log = []
    qs.SimulationHandle = watched(log)
    kit.sync_manager.bytes_downloaded, kit.sync_manager.total_bytes = 1, 4
    kit.run()
    assert log == [
        ("syncing", 0.0, "Syncing data from server..."),
        ("syncing", 0.25, "Syncing data... 1/4 bytes downloaded"),
        ("initializing", 0.0, "Initializing vault and loading vocabulary for era 7..."),
        ("evaluating", 0.0, "Evaluating expression... batch 0/?"),
        ("backtesting", 0.0, "Backtesting signal against thresholds..."),
        ("computing_mi", 0.0, "Computing marginal improvement score..."),
        ("complete", 1.0, "Simulation complete. Results available."),
    ]


def test_nothing_is_recorded_unless_asked(kit):
    handle = ended(kit.start(record=False))
    assert handle._pending_recording is None
    assert handle.result().passed
    assert not any(name.startswith("record") for name in kit.script.names())


SOME_SHAPES = [SHAPES[0], SHAPES[2], SHAPES[9], SHAPES[11]]


def calls_of_a_run(make_kit, flavour, orchestrator, kind):
    kit = make_kit(flavour, orchestrator)
    kit.tested.found_signal_ids = ["f1"]
    kit.run(kind)
    return kit.script.names()


def run_with_intrusion(make_kit, shape, index, action):
    """A run of `shape` whose call number `index` runs `action`, and what `result()` gave."""
    flavour, orchestrator, kind = shape
    kit = make_kit(flavour, orchestrator)
    kit.tested.found_signal_ids = ["f1"]
    kit.replaceable = kit.backtester.evaluator, kit.backtester.search_plan_factory
    kit.script.intrusions[index] = lambda: action(kit)
    plain = qs.SimulationHandle

    class Known(plain):
        def _run_pipeline(self):
            kit.handle = self
            super()._run_pipeline()

    qs.SimulationHandle = Known
    handle = ended(kit.start(kind))
    qs.SimulationHandle = plain
    try:
        return kit, handle, handle.result()
    except BaseException as error:
        return kit, handle, error


def check_settled(kit, handle):
    assert all(getattr(handle, name).is_set() for name in EVENTS)
    assert not handle._pipeline_acquired
    assert not handle._lock.locked()
    assert not qs._sync_lock.locked()
    assert qs._sync_in_progress is False
    now = kit.backtester.evaluator, kit.backtester.search_plan_factory
    assert now == kit.replaceable
    assert kit.script.names().count("release") == int(handle._acquired)
    assert sum(name.startswith("record") for name in kit.script.names()) <= 1


@pytest.mark.parametrize("fault", [LookupError, KeyboardInterrupt, SystemExit, qs.CancelledError])
@pytest.mark.parametrize("shape", SOME_SHAPES)
def test_every_collaborator_call_failing_once(make_kit, shape, fault):
    qs.vault_already_initialized_is_ready = lambda vault, error: False
    names = calls_of_a_run(make_kit, *shape)
    for index, name in enumerate(names):
        error = fault("scripted")

        def action(kit, error=error):
            raise error

        kit, handle, outcome = run_with_intrusion(make_kit, shape, index, action)
        best_effort = name == "set_phase" or (
            name == "get_manifest" and "get_manifest" in names[:index]
        )
        if name.startswith("record") or name == "release":
            assert outcome is error
            assert handle._result_retrieved is (name == "release")
            outcome = handle.result()
            assert isinstance(outcome, qs.SimulationResult)
        elif best_effort and isinstance(error, Exception):
            assert isinstance(outcome, qs.SimulationResult)
        elif fault is qs.CancelledError:
            assert (type(outcome), str(outcome)) == (fault, "Simulation cancelled")
            assert handle.status().phase == "cancelled"
        else:
            assert outcome is error
            assert handle.status().message == "Error: scripted"
        assert (handle._result is None) is (handle._error is not None)
        check_settled(kit, handle)


@pytest.mark.parametrize("shape", SOME_SHAPES)
def test_cancel_inside_every_collaborator_call(make_kit, shape):
    names = calls_of_a_run(make_kit, *shape)
    last = max(index for index, name in enumerate(names) if name == "set_phase")
    for index in range(last + 1):
        kit, handle, outcome = run_with_intrusion(
            make_kit, shape, index, lambda kit: kit.handle.cancel()
        )
        assert (type(outcome), str(outcome)) == (qs.CancelledError, "Simulation cancelled")
        assert handle.status().phase == "cancelled"
        assert not any(name.startswith("record") for name in kit.script.names())
        check_settled(kit, handle)
    assert kit.run(shape[2]).passed


def test_outcome_is_kept_when_reporting_it_fails(kit):
    class Unprintable(Exception):
        def __str__(self):
            raise ValueError("no text")

    fault = Unprintable()
    kit.script.on("validate", fault)
    assert kit.failure() is fault
    stop = KeyboardInterrupt("always")
    kit.script.on("set_phase", stop)
    handle = ended(kit.start())
    assert handle._error is stop
    assert all(getattr(handle, name).is_set() for name in EVENTS)


class Refusing:
    """An event or a lock that cannot be set or taken as often as told, for want of memory."""

    def __init__(self, usual, refusals, when=lambda: True):
        self.usual, self.refusals, self.when = usual, refusals, when

    def __getattr__(self, name):
        return getattr(self.usual, name)

    def _use(self):
        if self.refusals and self.when():
            self.refusals -= 1
            raise MemoryError("scripted")

    def set(self):
        self._use()
        self.usual.set()

    def __enter__(self):
        self._use()
        return self.usual.__enter__()

    def __exit__(self, *error):
        return self.usual.__exit__(*error)


def in_backtest(kit):
    """A new run whose handle can be tampered with until the blocker lets it go on."""
    blocked = kit.script.block("backtest")
    handle = kit.start()
    blocked.wait_until_entered()
    assert handle._pipeline_acquired
    return handle, blocked


@pytest.mark.parametrize(
    "refusals", [dict.fromkeys(EVENTS, 1), *({**dict.fromkeys(EVENTS, 0), n: 9} for n in EVENTS)]
)
def test_end_is_told_although_an_event_refuses(kit, refusals):
    handle, blocked = in_backtest(kit)
    for name, count in refusals.items():
        setattr(handle, name, Refusing(threading.Event(), count))
    blocked.leave.set()
    ended(handle)
    told = [name for name in EVENTS if getattr(handle, name).is_set()]
    assert told == [name for name in EVENTS if refusals[name] < 2]
    assert handle._result.passed
    assert handle._pipeline_acquired is False


@pytest.mark.parametrize("once_there_is_a_result", [True, False])
def test_hold_is_given_up_although_the_lock_refuses(kit, once_there_is_a_result):
    handle, blocked = in_backtest(kit)
    usual = handle._lock
    handle._lock = Refusing(
        usual, 99, lambda: not once_there_is_a_result or handle._result is not None
    )
    blocked.leave.set()
    ended(handle)
    assert handle._lock.refusals < 99
    assert handle._pipeline_acquired is False
    assert all(getattr(handle, name).is_set() for name in EVENTS)
    handle._lock = usual
    if once_there_is_a_result:
        assert handle.result().passed
    else:
        with raises_exactly(MemoryError, "scripted"):
            handle.result()


def test_subclass_may_replace_any_step(kit):
    class Own(qs.SimulationHandle):
        def _check_cancelled(self):
            checks.append(self.status().phase)
            super()._check_cancelled()

        def _do_release(self):
            checks.append("release")
            super()._do_release()

    checks = []
    qs.SimulationHandle = Own
    kit.run()
    assert checks == [
        "syncing", "syncing", "syncing", "initializing", "initializing", "evaluating",
        "evaluating", "backtesting", "backtesting", "computing_mi", "computing_mi",
        "computing_mi", "release",
    ]  # fmt: skip


def test_reference_counts_are_unchanged_after_runs(make_kit):
    kit = make_kit("backtest", "class")
    kit.tested.found_signal_ids = ["f1"]
    graph, options = node("rotation", node()), {"a": "b"}
    watched_objects = [
        graph, options, kit.era, kit.signal_pool, kit.tested, kit.stats, kit.evaluated, SEED,
        kit.pieces["found_signal_pool"], kit.script, *kit.pieces.values(),
    ]  # fmt: skip
    fault = LookupError()

    def rounds():
        for _ in range(3):
            kit.run(graph=graph, metaparameters=options)
            kit.script.on("backtest", fault)
            kit.failure(graph=graph, metaparameters=options)
            kit.script.on("backtest", None)
            kit.script.calls.clear()
            fault.__traceback__ = None
        gc.collect()
        return [sys.getrefcount(thing) for thing in watched_objects]

    assert rounds() == rounds() == rounds()


@pytest.mark.parametrize("kind", ["signal", "strategy"])
def test_cyclic_graph_ends_or_is_refused(kit, kind):
    ring = node("rotation")
    set_children(ring, [ring])
    handle = ended(kit.start(kind, ring))
    set_children(ring, [])
    if not isinstance(handle._error, RecursionError):
        assert type(handle._error) is {"signal": type(None), "strategy": ValueError}[kind]
