"""The block edit keeps the lines outside its range, echoes those it replaced, refuses only what is out of range."""

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import editor

# Line ends of every kind the host's line split knows, and none at all for a last line.
BREAKS = ["\n", "\r\n", "\r", "\x0b", "\x0c", "\x1c", "\x1d", "\x1e", "\x85", "\u2028", "\u2029"]
# Long enough runs of plain characters to reach the scanner's word-at-a-time path.
WORDS = st.text(alphabet="ab é\t€😀", max_size=24)
documents = st.tuples(st.lists(st.tuples(WORDS, st.sampled_from(BREAKS)).map("".join), max_size=8).map("".join),
                      WORDS).map("".join)


@st.composite
def edits(draw):
    raw = draw(documents)
    text = raw.replace("\r\n", "\n").replace("\r", "\n")
    span = len(text.splitlines()) + 3
    start = draw(st.one_of(st.none(), st.integers(-1, span), st.integers(1, span)))
    near = st.integers(0, 2).map(lambda step: start + step) if start is not None else st.none()
    end = draw(st.one_of(st.none(), st.integers(-1, span), near))
    anchor = st.one_of(st.none(), st.just(""), WORDS)
    if text:
        low = draw(st.integers(0, len(text) - 1))
        anchor = st.one_of(anchor, st.just(text[low:draw(st.integers(low + 1, len(text)))]))
    mode = draw(st.sampled_from(["replace", "insert_before", "insert_after"]))
    return raw, start, end, draw(documents), mode, draw(anchor)


def check_edit(path, raw, start, end, content, mode, anchor):
    path.write_bytes(raw.encode())
    receipt = editor.apply_block(str(path.parent), str(path), start, end, content, mode, anchor)
    written = path.read_bytes().decode()
    text = raw.replace("\r\n", "\n").replace("\r", "\n")
    lines, found = text.splitlines(keepends=True), text.count(anchor) if anchor else 1
    if anchor and found == 1:
        # An anchor addresses the lines of the "\n"s before and inside it; a final "\n" closes its last line.
        first = text.count("\n", 0, text.index(anchor)) + 1
        last = first + anchor.count("\n", 0, len(anchor) - 1)
        start, end = (last, end) if mode == "insert_after" else (first, last if mode == "replace" else end)
    stop = start if end is None or mode != "replace" else end
    in_range = start is not None and 1 <= start <= len(lines) + (mode == "insert_before") and (
        mode != "replace" or start <= stop <= len(lines))
    if found != 1 or not in_range:  # the refusals' texts are test_edits_block.py's
        assert "error" in receipt and written == raw, receipt
        return
    # The block goes between lines[:cut] and lines[resume:]; both stay byte for byte.
    cut = start - (mode != "insert_after")
    resume = stop if mode == "replace" else cut
    block = content + "\n" * (content != "" and not content.endswith("\n"))
    # A last line without a break gets one before a block goes under it.
    glue = "\n" * (block != "" and cut == len(lines) > 0 and len(lines[-1].splitlines()[0]) == len(lines[-1]))
    assert written == "".join(lines[:cut]) + glue + block + "".join(lines[resume:])
    assert receipt == {"replaced": [line.rstrip("\n") for line in lines[cut:resume]], "at": start, "syntax": "ok"}


# One file rewritten by every example; the syntax check only records its calls.
@settings(max_examples=400, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(edits())
def test_edit_keeps_the_frame_and_echoes_what_it_replaced(project, checker, case):
    check_edit(project / "f.txt", *case)


LARGE = "".join(f"line {i} é😀 {'x' * (i % 37)}{BREAKS[i % len(BREAKS)]}" for i in range(4000))


@pytest.mark.parametrize(
    ("start", "end", "mode", "anchor"),
    [(3999, 4000, "replace", None), (3001, None, "insert_after", None), (None, None, "replace", "line 3210 é😀"),
     (None, None, "insert_after", "x\u2029line 3795 "), (None, None, "replace", "line 3"),
     (4001, None, "insert_before", None)],
)
def test_large_file(project, checker, start, end, mode, anchor):
    check_edit(project / "f.txt", LARGE, start, end, "new\n", mode, anchor)
