"""Data races in the module: ThreadSanitizer on an instrumented build, Helgrind on the usual one.

What neither can see: the interpreter is not instrumented, so ThreadSanitizer knows its locks but
none of its accesses, and Helgrind, which knows all accesses, not the atomic operations by which it
orders them. So only reports count whose access is the module's. What runs under the interpreter's
lock is ordered by it; what is left to find are accesses without it, or after it was given up.
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
from pathlib import Path

import common

# The access itself is in the module (or in what the tool put in place of a function it called), or
# the data is the module's; who called it does not matter.
OURS = re.compile(
    r"^(==\d+==    at | +#0 (.*\(libtsan.*\n +#1 )?).*(quillstone::|simulate_signal\.c)"
    r"|(mapped file|is global) .*simulate_signal\.c",
    re.M,
)
THREADS = 6


def simulate(count):
    """The load: threads that start, poll, cancel and retrieve simulations, and share weights."""
    import numpy

    import quillstone.simulate_signal as module
    from collaborators import Kit, node

    common.quiet()
    kit = Kit(common.scratch())
    kit.script.calls = common.Forgetful()
    kit.era["transform_pipeline"] = [{"name": "s", "default": "rescale"}]
    # Their normalisation gives up the interpreter's lock, and reads them from all threads at once.
    weights = kit.evaluated.weights = numpy.ones((500, 400))
    kit.wire()
    # Long enough for the native loops to let other threads run in their midst.
    wide = node("rotation", *[node() for _ in range(2000)])

    def work(seed):
        random = randomness.Random(seed)
        for _ in range(count):
            kit.evaluated.weights = weights
            handle = module.simulate_signal(wide, "top", signal_pool_id="p1")
            handle.status()
            if random.random() < 0.3:
                handle.cancel()
            helper = threading.Thread(target=retrieve, args=(handle,))
            helper.start()
            for layout in (weights, weights.T, weights[::-1, ::2]):
                module._finalize_rescaled_weights(layout)
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
    print(f"{THREADS * count} passed")


def watched(what, separator, command):
    """Run a command that tells how many "passed", and count its reports in files `log.*`."""
    begun = time.monotonic()
    done = subprocess.run(
        command, cwd=common.HERE.parent, capture_output=True, text=True, check=False
    )
    seconds = time.monotonic() - begun
    logs = [log.read_text(errors="replace") for log in LOGS.glob("log.*")]
    shutil.rmtree(LOGS)
    LOGS.mkdir()
    reports = [report for log in logs for report in re.split(separator, log, flags=re.M)[1:]]
    ours = [report for report in reports if OURS.search(report)]
    for report in ours[:5]:
        common.complain(report[:3000])
    passed = re.search(r"\b(\d+) passed\b", done.stdout)
    if done.returncode or passed is None:
        common.complain(done.returncode, done.stdout[-2000:], done.stderr[-2000:])
    note = f"{len(reports) - len(ours)} reports within the interpreter"
    failed = len(ours) + (done.returncode != 0)
    common.figures(what, int(passed[1]) if passed else 0, failed, seconds, note)


def thread_sanitizer():
    """The command that runs another under ThreadSanitizer, and why there is none."""
    if not (build := os.environ.get("TORTURE_TSAN")):
        return None, "TORTURE_TSAN names no folder of an instrumented build"
    root = common.HERE.parent
    asked = subprocess.run(
        ['cxx="$(tools/find-cxx)" && tools/sanitizer-runtime tsan $cxx'],
        cwd=root, shell=True, capture_output=True, text=True, check=False,
    )  # fmt: skip
    if asked.returncode:
        return None, asked.stderr.strip()
    if not list(Path(build).glob("quillstone/simulate_signal.*.so")):
        return None, f"there is no instrumented build in {build}"
    options = f"exitcode=0 report_signal_unsafe=0 log_path={LOGS}/log"
    command = ["env", f"TSAN_OPTIONS={options}", f"LD_PRELOAD={asked.stdout.strip()}",
               "PYTHONMALLOC=malloc",
               f"PYTHONPATH={build}{os.pathsep}{os.environ.get('PYTHONPATH', '')}"]  # fmt: skip
    if shutil.which("setarch"):
        # Its shadow memory wants the addresses where they are without randomisation.
        command = ["setarch", "-R", *command]
    try_out = subprocess.run([*command, "true"], capture_output=True, text=True, check=False)
    if try_out.returncode:
        return None, f"no process starts under it ({(try_out.stderr + try_out.stdout).strip()})"
    return command, None


def promise(quick, random):
    LOGS.mkdir()
    count = 2 if quick else 20
    load = [sys.executable, __file__, "--job"]
    tsan, reason = thread_sanitizer()
    if tsan is None:
        print(f"ThreadSanitizer: skipped, {reason}")
    else:
        begin = r"^WARNING: "
        watched("simulations under ThreadSanitizer", begin, [*tsan, *load, str(count * 5)])
        if not quick:
            tests = [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider"]
            watched("the tests under ThreadSanitizer", begin, [*tsan, *tests])
    if shutil.which("valgrind") is None:
        print("Helgrind: skipped, there is no valgrind")
        return
    command = ["env", "PYTHONMALLOC=malloc", "valgrind", "--tool=helgrind", "--history-level=none",
               "--num-callers=30", "--error-limit=no", f"--log-file={LOGS}/log.%p"]  # fmt: skip
    few = str(max(1, count // 10))
    watched("simulations under Helgrind", r"^==\d+== -{40,}$", [*command, *load, few])


if __name__ == "__main__":
    if (job := common.job()) is None:
        LOGS = Path(common.scratch(), "logs")
        common.main(promise)
    else:
        simulate(job)
