"""The cost of confining the block edit's write to the root: apply_block on a 1k-line file
against the floor of the host reading the same file as text and writing it back, interleaved.
Measured on the project's own disk, where truncating and rewriting a file can cost the disk
work that hides everything else, and in memory (/dev/shm) where there is one, where the few
system calls the confinement adds weigh most.

The confined open adds a few system calls to the edit and no reads. When EDITOR_BASELINE_BUILD
names the build directory of another revision, its apply_block is loaded beside this one and
timed in the same alternation, and a row gives this edit's median against the baseline's.
"""

import importlib.util
import os
import statistics
from pathlib import Path

from harness import median_time, row

import editor

SCRATCHES = {"disk": Path(__file__).resolve().parent / ".scratch" / "confine",
             "memory": Path("/dev/shm") / f"editor_bench_confine_{os.getpid()}"}
LINE = "    result = dispatch(request, attempt=attempt)  # line {i}\n"
ROUNDS = 1001


def baseline_module():
    """The module built in EDITOR_BASELINE_BUILD, loaded under its own name, or None."""
    build = os.environ.get("EDITOR_BASELINE_BUILD")
    if not build:
        return None
    library = next(Path(build).glob("editor.*.so"))
    spec = importlib.util.spec_from_file_location("editor", library)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def bench_case(scratch, medium, modules):
    scratch.mkdir(parents=True, exist_ok=True)
    path = scratch / "edited.py"
    lines = [LINE.format(i=i) for i in range(1_000)]
    path.write_text("".join(lines), encoding="utf-8")
    root, target, middle = str(scratch), str(path), 500

    def floor():
        path.write_text(path.read_text(encoding="utf-8"), encoding="utf-8")

    def edit_with(module):
        return lambda: module.apply_block(root, target, middle, None, lines[middle - 1])

    operations = [floor] + [edit_with(module) for module in modules.values()]
    samples = [[] for _ in operations]
    order = list(range(len(operations)))
    for round_number in range(ROUNDS):
        # Each round starts one later: on a disk, a write can pay for the writeback of the one
        # before it, so no operation may always follow the same other.
        shift = round_number % len(order)
        for index in order[shift:] + order[:shift]:
            samples[index].append(median_time(operations[index], repeat=1, warmup=0))
    floor_time, *edit_times = (statistics.median(times) for times in samples)
    size = f"{path.stat().st_size / 2**10:.0f} KiB"
    row(f"read+write floor, py 1k lines, {medium}", size, floor_time, None)
    for name, median in zip(modules, edit_times):
        row(f"{name}, py 1k lines, {medium}", size, median, floor_time)
    if len(edit_times) > 1:
        row(f"apply_block / baseline, {medium}", size, edit_times[0], edit_times[1])
    assert path.read_text(encoding="utf-8") == "".join(lines), "the edits must leave the text as it was"
    path.unlink()
    scratch.rmdir()


def main():
    modules = {"apply_block": editor}
    if (baseline := baseline_module()) is not None:
        modules["baseline apply_block"] = baseline
    for module in modules.values():
        module.syntax_check = lambda abs_path, before_text=None: "ok"
    for medium, scratch in SCRATCHES.items():
        if scratch.parent.is_dir():
            bench_case(scratch, medium, modules)


if __name__ == "__main__":
    main()
