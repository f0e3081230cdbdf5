"""Measure the module against plain Python.

    python benchmarks/run.py [--case NAME] [--quick]

Both versions run in this process, in turn, so that whatever slows the machine slows both; only the
ratio of each such pair counts. It is a ratio of processor time, which other processes disturb less;
handles, which also wait, are timed by the clock on the wall. Garbage collection is off while a
version is timed.
"""

import argparse
import gc
import logging
import os
import platform
import random
import statistics
import tempfile
import time
import timeit
import tracemalloc

import numpy as np

import cases
import plain
import plain_handle
import quillstone.simulate_signal as module
from quillstone.functions._typed_shapes import FunctionGraphNode

LEAST_SECONDS = 0.02  # of one timed run, so that the clock's own noise does not show
HANDLES = (1, 2, 4, 8, 16, 32, 64)


def timers(case):
    return [
        timeit.Timer(case.statement, timer=case.clock, globals={**case.shared, **version})
        for version in (case.plain, case.module)
    ]


def repetitions(timer):
    """How many calls make a timed run long enough."""
    timer.timeit(1)
    count = 1
    while (seconds := timer.timeit(count)) < LEAST_SECONDS:
        count = max(count + 1, int(count * min(10.0, 1.2 * LEAST_SECONDS / max(seconds, 1e-9))))
    return count


def paired_times(versions, pairs):
    """Seconds per call of both versions, in `pairs` pairs that change order in turn."""
    counts = [repetitions(timer) for timer in versions]
    times = []
    for pair in range(pairs):
        order = (0, 1) if pair % 2 else (1, 0)
        measured = [0.0, 0.0]
        for version in order:
            gc.collect()
            measured[version] = versions[version].timeit(counts[version]) / counts[version]
        times.append(tuple(measured))
    return times


def ratios(times):
    return sorted(ours / theirs for ours, theirs in times)


def duration(seconds):
    for unit, size in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6)):
        if seconds >= size:
            return f"{seconds / size:.3g} {unit}"
    return f"{seconds / 1e-9:.3g} ns"


def check(case, rounds):
    for seed in range(rounds):
        case.agree(random.Random(seed))


def report_cases(selected, pairs):
    row = "{:<20} {:>9} {:>9}  {:>6}  {:<13} {:>5}  {}"
    print(row.format("case", "plain", "module", "ratio", "spread", "goal", ""))
    missed = []
    for case in selected:
        times = paired_times(timers(case), pairs)
        found = ratios(times)
        ratio = statistics.median(found)
        quarter = len(found) // 4
        spread = f"{found[quarter]:.2f}-{found[-1 - quarter]:.2f}"
        seconds = [duration(statistics.median(column)) for column in zip(*times, strict=True)]
        met = ratio >= case.goal
        if not met:
            missed.append(case.name)
        verdict = "met" if met else "missed"
        print(row.format(case.name, *seconds, f"{ratio:.2f}", spread, f"{case.goal:g}", verdict))
    return missed


SMALL = 300  # nodes


