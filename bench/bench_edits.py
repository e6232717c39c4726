"""Block edits on Python and text files of growing size, against the read + write floor.

The edit is timed with a trivial syntax check installed on the module, so it measures the edit
itself; the floor is the host reading the same file as text and writing it back, timed in turns
with the edits. The syntax check has floors of its own (bench_parse.py). Peak memory is what the
Python allocators hold at most during one call, shown with its ratio to the file size.
"""

from pathlib import Path

from harness import interleaved, peak_memory, row

import editor

SCRATCH = Path(__file__).resolve().parent / ".scratch" / "edits"
PY_BLOCK = ("def handler_{i}(request, *, retries=3):\n"
            "    \"\"\"Serve one request, retrying on transient failures.\"\"\"\n"
            "    for attempt in range(retries):\n"
            "        result = dispatch(request, attempt=attempt)\n"
            "        if result is not None:\n"
            "            return result\n"
            "    raise TimeoutError(f\"gave up after {{retries}} tries\")\n"
            "\n")
HEADLINE = "py 100k lines"  # the case the README's summary shows (the edit by line)
TEXT_LINE = "line {i:08d}: the quick brown fox jumps over the lazy dog, again and again\n"


def python_source(lines):
    blocks = [PY_BLOCK.format(i=i) for i in range(lines // 8 + 1)]
    return "".join(blocks).splitlines(keepends=True)[:lines]


def plain_text(lines):
    return [TEXT_LINE.format(i=i) for i in range(lines)]


def cases():
    for lines in (1_000, 10_000, 100_000):
        yield f"py {lines // 1000}k lines", "py", python_source(lines)
        yield f"txt {lines // 1000}k lines", "txt", plain_text(lines)
    yield "txt 50 MB", "txt", plain_text(50 * 2**20 // len(TEXT_LINE.format(i=0)))


def bench_case(label, suffix, lines):
    path = SCRATCH / f"{label.replace(' ', '_')}.{suffix}"
    text = "".join(lines)
    path.write_text(text, encoding="utf-8")
    size = path.stat().st_size
    root, target = str(SCRATCH), str(path)
    # The edited line: the first one from the middle on that occurs once, so it is also an anchor.
    middle = next(n for n in range(len(lines) // 2, len(lines) + 1) if text.count(lines[n - 1]) == 1)
    line = lines[middle - 1]
    anchor = line.rstrip("\n")

    def floor():
        path.write_text(path.read_text(encoding="utf-8"), encoding="utf-8")

    def by_line():
        receipt = editor.apply_block(root, target, middle, None, line)
        assert receipt["at"] == middle, receipt

    def by_anchor():
        receipt = editor.apply_block(root, target, None, None, line, anchor=anchor)
        assert receipt["at"] == middle, receipt

    rounds = 7 if size > 10 * 2**20 else 31 if size > 2**20 else 201
    floor_time, line_time, anchor_time = interleaved((floor, by_line, by_anchor), rounds)
    size_text = f"{size / 2**20:.1f} MiB" if size > 2**20 else f"{size / 2**10:.0f} KiB"
    row(f"read+write floor, {label}", size_text, floor_time, None, peak_memory(floor))
    for name, operation, median in (("line", by_line, line_time), ("anchor", by_anchor, anchor_time)):
        peak = peak_memory(operation)
        summary = "apply_block" if label == HEADLINE and name == "line" else None
        row(f"apply_block {name}, {label}", size_text, median, floor_time, peak, summary=summary)
        print(f"{'':<40} peak / file size = {peak / size:.2f}")
    assert path.read_text(encoding="utf-8") == text, "the edits must leave the text as it was"
    path.unlink()


def main():
    SCRATCH.mkdir(parents=True, exist_ok=True)
    real_check = editor.syntax_check
    editor.syntax_check = lambda abs_path, before_text=None: "ok"
    try:
        for label, suffix, lines in cases():
            bench_case(label, suffix, lines)
    finally:
        editor.syntax_check = real_check


if __name__ == "__main__":
    main()
