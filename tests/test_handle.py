"""The handle: construction, hand-shake, status, result, cancel, and the result types."""

import copy
import dataclasses
import pickle
import threading
from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from collaborators import PATIENCE, ended, node, raises_exactly

FIELDS = [
    "_graph", "_named_universe", "_universe_rule_id", "_expression_type", "_metaparameters",
    "_include_correlation", "_include_mi", "_record", "_return_series", "_return_weights",
    "_selected_pool_id", "_selected_pool_kind", "_fail_fast", "_lock", "_status", "_result",
    "_error", "_cancelled", "_done_event", "_start_time", "_acquired", "_pending_recording",
    "_result_retrieved", "_pipeline_acquired", "_released", "_pre_acquired", "_acquire_done",
    "_post_acquire_gate", "_thread",
]  # fmt: skip
STARTED = ("syncing", 0.0, "Syncing data from server...")
CANCELLED = ("cancelled", 0.0, "Simulation cancelled by user.")


def shown(status):
    return status.phase, status.progress, status.message


class Idle(qs.SimulationHandle):
    """A handle whose pipeline does nothing."""

    def _run_pipeline(self):
        self._acquire_done.set()


def idle(**options):
    options = {"selected_pool_id": "p1", **options}
    return ended(Idle(node(), "top", options.pop("expression_type", "SIGNAL"), **options))


def test_attributes_are_set_in_order(kit):
    kit.wire()
    handle = Idle(node(), "top", "SIGNAL", selected_pool_id="p1")
    assert list(vars(handle)) == FIELDS
    values = {name: value for name, value in vars(handle).items() if value in (None, False)}
    assert list(values) == [
        "_universe_rule_id", "_metaparameters", "_return_series", "_return_weights", "_result",
        "_error", "_cancelled", "_acquired", "_pending_recording", "_result_retrieved",
        "_pipeline_acquired", "_released", "_pre_acquired",
    ]  # fmt: skip
    assert handle._thread.daemon
    assert handle._status == qs.SimulationStatus(*STARTED, era_id=7)
    assert handle._post_acquire_gate.is_set()


def test_pool_kind_and_era_id_are_derived():
    for kind, pool_kind in (("STRATEGY", "strategy"), ("SIGNAL", "signal"), ("other", "signal")):
        assert idle(expression_type=kind)._selected_pool_kind == pool_kind
    assert idle(selected_pool_kind="given")._selected_pool_kind == "given"
    for config, era_id in ((None, 0), ({}, 0), ({"era_id": 9}, 9)):
        qs._era_config = config
        assert idle().status().era_id == era_id


def test_constructor_checks_the_graph_then_the_pool_id_and_starts_nothing():
    started = []

    class Never(qs.SimulationHandle):
        def _run_pipeline(self):
            started.append(self)

    with raises_exactly(ValueError, "graph node type 'aggregation' is not allowed"):
        Never(node("aggregation"), "top", "SIGNAL", selected_pool_id="")
    for kind in ("SIGNAL", "STRATEGY"):
        with raises_exactly(ValueError, f"{kind.lower()}_pool_id must be a non-empty string"):
            Never(node(), "top", kind)
    assert started == []


class Spied:
    def __init__(self, name, event, log):
        self.name, self.event, self.log = name, event, log

    def set(self):
        self.log.append((threading.current_thread().daemon, f"{self.name}.set"))
        self.event.set()

    def wait(self, timeout=None):
        self.log.append((threading.current_thread().daemon, f"{self.name}.wait", timeout))
        return self.event.wait(PATIENCE)

    def is_set(self):
        return self.event.is_set()


def test_hand_shake_and_its_time_limits(kit):
    log = []

    class Watched(qs.SimulationHandle):
        def __setattr__(self, name, value):
            if name in ("_acquire_done", "_post_acquire_gate", "_done_event"):
                value = Spied(name, value, log)
            super().__setattr__(name, value)

    kit.wire()
    kit.script.on("acquire", lambda: log.append("acquire"))
    kit.script.on("request_for_sync", lambda: log.append("sync"))
    ended(Watched(node(), "top", "SIGNAL", selected_pool_id="p1"))
    caller = [entry for entry in log if entry[0] is False]
    assert caller == [(False, "_acquire_done.wait", 0.1), (False, "_post_acquire_gate.set")]
    assert [entry for entry in log if entry not in caller] == [
        "acquire",
        (True, "_acquire_done.set"),
        (True, "_post_acquire_gate.wait", 5),
        "sync",
        (True, "_acquire_done.set"),
        (True, "_post_acquire_gate.set"),
        (True, "_done_event.set"),
    ]