def make_small_graphs(size, rng):
    return [cases.make_graph(SMALL, rng) for _ in range(size // SMALL)]


def over_graphs(rule):
    return lambda graphs: [rule(graph) for graph in graphs]


def report_growth(quick):
    """Time per element over three decades; it stays flat where cost is linear.

    As many nodes in small graphs tell what is not the rule's: the processor waits for memory.
    """
    rng = random.Random(3)
    sizes = [SMALL, 3_000, 30_000] if quick else [SMALL, 3_000, 30_000, 300_000]
    reject, has_filtration = (
        module._reject_public_aggregation_graph,
        module._has_filtration_runtime_graph,
    )
    inputs = [
        ("aggregation check", reject, cases.make_graph),
        ("  in graphs of 300", over_graphs(reject), make_small_graphs),
        ("filtration search", has_filtration, cases.make_graph),
        ("  in graphs of 300", over_graphs(has_filtration), make_small_graphs),
        ("engine payload", module._plain_engine_definition_payload, cases.make_payload),
        (
            "vocabulary walk",
            lambda raw: [None for _ in module._iter_synced_function_payloads(raw)],
            cases.make_vocabulary,
        ),
        ("function store", module._build_obfuscated_store, cases.make_vocabulary),
    ]
    print("\nnanoseconds per element" + "".join(f"{size:>10,}" for size in sizes))
    for name, rule, make in inputs:
        cells = []
        for size in sizes:
            value = make(size, rng)
            gc.collect()
            names = {"rule": rule, "value": value}
            timer = timeit.Timer("rule(value)", timer=time.process_time, globals=names)
            count = repetitions(timer)
            best = min(timer.repeat(3, count)) / count
            cells.append(f"{best / size * 1e9:>10.1f}")
            del value, timer
        print(f"{name:<23}" + "".join(cells))


def run_together(version, graph, count):
    handles = [version.simulate_signal(graph, "top", signal_pool_id="p1") for _ in range(count)]
    for handle in handles:
        handle.result()


def report_concurrency(pairs):
    graph = FunctionGraphNode("rotation", "rank", [FunctionGraphNode("feature", "close")])
    print("\nconcurrent handles" + "".join(f"{count:>8}" for count in HANDLES))
    lines = {"plain": [], "module": []}
    for count in HANDLES:
        versions = [
            timeit.Timer(
                "run(version, graph, count)",
                globals={"run": run_together, "version": version, "graph": graph, "count": count},
            )
            for version in (plain_handle, module)
        ]
        times = paired_times(versions, pairs)
        for cells, column in zip(lines.values(), zip(*times, strict=True), strict=True):
            cells.append(f"{statistics.median(column) / count * 1e6:>8.0f}")
    for name, cells in lines.items():
        print(f"{name:<18}" + "".join(cells) + "  us per handle")


def traced_peak(rule, value):
    """Peak bytes of Python objects and arrays that a call adds, and bytes of its result."""
    gc.collect()
    tracemalloc.start()
    result = rule(value)
    kept, peak = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    del result
    return peak, kept


def resident(field):
    with open("/proc/self/status", encoding="ascii") as status:
        return next(int(line.split()[1]) * 1024 for line in status if line.startswith(field))


def resident_peak(rule, value):
    """Peak bytes of resident memory that a call adds: also what C++ allocates."""
    with open("/proc/self/clear_refs", "w", encoding="ascii") as clear:
        clear.write("5")
    before = resident("VmRSS")
    rule(value)
    return resident("VmHWM") - before


def report_memory():
    """Each call in a process of its own, where no memory freed earlier hides what it takes."""
    weights = cases.make_weights((2500, 3000), 4)
    payload = cases.make_payload(400_000, random.Random(4))
    size = traced_peak(plain.plain_payload, payload)[1]
    measured = [
        ("weights", "input", weights.nbytes, plain.finalize_weights, weights),
        ("weights", "input", weights.nbytes, module._finalize_rescaled_weights, weights),
        ("payload", "copy", size, plain.plain_payload, payload),
        ("payload", "copy", size, module._plain_engine_definition_payload, payload),
    ]
    print("\npeak memory          traced  resident  of the size of")
    for index, (name, unit, base, rule, value) in enumerate(measured):
        traced = traced_peak(rule, value)[0] / base
        reader, writer = os.pipe()
        if (child := os.fork()) == 0:
            os.write(writer, f"{resident_peak(rule, value) / base:.2f}".encode())
            os._exit(0)
        os.waitpid(child, 0)
        added = os.read(reader, 64).decode()
        label = f"{name}, {'module' if index % 2 else 'plain'}"
        print(f"{label:<20} {traced:>6.2f}  {added:>8}  {unit} ({base / 1e6:.1f} MB)")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--case", help="only the cases whose name contains this")
    parser.add_argument("--quick", action="store_true", help="fewer pairs and smaller growth")
    options = parser.parse_args()
    logging.disable(logging.WARNING)  # the checks also make both versions complain
    print(
        f"CPython {platform.python_version()}, NumPy {np.__version__}, {platform.system()} "
        f"{platform.machine()}, {os.cpu_count()} processors"
    )
    if options.case is None:
        report_memory()
        print()
    with tempfile.TemporaryDirectory() as data_dir:
        started = time.monotonic()
        every = cases.make_cases(data_dir)
        selected = [case for case in every if options.case is None or options.case in case.name]
        if not selected:
            parser.error(f"no such case; there are: {', '.join(case.name for case in every)}")
        for case in selected:
            check(case, 50 if options.quick else 300)
        cases.wire(cases.make_kit(data_dir)[0])  # the checks wired collaborators of their own
        missed = report_cases(selected, 7 if options.quick else 21)
        if options.case is None:
            report_growth(options.quick)
            report_concurrency(5 if options.quick else 11)
        print(f"\n{time.monotonic() - started:.0f} s; missed: {', '.join(missed) or 'none'}")


if __name__ == "__main__":
    main()
