"""The wider commit check over twenty touched files (C, C++, Java, Python, half of them with an
error the session introduced): one worker per core against the same check with one worker.

The floor is the sequential check on the same project, timed in the same run, alternated with
the concurrent one so drift in the load of a shared machine falls on both alike.
"""

import os
import statistics
import tempfile
from pathlib import Path

from bench_semantic import make_project, timed
from harness import row

from editor_session import gate

ROUNDS = 7


def main():
    with tempfile.TemporaryDirectory(prefix="bench_gate_") as scratch:
        root = Path(scratch) / "proj"
        touched = make_project(root)
        session = {path: earlier for path, (lang, earlier, final) in touched.items()}

        results = [gate.check(str(root), session, workers=n) for n in (None, 1)]
        assert results[0] == results[1] and len(results[0]["findings"]) == 10, results
        for path, (lang, earlier, final) in touched.items():
            assert Path(path).read_text() == final

        concurrent_times, sequential_times = [], []
        for _ in range(ROUNDS):
            concurrent_times.append(timed(lambda: gate.check(str(root), session)))
            sequential_times.append(timed(lambda: gate.check(str(root), session, workers=1)))
        row(f"gate.check, {os.cpu_count()} workers vs 1", "20 files",
            statistics.median(concurrent_times), statistics.median(sequential_times))


if __name__ == "__main__":
    main()
