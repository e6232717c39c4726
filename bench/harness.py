"""Shared timing helpers for the benchmarks.

Each benchmark measures an operation beside its floor (the work the operation cannot avoid,
on the same input), the two timed in turns in one process (`interleaved`), and reports the
ratio, so a number means the same on a slow machine as on a fast one. Rows are printed as a table; when EDITOR_BENCH_ROWS names a
file, each row is also appended to it as one JSON line, so a driver that runs every benchmark in
a process of its own (bench/run_all.py) can collect them into one report.
"""

import json
import os
import statistics
import sys
import time
import tracemalloc
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
for entry in (ROOT / "host", ROOT / "build"):
    if str(entry) not in sys.path:
        sys.path.insert(0, str(entry))


def median_time(fn, repeat=7, warmup=1):
    """Median wall time of `fn()` in seconds over `repeat` runs after `warmup` runs."""
    for _ in range(warmup):
        fn()
    times = []
    for _ in range(repeat):
        start = time.perf_counter()
        fn()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def interleaved(operations, rounds, warmup=1, setup=None, each_round=None):
    """Median wall time in seconds of each callable in `operations`, timed in turns: one call of
    each per round (A B A B ...), so the load of a shared machine falls on an operation and its
    floor alike. With `setup`, each call gets a fresh `setup()` result as its argument, made
    outside the timing; `each_round()` runs untimed once before each round, for a change that
    the operation and its floor must both see."""
    def call(operation):
        argument = () if setup is None else (setup(),)
        start = time.perf_counter()
        operation(*argument)
        return time.perf_counter() - start

    for _ in range(warmup):
        for operation in operations:
            call(operation)
    samples = [[] for _ in operations]
    for _ in range(rounds):
        if each_round is not None:
            each_round()
        for times, operation in zip(samples, operations):
            times.append(call(operation))
    return [statistics.median(times) for times in samples]


def peak_memory(fn):
    """Peak bytes allocated through the Python allocators while `fn()` runs."""
    tracemalloc.start()
    try:
        tracemalloc.reset_peak()
        fn()
        return tracemalloc.get_traced_memory()[1]
    finally:
        tracemalloc.stop()


def row(operation, size, median, floor, peak=None, summary=None):
    """Records and prints one result line: operation, input size, median, floor, ratio, peak.
    A row given a `summary` label is also the headline of its operation in the README."""
    entry = {
        "operation": operation,
        "size": size,
        "median_ms": median * 1e3,
        "floor_ms": floor * 1e3 if floor else None,
        "ratio": median / floor if floor else None,
        "peak_bytes": peak,
        "summary": summary,
    }
    if os.environ.get("EDITOR_BENCH_ROWS"):
        with open(os.environ["EDITOR_BENCH_ROWS"], "a", encoding="utf-8") as rows:
            rows.write(json.dumps(entry) + "\n")
    ratio = f"{entry['ratio']:.2f}x" if entry["ratio"] is not None else "-"
    floor_text = f"{entry['floor_ms']:.3f}" if floor else "-"
    peak_text = f"{peak / 2**20:.1f} MiB" if peak is not None else "-"
    print(f"{operation:<40} {size:>14} {entry['median_ms']:>10.3f} ms  floor {floor_text:>10} ms"
          f"  {ratio:>7}  {peak_text}")
    return entry
