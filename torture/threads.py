"""Many simulations from many threads, with failing syncs, cancels, polls and result calls."""

import collections
import faulthandler
import random as randomness
import sys
import threading
import time

import common
import quillstone.simulate_signal as module
from collaborators import Kit, node

THREADS, EACH = 16, 4
WATCHDOG = 60.0


class Manager:
    """Counts what the module does to the sync manager, and fails one sync in five."""

    def __init__(self, seed):
        self.lock = threading.Lock()
        self.random = randomness.Random(seed)
        self.count = collections.Counter()
        self.syncing = self.overlaps = 0

    def counted(self, name):
        def action(*args, **kwargs):
            with self.lock:
                self.count[name] += 1

        return action

    def sync(self):
        with self.lock:
            self.count["sync"] += 1
            self.overlaps += self.syncing
            self.syncing += 1
            fails, pause = self.random.random() < 0.2, self.random.random() * 0.001
            kind = self.random.choice([ValueError, KeyboardInterrupt, SystemExit])
        time.sleep(pause)
        with self.lock:
            self.syncing -= 1
        if fails:
            raise kind("scripted")


def promise(quick, random):
    rounds = 5 if quick else 200
    common.quiet()
    kit = Kit(common.scratch())
    kit.script.calls = common.Forgetful()
    manager = Manager(random.random())
    on = kit.script.on
    on("acquire", manager.counted("acquire"))
    on("release", manager.counted("release"))
    on("record_signal_evaluation", manager.counted("record"))
    on("request_for_sync", manager.sync)
    kit.wire()
    problems, ends, longest = [], collections.Counter(), 0.0
    sys.setswitchinterval(1e-6)
    for number in range(rounds):
        faulthandler.dump_traceback_later(WATCHDOG, exit=True)
        begun = time.monotonic()
        seeds = [random.random() for _ in range(THREADS)]
        workers = [threading.Thread(target=work, args=(s, problems, ends)) for s in seeds]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join()
        longest = max(longest, time.monotonic() - begun)
        if module._sync_in_progress or module._sync_lock.locked():
            problems.append(f"a sync is left after round {number}")
    faulthandler.cancel_dump_traceback_later()
    if manager.overlaps:
        problems.append(f"{manager.overlaps} syncs at the same time as another")
    if (manager.count["acquire"], ends["succeeded"]) != (
        manager.count["release"], manager.count["record"]
    ):  # fmt: skip
        problems.append(f"{manager.count} with {ends}")
    for problem in problems[:20]:
        common.complain(problem)
    note = f"{rounds} rounds; {manager.count['sync']} syncs; " + ", ".join(
        f"{count} {name}" for name, count in sorted(ends.items())
    )
    figure = f"simulations from {THREADS} threads, {THREADS * EACH} at once"
    common.figures(figure, rounds * THREADS * EACH, len(problems), longest, note)


def work(seed, problems, ends):
    random = randomness.Random(seed)
    handles = [module.simulate_signal(node(), "top", signal_pool_id="p1") for _ in range(EACH)]
    for handle in handles:
        found = []
        helpers = [threading.Thread(target=retrieve, args=(handle, found)) for _ in range(2)]
        if random.random() < 0.3:
            helpers.append(threading.Thread(target=handle.cancel))
        random.shuffle(helpers)
        for helper in helpers:
            helper.start()
        while not handle._done_event.is_set() and random.random() < 0.9:
            if handle.status().phase not in module_phases:
                problems.append(f"unknown phase {handle.status()}")
        retrieve(handle, found)
        for helper in helpers:
            helper.join()
        retrieve(handle, found)
        check(handle, found, problems, ends)


module_phases = {"syncing", "initializing", "evaluating", "backtesting", "computing_mi",
                 "complete", "cancelled", "error"}  # fmt: skip


def retrieve(handle, found):
    try:
        found.append(handle.result())
    except BaseException as error:
        found.append(error)


def check(handle, found, problems, ends):
    """All callers are told of the same end; only a cancel may turn one failure into another."""
    results = [end for end in found if isinstance(end, module.SimulationResult)]
    cancelled = [end for end in found if isinstance(end, module.CancelledError)]
    name = "succeeded" if results else "cancelled" if cancelled else "failed"
    ends[name] += 1
    same = len({id(end) for end in found}) == 1
    if results and (not same or handle._error is not None):
        problems.append(f"a result and an error: {found}")
    if not results and not same and not cancelled:
        problems.append(f"several errors: {found}")
    if handle._lock.locked() or not handle._done_event.is_set() or handle._thread.is_alive():
        problems.append("a lock held, an event unset or a thread alive")


if __name__ == "__main__":
    common.main(promise)
