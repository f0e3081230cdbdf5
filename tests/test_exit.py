"""The interpreter ends while simulations run: exit status 0 (or the script's own), no output."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

PRELUDE = """
import signal, sys, tempfile, threading, time
sys.path.insert(0, {tests!r})
import quillstone.simulate_signal as qs
from collaborators import Kit, node

started = threading.Semaphore(0)

def sleep(*args, **kwargs):
    started.release()
    while True:
        time.sleep(0.001)

def wait(*args, **kwargs):
    started.release()
    threading.Event().wait()

def compute(*args, **kwargs):
    started.release()
    total = 0
    while True:
        total += sum(range(50))

def prepare(place, action, **kwargs):
    kit = Kit(tempfile.mkdtemp(dir={tmp!r}), **kwargs)
    kit.tested.found_signal_ids = ["f1"]
    kit.script.on(place, action)
    return kit.wire()

def start(count):
    handles = [
        qs.simulate_signal(node(), "top", signal_pool_id="p1", record=False)
        for _ in range(count)
    ]
    for _ in handles:
        assert started.acquire(timeout=20)
    return handles
"""
PLACES = [
    "get_wallet_secret", "acquire", "request_for_sync", "load_vocabulary", "validate",
    "evaluate", "backtest", "correlate_per_pool", "gate:is_pnl_mi", "set_phase",
    "get_current_era_id",
]  # fmt: skip


def run(tmp_path, script):
    prelude = PRELUDE.format(tests=str(Path(__file__).parent), tmp=str(tmp_path))
    env = {**os.environ, "PYTHONPATH": os.pathsep.join(filter(None, sys.path))}
    return subprocess.run(
        [sys.executable, "-c", prelude + script],
        env=env,
        capture_output=True,
        text=True,
        timeout=30,
    )


def check(tmp_path, script, output="", status=0):
    done = run(tmp_path, script)
    assert (done.returncode, done.stderr, done.stdout.strip()) == (status, "", output)


@pytest.mark.parametrize("place", PLACES)
def test_exit_with_blocked_and_busy_simulations(tmp_path, place):
    actions = {0: "sleep", 1: "wait", 2: "compute"}
    action = actions[PLACES.index(place) % 3]
    count = 1 if place == "request_for_sync" else 3
    check(
        tmp_path,
        f"prepare({place!r}, {action}, orchestrator='class'); handles = start({count})",
    )


def test_exit_with_simulations_in_several_phases(tmp_path):
    check(
        tmp_path,
        """
kept = []
for place, action in (("acquire", wait), ("validate", compute), ("evaluate_expression", sleep),
                      ("backtest", compute), ("correlate_per_pool", wait), ("set_phase", sleep),
                      ("request_for_sync", sleep)):
    prepare(place, action)
    kept += start(1)
qs.simulate_signal(node(), "top", signal_pool_id="p1")
sys.setswitchinterval(1e-6)
""",
    )


def test_exit_while_pipelines_run_through_all_phases(tmp_path):
    check(
        tmp_path,
        """
sys.setswitchinterval(1e-6)
kit = prepare("validate", None)
def run_forever():
    while True:
        try:
            started.release()
            qs.simulate_signal(node(), "top", signal_pool_id="p1").result()
        except BaseException:
            pass
for _ in range(4):
    threading.Thread(target=run_forever, daemon=True).start()
for _ in range(200):
    started.acquire()
""",
    )


@pytest.mark.parametrize(
    ("ending", "output", "status"),
    [
        ("sys.exit(3)", "", 3),
        ("threading.Thread(target=handle.result, daemon=True).start()", "", 0),
        ("threading.Thread(target=qs.simulate_signal, args=(node(), 'top'), "
         "kwargs={'signal_pool_id': 'p1'}, daemon=True).start()", "", 0),
        ("import atexit; atexit.register(lambda: print(handle.status().phase))", "backtesting", 0),
        ("sys.modules.pop('quillstone.simulate_signal')", "", 0),
    ],
)  # fmt: skip
def test_ways_to_end(tmp_path, ending, output, status):
    check(tmp_path, f"prepare('backtest', wait); [handle] = start(1)\n{ending}", output, status)


def test_interrupt_while_waiting_for_a_result(tmp_path):
    # Sent until it is heard: a signal that comes just before join() falls asleep does not wake it,
    # in plain Python neither.
    check(
        tmp_path,
        """
heard = threading.Event()

def hear_once(*args):
    if not heard.is_set():
        heard.set()
        signal.default_int_handler(*args)

def interrupt(**kwargs):
    signal.pthread_kill(threading.main_thread().ident, signal.SIGINT)
    while not heard.wait(0.1):
        signal.pthread_kill(threading.main_thread().ident, signal.SIGINT)
    wait()

signal.signal(signal.SIGINT, hear_once)
prepare("backtest", interrupt)
try:
    qs.simulate_signal(node(), "top", signal_pool_id="p1").result()
except KeyboardInterrupt:
    print("interrupted")
""",
        "interrupted",
    )


def test_exit_request_of_a_collaborator_reaches_the_caller(tmp_path):
    script = """
prepare("backtest", lambda **kwargs: sys.exit(5))
handle = qs.simulate_signal(node(), "top", signal_pool_id="p1")
handle._done_event.wait()
print("still here", flush=True)
handle.result()
"""
    check(tmp_path, script, "still here", 5)
