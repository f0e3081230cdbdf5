"""Allocations that fail one by one, and runs by the hundred thousand."""

import collections
import faulthandler
import gc
import os
import re
import sys
import threading
import types
from pathlib import Path

import common

# Growth that is noise: free lists, the interpreter's and the allocator's caches.
BLOCKS, RSS_KIB = 300, 2048
LIMIT = 20_000


def prepared(variant):
    """Collaborators for a run of one variant, and a function that makes it."""
    import numpy

    import quillstone.simulate_signal as module
    from collaborators import Kit, node

    common.quiet()
    kit = Kit(common.scratch(), orchestrator="class" if variant == "orchestrator" else None)
    kit.script.calls = common.Forgetful()
    kit.tested.found_signal_ids = ["f1"]
    if variant == "rescaling":
        kit.era["transform_pipeline"] = [{"name": "s", "default": "rescale"}]
        kit.evaluated.weights = numpy.ones((3, 4))
    if variant == "failing":
        kit.script.on("backtest", ValueError("scripted"))
    kit.wire()
    graphs = {"signal_pool_id": node("rotation", node()), "strategy_pool_id": node("filtration")}
    if variant == "strategy":
        pool, identity, entry = "strategy_pool_id", "s1", "simulate_strategy"
    else:
        pool, identity, entry = "signal_pool_id", "p1", "simulate_signal"
    graph = graphs[pool]
    inputs = [graph, kit, kit.era, *kit.pieces.values(), kit.signal_pool, kit.strategy_pool,
              kit.tested, kit.stats, kit.evaluated, kit.tested.per_column_stats,
              kit.backtester.evaluator, kit.backtester.search_plan_factory,
              kit.evaluated.weights, module.SimulationHandle, module.SimulationResult,
              module.SimulationStatus, module.CancelledError, True, False]  # fmt: skip
    return kit, lambda: getattr(module, entry)(graph, "top", **{pool: identity}), inputs


# Runs by the hundred thousand.


