"""Data races in the module: ThreadSanitizer on an instrumented build, Helgrind on the usual one.

Neither sees the interpreter as it is: it is not instrumented, and orders much by atomic operations
that Helgrind does not know. So only reports with a frame of the module count.
"""

import contextlib
import os
import random as randomness
import re
import shutil
import subprocess
import sys
import threading
import time

import common

# The access itself is in the module, or the data is the module's; who called it does not matter.
OURS = re.compile(
    r"^(==\d+==    at | +#0 ).*(quillstone::|simulate_signal\.c)|mapped file .*simulate_signal\.c",
    re.M,
)
THREADS = 6


def simulate(count):
    """The load: threads that start, poll, cancel and retrieve simulations."""
    import quillstone.simulate_signal as module
    from collaborators import Kit, node

    common.quiet()
    kit = Kit(common.scratch())
    kit.script.calls = common.Forgetful()
    kit.wire()
    # Long enough for the native loops to let other threads run in their midst.
    wide = node("rotation", *[node() for _ in range(2000)])

    def work(seed):
        random = randomness.Random(seed)
        for _ in range(count):
            handle = module.simulate_signal(wide, "top", signal_pool_id="p1")
            handle.status()
            if random.random() < 0.3:
                handle.cancel()
            helper = threading.Thread(target=retrieve, args=(handle,))
            helper.start()
            retrieve(handle)
            helper.join()

    def retrieve(handle):
        with contextlib.suppress(module.CancelledError):
            handle.result()

    workers = [threading.Thread(target=work, args=(seed,)) for seed in range(THREADS)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    print("simulated")


def watched(what, command, count, environment, separator):
    command = [*command, sys.executable, __file__, "--job", str(count)]
    begun = time.monotonic()
    done = subprocess.run(
        command, env={**os.environ, **environment}, capture_output=True, text=True, check=False
    )
    seconds = time.monotonic() - begun
    reports = separator.split(done.stderr)[1:]
    ours = [report for report in reports if OURS.search(report)]
    for report in ours[:5]:
        common.complain(report[:3000])
    failed = len(ours)
    if done.stdout != "simulated\n":
        failed += 1
        common.complain(done.returncode, done.stdout[-500:], done.stderr[-2000:])
    note = f"{len(reports) - len(ours)} reports within the interpreter"
    common.figures(f"simulations under {what}", count * THREADS, failed, seconds, note)


def promise(quick, random):
    count = 2 if quick else 20
    compiler = os.environ.get("CXX", "g++")
    asked = subprocess.run(
        [compiler, "-print-file-name=libtsan.so"], capture_output=True, text=True, check=False
    )
    runtime = asked.stdout.strip()
    if not (build := os.environ.get("TORTURE_TSAN")):
        print("ThreadSanitizer: skipped, TORTURE_TSAN names no folder of an instrumented build")
    elif not os.path.isabs(runtime):
        print(f"ThreadSanitizer: skipped, {compiler} has no libtsan")
    else:
        paths = os.pathsep.join([build, os.environ.get("PYTHONPATH", "")])
        environment = {"PYTHONPATH": paths, "LD_PRELOAD": os.path.realpath(runtime),
                       "PYTHONMALLOC": "malloc",
                       "TSAN_OPTIONS": "exitcode=0 report_signal_unsafe=0"}  # fmt: skip
        # Its shadow memory wants the addresses where they are without randomisation.
        command = ["setarch", "-R", "env", *(f"{k}={v}" for k, v in environment.items())]
        watched("ThreadSanitizer", command, count * 5, {}, re.compile(r"^WARNING: ", re.M))
    if shutil.which("valgrind") is None:
        print("Helgrind: skipped, there is no valgrind")
        return
    command = ["valgrind", "--tool=helgrind", "--history-level=none", "--num-callers=30",
               "--error-limit=no"]  # fmt: skip
    separator = re.compile(r"^==\d+== -{40,}$", re.M)
    watched("Helgrind", command, max(1, count // 10), {"PYTHONMALLOC": "malloc"}, separator)


if __name__ == "__main__":
    if (job := common.job()) is None:
        common.main(promise)
    else:
        simulate(job)
