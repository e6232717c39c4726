"""read: the module's lines with numbers, the cap, tags, refusals for what is not text; anchors:
whole lines for a replace, several or no occurrences explained."""

import pytest

import editor
from editor_session import anchors, reading


@pytest.mark.parametrize("raw, line, shown", [
    (b"a\r\nb\rc\n", 3, "c"),
    (b"a\x0cb\nc\n", 2, "b"),                  # a form feed ends a line, as in the module's split
    ("x\u2028y\nz".encode(), 3, "z"),
    ("a\x0bb\x85c\ntarget\n".encode(), 4, "target"),   # anchors count lines the same way
    (b"\xef\xbb\xbfimport os\n", 1, "import os"),  # the BOM is not text of line 1
])
def test_read_numbers_lines_as_the_module_edits_them(tmp_path, checker, raw, line, shown):
    (path := tmp_path / "f.txt").write_bytes(raw)
    assert reading.read(raw, line, line)["text"] == f"{line}\t{shown}"
    receipt = editor.apply_block(str(tmp_path), str(path), line, None, "new\n")
    assert receipt["replaced"][0].removeprefix("\ufeff").rstrip("\x0c\u2028") == shown


def test_large_ranges_are_capped_with_a_way_on_and_tags_follow_the_bytes():
    data = "".join(f"l{i}\n" for i in range(1, 2501)).encode()
    result = reading.read(data, 2)
    assert (result["end"], result["line_count"]) == (2001, 2500)
    assert "start=2002" in result["note"] and result["text"].endswith("2001\tl2001")
    assert "note" not in reading.read(data, 2001) and reading.read(b"", 1)["line_count"] == 0
    assert reading.tag_of(b"a\r\nb\r\n") != reading.tag_of(b"a\nb\n")


@pytest.mark.parametrize("start, end", [(0, None), (4, None), (2, 1), ("1", None)])
def test_out_of_range_reads_are_refused(start, end):
    assert "error" in reading.read(b"a\nb\nc\n", start, end)


@pytest.mark.parametrize("tag", ["", "abc", "ABCDEF012345", "0123456789abc", 12, None])
def test_malformed_tags_are_refused(tag):
    assert "not a version tag" in reading.tag_form_error(tag)["error"]


@pytest.mark.parametrize("make, reason", [
    (lambda p: p.mkdir(), "is a directory"),
    (lambda p: p.write_bytes(b"\x7fELF\0\0\1"), "is a binary file"),
    (lambda p: p.write_bytes(b"caf\xe9\n"), "is not UTF-8 text"),
    (lambda p: None, "does not exist"),
])
def test_what_is_not_text_is_refused_in_one_line(tmp_path, make, reason):
    make(tmp_path / "x")
    refusal = reading.load(str(tmp_path / "x"), "x")
    assert reason in refusal["error"] and "\n" not in refusal["error"]


C_SOURCE = ["int add(int a,\n", "        int b)\n", "{\n", "    return a + b;\n", "}\n"]


def part(where, lines):
    return {"error": f"anchor covers only part of {where}, and a replace takes whole lines -- give an anchor of whole "
                     "lines or address by line numbers", "lines": lines}


@pytest.mark.parametrize("anchor, mode, expected", [
    ("int add(int a,\n        int b)", "replace", (1, 2)),
    ("int add(int a,\n        int b)\n", "replace", (1, 2)),
    ("    return a + b;", "replace", (4, 4)),
    ("return a", "insert_before", (4, 4)),          # inserts move no text, so a part will do
    ("int a,\n        int b", "replace", part("lines 1-2", "1\tint add(int a,\n2\t        int b)")),
    ("int add(int a,\n        int", "replace", part("lines 1-2", "1\tint add(int a,\n2\t        int b)")),
    ("return a + b", "replace", part("line 4", "4\t    return a + b;")),
    ("    return a - b;", "replace", {"error": anchors.NOT_FOUND, "nearest": [{"line": 4, "text": "4\t    return a + b;"}]}),
])
def test_anchors_resolve_to_the_whole_lines_read(anchor, mode, expected):
    assert anchors.locate(C_SOURCE, anchor, mode) == expected


def test_several_occurrences_are_listed_first_eight():
    refusal = anchors.locate([f"x = {i}\n" if i % 2 else "pass\n" for i in range(20)], "pass", "insert_after")
    assert "occurs 10 times" in refusal["error"] and refusal["occurrences"][0]["text"] == "1\tpass"
    assert [o["line"] for o in refusal["occurrences"]] == [1, 3, 5, 7, 9, 11, 13, 15]