def promise(quick, random):
    runs = 1000 if quick else 100_000
    failed_runs = 1000 if quick else 100_000
    shares = {"plain": runs // 4, "orchestrator": runs // 4, "strategy": runs // 4,
              "rescaling": runs // 4, "failing": failed_runs}  # fmt: skip
    for variant, count in shares.items():
        loop(variant, count)
    try:
        import _testcapi

        _testcapi.set_nomemory  # noqa: B018  (not every interpreter has it)
    except (ImportError, AttributeError):
        print("failed allocations: skipped, the interpreter has no _testcapi.set_nomemory")
        return
    for variant in ("plain",) if quick else ("plain", "strategy", "rescaling", "failing"):
        exhaust(variant, quick)


def loop(variant, count):
    _, start, inputs = prepared(variant)

    def once():
        try:
            start().result()
        except ValueError as error:
            error.__traceback__ = None  # the scripted error is one object, and would keep them all

    def state():
        gc.collect()
        counts = [sys.getrefcount(item) for item in inputs]
        return sys.getallocatedblocks(), resident(), counts

    # Pages are first touched in steps, long after the start; a leak goes on for ever.
    for _ in range(max(500, count // 5)):
        once()
    before = state()
    for _ in range(count):
        once()
    after = state()
    blocks, rss = after[0] - before[0], after[1] - before[1]
    moved = [
        f"{type(item).__name__} {new - old:+}"
        for item, old, new in zip(inputs, before[2], after[2], strict=True)
        if new != old
    ]
    if moved:
        common.complain("reference counts", moved)
    wrong = (blocks > BLOCKS) + (rss > RSS_KIB) + bool(moved)
    note = f"{blocks:+} blocks (bound {BLOCKS}), {rss:+} KiB resident (bound {RSS_KIB})"
    common.figures(f"runs, {variant}", count, wrong, None, note)


def resident():
    pages = int(Path("/proc/self/statm").read_text().split()[1])
    return pages * os.sysconf("SC_PAGE_SIZE") // 1024


# Allocations that fail one by one.


def exhaust(variant, quick):
    """Fail each allocation of a run in turn; children go on behind one that crashed."""
    first, step = 0, 3 if quick else 1
    ends, left_out, wrong = collections.Counter(), collections.Counter(), 0
    while first < LIMIT:
        done, _ = common.child(__file__, {"variant": variant, "first": first, "step": step}, 300)
        lines = [line.split(" ", 2) for line in done.stdout.splitlines()]
        for line in lines:
            if line[1:2] == ["WRONG"]:
                wrong += 1
                common.complain(variant, *line)
            elif line[1:]:
                ends[line[1]] += 1
        if done.returncode == 0 and lines:
            break
        place = crash_of_the_interpreter(done)
        if place is None:
            wrong += 1
            common.complain(variant, lines[-1:], done.returncode, done.stderr[-1500:])
        else:
            left_out[place] += 1
        if not lines:
            break
        first = int(lines[-1][0]) + step
    note = ", ".join(f"{count} {name}" for name, count in ends.most_common())
    tried = ends.total() + left_out.total()
    common.figures(f"failed allocations, {variant}, every {step}.", tried, wrong, None, note)
    for place, count in left_out.items():
        print(f"    left out: {place} crashes in plain Python, too ({count})")


TOP = r"most recent call first\):\n  File .*, line \S+ in (\S+)$"
# What the kit does that the interpreter itself does not survive, as the same call in plain Python.
PLAIN = {"canonicalize": lambda kit: kit.canonicalize({"p1": {"window": 1}})}


def crash_of_the_interpreter(done):
    """The Python function in which a child crashed, if plain Python crashes in it as well."""
    where = re.search(TOP, done.stderr, re.M)
    if done.returncode >= 0 or where is None or where[1] not in PLAIN:
        return None
    first = 0
    while True:
        plain, _ = common.child(__file__, {"plain": where[1], "first": first})
        if plain.returncode >= 0:
            return None
        # Or in a function that is made within it, as chance has it.
        if re.search(rf"first\):(\n .*)?\n  File .* in {where[1]}$", plain.stderr, re.M):
            return where[1]
        first = int(plain.stdout.split()[-1]) + 1


def fail_allocations_of_plain_python(plain, first):
    import _testcapi

    import quillstone._simulate_primitives as kit

    PLAIN[plain](kit)
    for number in range(first, 100):
        os.write(1, b"%d\n" % number)
        _testcapi.set_nomemory(number, number + 1)
        try:
            PLAIN[plain](kit)
        except MemoryError:
            pass
        finally:
            _testcapi.remove_mem_hooks()


class InlineThread:
    """Stands in for a thread: the run happens in the thread whose allocations fail."""

    def __init__(self, target=None, daemon=None):
        pass

    def start(self):
        pass

    join = start


class InlineEvent:
    def __init__(self):
        self.is_set = bool

    def set(self):
        self.is_set = True.__bool__

    def clear(self):
        self.is_set = False.__bool__

    def wait(self, timeout=None):
        return self.is_set()


def later_end(handle):
    """Whether result() gives the outcome once there is memory again."""
    try:
        return handle.result() is handle._result is not None
    except BaseException as error:
        return error is handle._error


def passing_gate(*, metrics, threshold_set, pool_thresholds=None):
    """In place of the scripted one, whose generator expression would crash the interpreter."""
    return PASSED


PASSED = types.SimpleNamespace(passed=True)


def fail_allocations(variant, first, step):
    import _testcapi

    import quillstone.simulate_signal as module

    faulthandler.dump_traceback_later(250, exit=True)
    kit, start, _ = prepared(variant)
    module._sync_event = InlineEvent()
    module.threading = types.SimpleNamespace(
        Thread=InlineThread, Event=InlineEvent, Lock=threading.Lock
    )
    module.evaluate_threshold_gates = passing_gate
    evaluator = kit.backtester.evaluator
    for _ in range(3):
        start()._run_pipeline()
    clean = 0
    for number in range(first, LIMIT, step):
        handle, raised = None, None
        os.write(1, b"%d" % number)
        _testcapi.set_nomemory(number, number + 1)
        try:
            handle = start()
            handle._run_pipeline()
            handle.result()
        except (MemoryError, RuntimeError, ValueError) as error:
            raised = error
        finally:
            _testcapi.remove_mem_hooks()
        if handle is None:
            os.write(1, f" {type(raised).__name__}-at-the-start\n".encode())
            continue
        end = "result" if raised is None else type(raised).__name__
        wrong = [
            name
            for name, held in {
                "no outcome": (handle._result is None) != (handle._error is None),
                "an event unset": handle._done_event.is_set() and handle._acquire_done.is_set(),
                "a lock held": not handle._lock.locked() and not module._sync_lock.locked(),
                "a sync left": not module._sync_in_progress,
                "the evaluator replaced": kit.backtester.evaluator is evaluator,
                "a slot kept": handle._pipeline_acquired is False,
                "another outcome later": handle._lock.locked() or later_end(handle),
            }.items()
            if not held
        ]
        os.write(1, f" {end}\n".encode())
        if wrong:
            os.write(1, f"{number} WRONG {', '.join(wrong)} ({end})\n".encode())
            module._sync_in_progress = False
            kit.backtester.evaluator = evaluator
        # Done when the run no longer gets as far as the allocation that is to fail.
        clean = clean + 1 if end == ("ValueError" if variant == "failing" else "result") else 0
        if clean > 200 // step + 5:
            break
    sys.stdout.flush()
    os._exit(0)


if __name__ == "__main__":
    if (job := common.job()) is None:
        common.main(promise)
    elif "plain" in job:
        fail_allocations_of_plain_python(**job)
    else:
        fail_allocations(**job)
