"""Anchors: whole lines for a replace, several or no occurrences explained, lines as read."""

import pytest

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
