"""Anchors: whole lines for a replace, several or no occurrences explained, lines as read."""

import pytest

import editor
from editor_session import anchors

C_SOURCE = ["int add(int a,\n", "        int b)\n", "{\n", "    return a + b;\n", "}\n"]
SIGNATURE = "1\tint add(int a,\n2\t        int b)"


@pytest.mark.parametrize("anchor, mode, expected", [
    ("int add(int a,\n        int b)", "replace", (1, 2)),
    ("int add(int a,\n        int b)\n", "replace", (1, 2)),
    ("    return a + b;", "replace", (4, 4)),
    ("return a", "insert_before", (4, 4)),          # inserts move no text, so a part will do
    # A replace of part of a line is refused with the whole lines.
    ("int a,\n        int b", "replace", SIGNATURE),
    ("int add(int a,\n        int", "replace", SIGNATURE),
    ("return a + b", "replace", "4\t    return a + b;"),
])
def test_anchors_resolve_to_the_whole_lines_read(anchor, mode, expected):
    found = anchors.locate(C_SOURCE, anchor, mode)
    if isinstance(expected, tuple):
        assert found == expected
    else:
        assert "only part of line" in found["error"] and found["lines"] == expected


def test_several_or_no_occurrences_are_explained():
    lines = [f"x = {i}\n" if i % 2 else "pass\n" for i in range(20)]
    refusal = anchors.locate(lines, "pass", "insert_after")
    assert "occurs 10 times" in refusal["error"] and refusal["occurrences"][0]["text"] == "1\tpass"
    assert [o["line"] for o in refusal["occurrences"]] == [1, 3, 5, 7, 9, 11, 13, 15]
    assert anchors.locate(C_SOURCE, "    return a - b;", "replace") == {
        "error": anchors.NOT_FOUND, "nearest": [{"line": 4, "text": "4\t    return a + b;"}]}


@pytest.mark.parametrize("breaker", ["\x0c", "\x0b", "\x85", "\u2028"])
def test_other_line_breaks_above_an_anchor_do_not_move_it(tmp_path, checker, breaker):
    text = f"a{breaker}b\nc\ntarget\nd\n"
    path = tmp_path / "f.txt"
    path.write_text(text, encoding="utf-8")
    lines = text.splitlines(keepends=True)
    first, last = anchors.locate(lines, "target", "replace")
    assert lines[first - 1] == "target\n"
    receipt = editor.apply_block(str(tmp_path), str(path), first, last, "T\n")
    assert receipt["replaced"] == ["target"] and path.read_text() == text.replace("target", "T")
