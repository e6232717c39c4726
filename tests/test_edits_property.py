"""For random files and edits, the block edit does what the list-slicing model says."""

import os
import tempfile

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import editor

# Line ends of every kind the host's line split knows, and none at all for a last line.
BREAKS = ["\n", "\r\n", "\r", "\x0b", "\x0c", "\x1c", "\x1d", "\x1e", "\x85", "\u2028", "\u2029"]
# Long enough runs of plain characters to reach the scanner's word-at-a-time path.
WORDS = st.text(alphabet="ab é\t€😀", max_size=24)
MODES = ["replace", "insert_before", "insert_after"]


@st.composite
def documents(draw):
    lines = draw(st.lists(st.tuples(WORDS, st.sampled_from(BREAKS)), max_size=8))
    last = draw(WORDS)
    return "".join(word + end for word, end in lines) + last


def model(text, start, end, content, mode, anchor):
    """The edit as list slices over str.splitlines, with the choices this module makes."""
    if anchor:
        found = text.count(anchor)
        if found != 1:
            return None, (f"anchor occurs {found} times -- include more surrounding text so it matches exactly once"
                          if found else "anchor not found in the file's current text -- re-read the region "
                          "(it may have changed) or address by line number")
        first = text.count("\n", 0, text.index(anchor)) + 1
        last = first + anchor.count("\n") - anchor.endswith("\n")
        start = last if mode == "insert_after" else first
        end = last if mode == "replace" else end
    if start is None:
        return None, "give either start_line or anchor"
    lines = text.splitlines(keepends=True)
    n = len(lines)
    if not 1 <= start <= (n + 1 if mode == "insert_before" else n):
        return None, f"start_line {start} is out of range (file has {n} lines)"
    end = start if end is None else end
    if mode == "replace" and not start <= end <= n:
        return None, f"end_line {end} is out of range (start {start}, file has {n} lines)"
    block = content.splitlines(keepends=True)
    if block and not block[-1].endswith("\n"):
        block[-1] += "\n"
    cut, resume = {"replace": (start - 1, end), "insert_before": (start - 1, start - 1),
                   "insert_after": (start, start)}[mode]
    if block and cut == n and n and lines[-1].splitlines()[0] == lines[-1]:
        lines[-1] += "\n"  # a last line without a break gets one before a block goes under it
    removed = [line.rstrip("\n") for line in lines[cut:resume]] if mode == "replace" else []
    return "".join(lines[:cut] + block + lines[resume:]), {"replaced": removed, "at": start, "syntax": "ok"}


@st.composite
def edits(draw):
    raw = draw(documents())
    text = raw.replace("\r\n", "\n").replace("\r", "\n")
    span = len(text.splitlines()) + 3
    start = draw(st.one_of(st.none(), st.integers(-1, span), st.integers(1, span)))
    near = st.integers(0, 2).map(lambda step: start + step) if start is not None else st.none()
    end = draw(st.one_of(st.none(), st.integers(-1, span), near))
    anchor = st.one_of(st.none(), st.just(""), WORDS)
    if text:
        low = draw(st.integers(0, len(text) - 1))
        anchor = st.one_of(anchor, st.just(text[low:draw(st.integers(low + 1, len(text)))]))
    return raw, start, end, draw(documents()), draw(st.sampled_from(MODES)), draw(anchor)


def run_edit(raw, start, end, content, mode, anchor):
    """Applies the edit to a fresh file holding `raw` and compares it with the model."""
    with tempfile.TemporaryDirectory() as root, pytest.MonkeyPatch.context() as patch:
        patch.setattr(editor, "syntax_check", lambda path, before_text=None: "ok", raising=False)
        path = os.path.join(root, "f.txt")
        with open(path, "wb") as file:
            file.write(raw.encode())
        text = raw.replace("\r\n", "\n").replace("\r", "\n")
        expected_text, expected = model(text, start, end, content, mode, anchor)
        receipt = editor.apply_block(root, path, start, end, content, mode, anchor)
        with open(path, "rb") as file:
            written = file.read()
    if expected_text is None:
        assert receipt == {"error": expected} and written == raw.encode()
    else:
        assert receipt == expected and written == expected_text.encode()


@settings(max_examples=400, deadline=None)
@given(edits())
def test_edit_matches_the_slicing_model(case):
    run_edit(*case)


LARGE = "".join(f"line {i} é😀 {'x' * (i % 37)}{BREAKS[i % len(BREAKS)]}" for i in range(4000))


@pytest.mark.parametrize(
    ("start", "end", "mode", "anchor"),
    [
        (3999, 4000, "replace", None),
        (3001, None, "insert_after", None),
        (None, None, "replace", "line 3210 é😀"),
        (None, None, "insert_after", "x\u2029line 3795 "),
        (None, None, "replace", "line 3"),
        (4001, None, "insert_before", None),
    ],
)
def test_large_file_matches_the_model(start, end, mode, anchor):
    run_edit(LARGE, start, end, "new\n", mode, anchor)
