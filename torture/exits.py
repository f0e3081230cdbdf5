"""Processes that end with simulations blocked or busy in every phase."""

import os
import signal
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import common

LIMIT = 2.0
BEFORE_SYNC = ["get_wallet_secret", "acquire", "phase:syncing"]
PLACES = [
    *BEFORE_SYNC, "request_for_sync", "init_if_needed", "initialize_era_vault", "load_vocabulary",
    "init_reconstruction", "validate", "get_manifest", "compute_search_plan", "BatchOrchestrator",
    "evaluate", "backtest", "load_found_signal_pnl", "correlate_per_pool", "compute_mi_per_pool",
    "gate:metrics", "gate:is_correlation", "gate:is_pnl_mi", "get_current_era_id",
    "phase:initializing", "phase:evaluating", "phase:backtesting", "phase:computing_mi",
    "phase:complete",
]  # fmt: skip
# Callbacks of the module that run while it handles an exception, and a destructor.
HANDLERS = ["logger", "phase:error", "phase:cancelled", "text of the error", "loader fallback",
            "putting the evaluator back", "vault is ready", "destructor"]  # fmt: skip
ACTIVITIES = ["sleep", "event", "python", "numpy", "module"]
ENDINGS = ["end", "sys.exit", "result in a daemon thread", "cancel", "fast switches"]
SPECIAL = ["collaborator exits", "interrupt", "import", "large graphs", "start in a daemon thread"]


def draw(random):
    if random.random() < 0.2:
        return {"special": random.choice(SPECIAL), "delay": random.random() * 0.06}
    count = random.randint(1, 16)
    return {
        "places": [
            (random.choice(HANDLERS if random.random() < 0.3 else PLACES),
             random.choice(ACTIVITIES))
            for _ in range(count)
        ],
        "ending": random.choice(ENDINGS),
    }  # fmt: skip


def promise(quick, random):
    # OpenBLAS's own exit handler waits for its worker threads, for ever if a daemon thread shared
    # out a product among them just then; in plain Python, too. A lone thread has no workers.
    os.environ["OPENBLAS_NUM_THREADS"] = "1"
    jobs = [draw(random) for _ in range(40 if quick else 1000)]
    with ThreadPoolExecutor(2) as pool:
        ends = list(pool.map(attempt, jobs))
    groups = {"blocked or busy in up to 16 places": [], **{name: [] for name in SPECIAL}}
    for job, end in zip(jobs, ends, strict=True):
        groups[job.get("special", "blocked or busy in up to 16 places")].append(end)
    for name, found in groups.items():
        if found:
            failed = sum(problem is not None for problem, _ in found)
            common.figures(f"exit: {name}", len(found), failed, max(s for _, s in found))


def attempt(job):
    """What is wrong with the end of the process (None if nothing), and how long it took."""
    try:
        done, ended = common.child(Path(__file__), job)
    except subprocess.TimeoutExpired as error:
        common.complain("no end", error.stdout, error.stderr, job)
        return "no end", 60.0
    words = done.stdout.split()
    seconds = ended - float(words[1]) if words[:1] == ["end"] else 0.0
    expected = {"sys.exit": 3, "collaborator exits": 5, "interrupt": 130}.get(
        job.get("ending", job.get("special")), 0
    )
    problem = None
    if (done.returncode, done.stderr, words[:1]) != (expected, "", ["end"]) or seconds > LIMIT:
        problem = f"status {done.returncode}, {seconds:.2f} s, {done.stderr[-1500:]!r}"
        common.complain(problem, job)
    return problem, seconds


# In the process that is to end.


def stamp():
    os.write(1, f"end {time.monotonic()} ".encode())


def activity(kind, started):
    import numpy

    import quillstone.simulate_signal as module

    def act(*args, **kwargs):
        started.release()
        array = numpy.ones((150, 150))
        while True:
            if kind == "sleep":
                time.sleep(0.001)
            elif kind == "event":
                threading.Event().wait()
            elif kind == "python":
                sum(range(50))
            elif kind == "numpy":
                numpy.sort(array @ array, axis=None)
            else:
                module._plain_engine_definition_payload({"a": [{"b": {}}] * 30})
                module._tracking_metric("x")

    return act


