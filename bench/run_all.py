"""Runs every benchmark of the project (bench/bench_*.py), each in a process of its own, and
prints all their rows as one table, which it also writes to bench/results.md together with the
machine and the Python version it was measured on. The rows a benchmark labels as headlines go
into the README's summary."""

import json
import os
import platform
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
README_START, README_END = "<!-- bench table: start -->", "<!-- bench table: end -->"
HEADER = ["benchmark", "operation", "input size", "median", "floor", "ratio", "peak memory"]
SUMMARY_HEADER = ["operation", "input size", "median", "floor", "ratio to floor"]


def cpu_model():
    try:
        for line in Path("/proc/cpuinfo").read_text().splitlines():
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or "unknown processor"


def run(script, rows_file):
    print(f"== {script.name}", flush=True)
    env = dict(os.environ, EDITOR_BENCH_ROWS=str(rows_file))
    subprocess.run([sys.executable, str(script)], env=env, check=True)
    if not rows_file.exists():
        return []
    return [json.loads(line) for line in rows_file.read_text(encoding="utf-8").splitlines()]


def milliseconds(value):
    return "-" if value is None else f"{value:.3f} ms"


def markdown(header, lines):
    cells = ["| " + " | ".join(cell.replace("|", "\\|") for cell in line) + " |" for line in lines]
    return "\n".join(["| " + " | ".join(header) + " |", "|" + "---|" * len(header), *cells])


def ratio(row):
    return "-" if row["ratio"] is None else f"{row['ratio']:.2f}x"


def table(rows):
    return markdown(HEADER, [
        [bench, row["operation"], str(row["size"]), milliseconds(row["median_ms"]), milliseconds(row["floor_ms"]),
         ratio(row), "-" if row["peak_bytes"] is None else f"{row['peak_bytes'] / 2**20:.1f} MiB"]
        for bench, row in rows])


def summary(rows):
    return markdown(SUMMARY_HEADER, [
        [row["summary"], str(row["size"]), milliseconds(row["median_ms"]), milliseconds(row["floor_ms"]), ratio(row)]
        for _, row in rows if row.get("summary")])


def main():
    rows = []
    with tempfile.TemporaryDirectory(prefix="editor_bench_") as scratch:
        for script in sorted(HERE.glob("bench_*.py")):
            name = script.stem.removeprefix("bench_")
            rows += [(name, row) for row in run(script, Path(scratch) / f"{name}.jsonl")]
    machine = (f"{cpu_model()}, {os.cpu_count()} logical CPUs, {platform.system()} {platform.release()}; "
               f"Python {platform.python_version()} ({sys.implementation.name})")
    body = table(rows)
    print(f"\n{machine}\n\n{body}")
    measured = f"Measured by `make bench` on {time.strftime('%Y-%m-%d')}: {machine}."
    (HERE / "results.md").write_text(
        f"# Benchmark results\n\n{measured}\n\n"
        "Median wall time of each operation beside its floor (the work it cannot avoid, timed in turns\n"
        "with it in one process on the same input), their ratio, and the peak memory the Python\n"
        "allocators held during one call, where the benchmark measures it.\n\n"
        f"{body}\n", encoding="utf-8")
    show_in_readme(
        f"{measured}\n\n"
        "The headline ratio of each operation to its floor (the work it cannot avoid, timed in turns\n"
        "with it on the same input). Every row, with peak memory, is in [bench/results.md](bench/results.md).\n\n"
        f"{summary(rows)}\n")


def show_in_readme(report):
    """Puts the summary between the README's markers, so the README always shows the latest run."""
    readme = HERE.parent / "README.md"
    text = readme.read_text(encoding="utf-8")
    start, end = text.find(README_START), text.find(README_END)
    if start < 0 or end < start:
        print(f"README.md has no {README_START} ... {README_END} markers: summary not copied there.")
        return
    readme.write_text(f"{text[:start + len(README_START)]}\n{report}{text[end:]}", encoding="utf-8")


if __name__ == "__main__":
    main()