def test_constructor_returns_while_acquire_blocks(kit):
    blocked = kit.script.block("acquire")
    handle = kit.start()
    blocked.wait_until_entered()
    assert handle._post_acquire_gate.is_set()
    assert not handle._acquire_done.is_set()
    assert (handle._acquired, handle._pipeline_acquired) == (False, False)
    assert shown(handle.status()) == STARTED
    blocked.leave.set()
    assert handle.result().passed


def test_status_is_a_fresh_snapshot_with_a_running_clock(monkeypatch):
    clock = iter([10.0, 11.5, 12.0, 14.0])
    monkeypatch.setattr(qs, "time", SimpleNamespace(monotonic=lambda: next(clock)))
    handle = idle()
    first, second = handle.status(), handle.status()
    assert (first.elapsed_s, second.elapsed_s) == (1.5, 2.0)
    assert dataclasses.replace(first, elapsed_s=2.0) == second
    assert first is not second is not handle._status
    handle._status.era_id = 5
    handle._update_status("phase", 0.5, "text")
    assert handle._status == qs.SimulationStatus("phase", 0.5, "text", 5, 4.0)


def test_phase_callback_runs_outside_the_lock_and_may_fail(logged):
    handle = idle()
    seen = []

    def set_phase(phase):
        seen.append((phase, handle.status().phase))
        raise fault

    fault = ValueError("no phase")
    qs._set_phase = set_phase
    handle._update_status("evaluating")
    assert seen == [("evaluating", "evaluating")]
    assert logged() == [
        ("WARNING", "Failed to set simulation phase '%s': %s", ("evaluating", fault))
    ]
    fault = KeyboardInterrupt()
    with pytest.raises(KeyboardInterrupt):
        handle._update_status("next", 0.25)
    assert shown(handle.status()) == ("next", 0.25, "")


def test_result_records_and_releases_once(kit):
    handle = kit.start()
    ended(handle)
    assert "record_signal_evaluation" not in kit.script.names()
    assert handle.status().phase == "complete"
    first = handle.result()
    assert handle.result() is first is handle._result
    assert kit.script.names().count("record_signal_evaluation") == 1
    assert kit.script.names()[-1] == "release"
    assert kit.script.names().count("release") == 1
    handle.cancel()
    assert handle.status().phase == "complete"
    assert handle.result() is first


def test_failed_run_releases_once_and_raises_the_same_error(kit):
    fault = LookupError("no data")
    kit.script.on("request_for_sync", fault)
    handle = kit.start()
    for _ in range(3):
        with pytest.raises(LookupError) as caught:
            handle.result()
        assert caught.value is fault
    assert kit.script.names().count("release") == 1
    assert shown(handle.status()) == ("error", 0.0, "Error: no data")
    assert "record_signal_evaluation" not in kit.script.names()


def test_tracker_failure_leaves_the_result_unretrieved_and_unreleased(kit):
    kit.script.on("record_signal_evaluation", OSError("disk"))
    handle = kit.start()
    with raises_exactly(OSError, "disk"):
        handle.result()
    assert handle._result_retrieved is False
    assert "release" not in kit.script.names()
    assert not handle._lock.locked()
    assert handle.result() is handle._result
    assert kit.script.names().count("record_signal_evaluation") == 1
    assert kit.script.names().count("release") == 1


def test_pending_recording_forms():
    told = []
    qs._search_tracker = SimpleNamespace(
        record_signal_evaluation=lambda **kw: told.append(("signal", kw)),
        record_strategy_evaluation=lambda **kw: told.append(("strategy", kw)),
    )
    for kind in ("SIGNAL", "STRATEGY", "other"):
        handle = idle()
        handle._pending_recording = (kind, {"a": 1})
        assert handle.result() is None
        assert handle._pending_recording is None
    assert [name for name, _ in told] == ["signal", "strategy", "strategy"]
    handle._pending_recording = ("SIGNAL", None)
    with pytest.raises(TypeError, match=r"argument after \*\* must be a mapping, not NoneType"):
        handle.result()


@pytest.mark.parametrize(
    "state", ["acquire", "request_for_sync", "evaluate_expression", "backtest", "done", "failed"]
)
def test_cancel_in_every_state(kit, state):
    blocked = kit.script.block(state) if state not in ("done", "failed") else None
    if state == "failed":
        kit.script.on("backtest", ValueError("lost"))
    handle = kit.start()
    if blocked:
        blocked.wait_until_entered()
    else:
        ended(handle)
    era_id = handle.status().era_id
    handle.cancel()
    assert handle._done_event.is_set()
    assert shown(handle.status()) == CANCELLED
    assert handle.status().era_id == era_id
    assert handle._pending_recording is None
    error = handle._error
    handle.cancel()
    assert handle._error is error
    if blocked:
        assert handle._thread.is_alive()
        blocked.leave.set()
    for _ in range(2):
        with raises_exactly(qs.CancelledError, "Simulation cancelled"):
            handle.result()
    assert shown(handle.status()) == CANCELLED
    assert kit.script.names().count("release") == 1
    assert not any(name.startswith("record") for name in kit.script.names())


