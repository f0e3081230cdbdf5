"""What the promises share: figures, the scripted collaborators of the tests, child processes."""

import json
import logging
import os
import random
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).parent
sys.path.insert(0, str(HERE.parent / "tests"))

_failed = False


def figures(what, tried, failed, worst=None, note=""):
    """Print one row of the table; any failure makes the program fail."""
    global _failed
    _failed = _failed or bool(failed) or not tried
    seconds = "" if worst is None else f"{worst:.2f} s"
    print(f"{what:<58}{tried:>9,}{failed:>9,}{seconds:>10}  {note}".rstrip(), flush=True)


def complain(*words):
    print("   ", *words, file=sys.stderr, flush=True)


def main(promise):
    """Run `promise(quick, random)` of a file that is executed with --quick and --seed."""
    quick = "--quick" in sys.argv
    seed = int(sys.argv[sys.argv.index("--seed") + 1]) if "--seed" in sys.argv else 0
    promise(quick, random.Random(seed))
    sys.exit(_failed)


def scratch():
    """A new folder that goes when the promise's process has ended."""
    root = os.environ.get("TORTURE_SCRATCH") or tempfile.gettempdir()
    return tempfile.mkdtemp(dir=root)


def quiet():
    logging.getLogger("quillstone.simulate_signal").setLevel(logging.CRITICAL + 1)


class Forgetful(list):
    """A call record that stays empty, for long loops."""

    def append(self, call):
        pass


def child(file, job, timeout=60.0):
    """Run a file again for one job; give its process and the moment at which it had ended."""
    done = subprocess.run(
        [sys.executable, "-X", "faulthandler", str(file), "--job", json.dumps(job)],
        capture_output=True,
        text=True,
        timeout=timeout,
        check=False,
    )
    return done, time.monotonic()


def job():
    """The job that `child` gave to this process, None in the promise's own process."""
    return json.loads(sys.argv[2]) if sys.argv[1:2] == ["--job"] else None