def block(place, kind, started):
    """Wire collaborators of which one keeps a simulation for ever, and start that simulation."""
    import logging

    import quillstone.simulate_signal as module
    from collaborators import Kit, node

    act = activity(kind, started)
    kit = Kit(common.scratch(), orchestrator="class")
    kit.tested.found_signal_ids = ["f1"]
    on = kit.script.on
    if place == "logger":
        on("set_phase", ValueError("scripted"))
        handler = logging.Handler()
        handler.handle = act  # not emit: logging waits at exit for the lock around it
        module.logger.addHandler(handler)
    elif place.startswith("phase:"):
        if place == "phase:error":
            on("validate", ValueError("scripted"))
        elif place == "phase:cancelled":
            on("validate", lambda *_: threading.current_thread()._target.__self__.cancel())
        on("set_phase", lambda phase: act() if phase == place[6:] else None)
    elif place == "text of the error":
        on("validate", type("Unspeakable", (Exception,), {"__str__": act})())
    elif place == "loader fallback":
        # Keywords do not fit, so that it is called again, by position.
        kit.vault.init_if_needed = lambda seed, secret, era, /: act()
    elif place == "putting the evaluator back":
        adapter = module._SimulationOrchestratorEvaluator

        class Backtester(type(kit.backtester)):
            def __setattr__(self, name, value):
                if name == "evaluator" and not isinstance(value, adapter):
                    act()
                super().__setattr__(name, value)

        kit.backtester.__class__ = Backtester
        on("evaluate", ValueError("scripted"))
    elif place == "vault is ready":
        on("init_if_needed", ValueError("scripted"))
        module.vault_already_initialized_is_ready = act
    elif place == "destructor":
        doomed = type("Doomed", (), {"__del__": act})
        kit.script.calls = common.Forgetful()
        on("get_wallet_secret", lambda: doomed())
        on("load_vocabulary", ValueError("scripted"))
    else:
        on(place, act)
    kit.wire()
    return kit, module.simulate_signal(node(), "top", signal_pool_id="p1", record=False)


def end_with(places, ending):
    started, kept, syncing = threading.Semaphore(0), [], False
    usual = sys.getswitchinterval()
    sys.setswitchinterval(1e-4)  # or the busy ones keep the next from starting
    for place, kind in places:
        kept.append(block(place, kind, started))
        # Behind a sync that never ends, the others wait for it.
        if (not syncing or place in BEFORE_SYNC or place == "logger") and not started.acquire(
            timeout=20
        ):
            sys.exit(f"never got to {place}: {kept[-1][1].status()}")
        syncing = syncing or place == "request_for_sync"
    for _, handle in kept:
        if ending == "result in a daemon thread":
            threading.Thread(target=handle.result, daemon=True).start()
        elif ending == "cancel" and not handle._lock.locked():
            handle.cancel()
    sys.setswitchinterval(1e-6 if ending == "fast switches" else usual)
    stamp()
    if ending == "sys.exit":
        sys.exit(3)


def end_specially(special, delay):
    if special == "import":
        import importlib

        import numpy  # noqa: F401  (its own import is not ours to answer for)

        name = "quillstone.simulate_signal"
        threading.Thread(target=importlib.import_module, args=(name,), daemon=True).start()
        time.sleep(delay / 2)
        stamp()
        return
    import quillstone.simulate_signal as module
    from collaborators import Kit, node

    kit = Kit(common.scratch()).wire()
    run = {"graph": node(), "named_universe": "top", "signal_pool_id": "p1"}
    if special == "collaborator exits":
        kit.script.on("backtest", lambda **_: sys.exit(5))
        handle = module.simulate_signal(**run)
        handle._done_event.wait()
        stamp()
        handle.result()
    elif special == "interrupt":
        # A shell starts what runs in its background with the signal ignored.
        signal.signal(signal.SIGINT, signal.default_int_handler)

        def interrupt(**kwargs):
            time.sleep(delay)
            while True:
                # More than once, as users do: one that comes just before the interpreter's join()
                # falls asleep does not wake it, in plain Python neither.
                signal.pthread_kill(threading.main_thread().ident, signal.SIGINT)
                time.sleep(5)

        kit.script.on("backtest", interrupt)
        try:
            module.simulate_signal(**run).result()
        except KeyboardInterrupt:
            stamp()
            sys.exit(130)
    elif special == "large graphs":
        graph = node("rotation", *[node("rotation", node()) for _ in range(20_000)])
        module._plain_engine_definition_payload([[] for _ in range(20_000)])

        def walk():
            while True:
                module._has_filtration_runtime_graph(graph)

        for _ in range(2):
            threading.Thread(target=walk, daemon=True).start()
        time.sleep(delay)
        stamp()
    else:
        kit.script.calls = common.Forgetful()

        def run_on():
            while True:
                module.simulate_signal(**run).result()

        for _ in range(4):
            threading.Thread(target=run_on, daemon=True).start()
        time.sleep(delay)
        stamp()


if __name__ == "__main__":
    if (job := common.job()) is None:
        common.main(promise)
    elif "special" in job:
        end_specially(**job)
    else:
        end_with(**job)