def test_cancelled_pipeline_stores_its_own_error(kit):
    raised = []

    class Noted(qs.SimulationHandle):
        def _check_cancelled(self):
            try:
                super()._check_cancelled()
            except qs.CancelledError as error:
                raised.append(error)
                raise

    qs.SimulationHandle = Noted
    blocked = kit.script.block("evaluate_expression")
    handle = kit.start()
    blocked.wait_until_entered()
    handle.cancel()
    raised.append(handle._error)
    blocked.leave.set()
    assert ended(handle)._error not in raised
    assert len(raised) == 2
    assert "backtest" not in kit.script.names()


def test_result_of_several_threads_agrees(kit):
    blocked = kit.script.block("backtest")
    handle = kit.start()
    got = []
    threads = [threading.Thread(target=lambda: got.append(handle.result())) for _ in range(8)]
    for thread in threads:
        thread.start()
    blocked.leave.set()
    for thread in threads:
        thread.join(PATIENCE)
    assert got == [handle._result] * 8
    assert kit.script.names().count("record_signal_evaluation") == 1
    assert kit.script.names().count("release") == 1


def test_representation_of_a_result():
    lines = repr(qs.SimulationResult()).split("\n")
    fields = [line.removeprefix("  ").split("=") for line in lines[1:-1]]
    assert (lines[0], lines[-1]) == ("SimulationResult(", ")")
    assert [name for name, _ in fields] == [
        "pool_kind", "signal_pool_id", "strategy_pool_id", "passed", "structural_failed",
        "rejection_reason", "failure_reason", "failure_detail", "is_correlation", "is_pnl_mi",
        "was_diagnostic_only", "mi_score", "mi_passed", "expression_elapsed_seconds", "stats",
        "resolved_metaparameters",
    ]  # fmt: skip
    values = {"passed": "True,", "structural_failed": "False,", "was_diagnostic_only": "False,"}
    assert all(value == values.get(name, "None,") for name, value in fields)
    diagnostic = qs.SimulationResult(pool_kind="signal", was_diagnostic_only=True, stats={"a": 1})
    lines = str(diagnostic).split("\n")
    assert lines[:3] == [
        "WARNING: selected pool computed diagnostically under fail_fast=False; "
        "these would NOT count as Useful on submit.",
        "SimulationResult(",
        "  pool_kind='signal',",
    ]
    assert lines[-3:-1] == ["  stats={'a': 1},", "  resolved_metaparameters=None,"]


def test_result_types_are_ordinary_data_classes():
    assert [f.name for f in dataclasses.fields(qs.SimulationResult)] == [
        "stats", "factor_pnl", "per_column_stats", "portfolio_returns", "processed_weights",
        "pool_kind", "signal_pool_id", "strategy_pool_id", "is_correlation", "is_pnl_mi",
        "was_diagnostic_only", "failure_reason", "failure_detail", "passed", "structural_failed",
        "mi_score", "mi_passed", "rejection_reason", "expression_elapsed_seconds",
        "resolved_metaparameters",
    ]  # fmt: skip
    assert {f.type for f in dataclasses.fields(qs.SimulationResult)} <= {object, "object"}
    status = qs.SimulationStatus("a", 0.5, "b", 3, 1.25)
    assert repr(status) == (
        "SimulationStatus(phase='a', progress=0.5, message='b', era_id=3, elapsed_s=1.25)"
    )
    assert qs.SimulationStatus() == qs.SimulationStatus("", 0.0, "", 0, 0.0)
    result = qs.SimulationResult(stats={"sharpe": 1.0}, passed=False)
    for original in (status, result):
        for twin in (pickle.loads(pickle.dumps(original)), copy.deepcopy(original)):
            assert twin == original
            assert type(twin) is type(original)
            assert twin is not original
        assert original != dataclasses.astuple(original)
        assert dataclasses.asdict(original) == vars(original)
    status.phase = "changed"
    assert status != qs.SimulationStatus("a", 0.5, "b", 3, 1.25)
    with pytest.raises(TypeError, match=r"unexpected keyword argument 'nothing'"):
        qs.SimulationResult(nothing=1)


def test_cancelled_error_is_an_ordinary_exception():
    assert qs.CancelledError.__bases__ == (Exception,)
    assert qs.CancelledError.__doc__ == "Raised when simulation is cancelled."
    twin = pickle.loads(pickle.dumps(qs.CancelledError("text", 3)))
    assert (type(twin), twin.args) == (qs.CancelledError, ("text", 3))
