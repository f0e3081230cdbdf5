"""Tries to break the module's promises, and prints what was tried and what broke.

python torture/run.py [--quick] [--seed N] [NAME ...]
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

PROMISES = {
    "exits": "a process ends at once and silently, whatever its simulations are doing",
    "faults": "a failure at any call leaves one outcome and everything in order",
    "memory": "a failed allocation is an exception; nothing is leaked",
    "threads": "one sync at a time, no deadlock, no outcome lost",
    "hostile": "hostile input meets documented errors only",
    "races": "the module's own memory is free of data races",
}
SLOW = {"races"}
PATIENCE = {True: 240, False: 1800}


def main():
    parser = argparse.ArgumentParser(description="Try to break the module's promises.")
    parser.add_argument("--quick", action="store_true", help="a small sample of each promise")
    parser.add_argument("--seed", type=int, default=time.time_ns() % 1_000_000)
    parser.add_argument("names", nargs="*", metavar="NAME", help=", ".join(PROMISES))
    options = parser.parse_args()
    if unknown := set(options.names) - set(PROMISES):
        parser.error(f"unknown promise: {', '.join(sorted(unknown))}")
    names = options.names or [n for n in PROMISES if not (options.quick and n in SLOW)]
    broken = [name for name in names if not keeps(name, options)]
    print(f"\nbroken: {', '.join(broken)}" if broken else "\nevery promise kept")
    sys.exit(bool(broken))


def keeps(name, options):
    """Run one promise in a process of its own, so that a crash is one more figure."""
    print(f"\n{name}: {PROMISES[name]} (seed {options.seed})")
    print(f"{'':<58}{'tried':>9}{'failed':>9}{'worst':>10}", flush=True)
    command = [sys.executable, "-X", "faulthandler", str(Path(__file__).with_name(f"{name}.py"))]
    command += ["--seed", str(options.seed), *(["--quick"] if options.quick else [])]
    begun = time.monotonic()
    folder = tempfile.mkdtemp(prefix="torture-")
    try:
        status = subprocess.run(
            command,
            env={**os.environ, "TORTURE_SCRATCH": folder},
            timeout=PATIENCE[options.quick],
            check=False,
        ).returncode
    except subprocess.TimeoutExpired:
        status = "no end"
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    print(f"{name}: {'kept' if status == 0 else f'BROKEN ({status})'}"
          f", {time.monotonic() - begun:.0f} s", flush=True)  # fmt: skip
    return status == 0


if __name__ == "__main__":
    main()
