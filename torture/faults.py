"""Every call to a collaborator fails in turn, in every way a call can fail."""

import builtins
import sys
import threading
import time
from types import SimpleNamespace

import numpy

import common
import quillstone.simulate_signal as module
from collaborators import PATIENCE, Kit, Scripted

BY_RESULT = {"release", "record_signal_evaluation", "record_strategy_evaluation"}
FAULTS = ["ValueError", "KeyboardInterrupt", "SystemExit", "cancel", "ValueError, then a callback"]


class Fault:
    """Fails one call as told, and remembers the error."""

    def __init__(self, kit, kind):
        self.kit, self.kind, self.error = kit, kind, None

    def __call__(self):
        if self.kind == "cancel":
            threading.current_thread()._target.__self__.cancel()
            return
        name, _, then = self.kind.partition(",")
        if then:
            self.kit.script.on("set_phase", self.refuse_the_end)
        kind = getattr(builtins, name)
        self.error = kind("scripted")
        raise self.error

    @staticmethod
    def refuse_the_end(phase):
        if phase in ("error", "cancelled"):
            sys.exit("scripted, too")


def make_kit(flavour, orchestrator):
    kit = Kit(common.scratch(), flavour, orchestrator)
    kit.tested.found_signal_ids = ["f1"]
    kit.era["transform_pipeline"] = [{"name": "s", "default": "rescale", "per_pool_default": True}]
    kit.evaluated.weights = numpy.ones((3, 4))
    guards = {"ensure_fresh_before_evaluation": None, "ensure_fresh_before_backtest": None}
    guard = Scripted(kit.script, guards, snapshot=SimpleNamespace())
    kit.pieces["runtime_freshness_guard"] = guard
    return kit


def outcomes(handle):
    """What the first calls of result() give, up to one that repeats the one before."""
    found = []
    while len(found) < 4:
        try:
            found.append(handle.result())
        except BaseException as error:
            found.append(error)
        if len(found) > 1 and found[-1] is found[-2]:
            break
    return found


def wrongs(kit, kind, call, fault):
    """What is out of order after a run whose call number `call` met the fault."""
    evaluator, factory = kit.backtester.evaluator, kit.backtester.search_plan_factory
    kit.script.calls.clear()
    kit.script.intrusions = {call: fault}
    handle = kit.start(kind)
    handle._thread.join(PATIENCE)
    if handle._thread.is_alive():
        return ["no end"]
    one = (handle._result is None) != (handle._error is None)
    events = (handle._done_event, handle._acquire_done, handle._post_acquire_gate)
    found = outcomes(handle)
    names = kit.script.names()
    met = names[call] if call < len(names) else None
    acquired = names.count("acquire") - (met == "acquire" and fault.error is not None)
    recorded = sum(name.startswith("record_") for name in names)
    survives = isinstance(fault.error, ValueError) and (
        # The first manifest tells the era that was synced; a run can do without the second.
        (met == "get_manifest" and met in names[:call])
        or (met == "set_phase" and fault.kind == "ValueError")
    )
    if fault.kind == "cancel":
        as_expected = all(isinstance(end, module.CancelledError) for end in found)
    elif met in BY_RESULT:
        as_expected = found[0] is fault.error and found[-1] is handle._result
    elif fault.kind == "none" or survives:
        as_expected = found[0] is handle._result is not None
    else:
        as_expected = found[0] is fault.error or met == "set_phase"
    module_locks = (module._sync_lock, module._simulation_lock)
    order = {
        "the fault was met": met is not None,
        "one outcome": one,
        "the outcome is the fault's": as_expected,
        "a repeated outcome": len(found) > 1 and found[-1] is found[-2],
        "events set": all(event.is_set() for event in events),
        "released once": names.count("release") == acquired,
        "at most one record": recorded <= (found[0] is handle._result or met in BY_RESULT),
        "evaluator restored": kit.backtester.evaluator is evaluator,
        "search plan restored": kit.backtester.search_plan_factory is factory,
        "no lock held": not any(lock.locked() for lock in (handle._lock, *module_locks)),
        "no sync left": not module._sync_in_progress and module._sync_event.is_set(),
        "slot given up": handle._pipeline_acquired is False,
    }
    kit.script.intrusions = {}
    kit.script.on("set_phase", None)
    wrong = [name for name, held in order.items() if not held]
    try:
        if not kit.run(kind).passed:
            wrong.append("the next run fails a gate")
    except BaseException as error:
        wrong.append(f"the next run fails: {error!r}")
    return wrong


def promise(quick, random):
    common.quiet()
    for kind in ("signal", "strategy"):
        tried = failed = 0
        worst, begun = 0.0, time.monotonic()
        for flavour in ("run_backtest", "backtest"):
            for orchestrator in (None, "instance", "class"):
                kit = make_kit(flavour, orchestrator)
                kit.run(kind)
                names = kit.script.names()
                for call, name in enumerate(names):
                    for how in FAULTS:
                        if how == "cancel" and name in BY_RESULT:
                            continue  # result() holds the handle's lock there
                        one_begun = time.monotonic()
                        wrong = wrongs(kit, kind, call, Fault(kit, how))
                        worst = max(worst, time.monotonic() - one_begun)
                        tried, failed = tried + 1, failed + bool(wrong)
                        if wrong:
                            common.complain(kind, flavour, orchestrator, call, name, how, wrong)
        note = f"{len(names)} calls in the last variant, {time.monotonic() - begun:.0f} s"
        common.figures(f"a {kind} run with one failed call", tried, failed, worst, note)


if __name__ == "__main__":
    common.main(promise)
