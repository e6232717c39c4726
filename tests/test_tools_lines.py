"""Lines as the tools see them: read's numbers, cap, tags and refusals; anchors of whole lines;
multi-block edits giving what the module gives bottom-up, all or nothing; kept line ends."""

import pytest
from hypothesis import given, settings, strategies as st

import editor
from editor_session import anchors, blocks, lineends, reading
from helpers import tree_digest


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


@pytest.mark.parametrize("data, refusal", [  # directories and other encodings: test_session_store
    (b"\x7fELF\0\0\1", "x is a binary file -- only text files can be read or edited"), (None, "x does not exist")])
def test_what_is_not_text_is_refused_in_one_line(tmp_path, data, refusal):
    if data is not None:
        (tmp_path / "x").write_bytes(data)
    assert reading.load(str(tmp_path / "x"), "x") == {"error": refusal}


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


MODES = ["replace", "insert_before", "insert_after"]


def reach(spec):
    return blocks.Block(0, spec["mode"], spec["start_line"], spec["end_line"], "").reach()


@st.composite
def edits(draw):
    lines = draw(st.lists(st.builds(str.__add__, st.text("ab\x0c", max_size=3), st.sampled_from(["\n", "\r\n", "\x0c"])), max_size=8))
    if lines and draw(st.booleans()):
        lines[-1] = lines[-1].rstrip("\r\n\x0c") or "z"
    n, specs = len(lines), []
    for _ in range(draw(st.integers(1, 4))):
        mode = draw(st.sampled_from(MODES if n else ["insert_before"]))
        start = draw(st.integers(1, n + 1 if mode == "insert_before" else n))
        spec = {"start_line": start, "end_line": draw(st.integers(start, n)) if mode == "replace" else start,
                "mode": mode, "content": draw(st.text("xy\n", max_size=4))}
        low, high = reach(spec)
        if not any(low <= other_high and other_low <= high for other_low, other_high in map(reach, specs)):
            specs.append(spec)
    return "".join(lines), specs


@settings(max_examples=150, deadline=None)
@given(edits())
def test_blocks_give_what_the_module_gives_one_by_one_bottom_up(tmp_path_factory, edit):
    text, specs = edit
    folder = tmp_path_factory.mktemp("b")
    (one := folder / "one.txt").write_bytes(text.encode())
    (many := folder / "many.txt").write_bytes(text.encode())
    for spec in sorted(specs, key=reach, reverse=True):
        assert "error" not in editor.apply_block(str(folder), str(one), spec["start_line"], spec["end_line"],
                                                 spec["content"], spec["mode"])
    result = blocks.edit_blocks(str(folder), str(many), "many.txt", text.encode(), specs, ends=False)
    assert [r["block"] for r in result["blocks"]] == list(range(1, len(specs) + 1)) and many.read_bytes() == one.read_bytes()


@pytest.mark.parametrize("specs, message", [
    ([], "blocks is empty"),
    ([{"start_line": 1, "content": "x"}] * 101, "101 blocks are too many"),
    ([{"start_line": 1, "end_line": 3}, {"start_line": 2, "mode": "insert_after"}], "overlap"),
    ([{"start_line": 2, "mode": "insert_before"}, {"start_line": 1, "mode": "insert_after"}],
     "block 1 (insert_before line 2) and block 2 (insert_after line 1) overlap"),
    ([{"start_line": 1}, {"anchor": "nowhere"}], "block 2: anchor not found"),
    ([{"start_line": 1}, {"anchor": "ine"}], "block 2: anchor occurs 3 times"),
    ([{"start_line": 1, "mode": "Replace"}], "block 1: unknown mode"),
    ([{"start_line": 4}], "block 1: start_line 4 is out of range"),
    # A dry run refuses nothing, but writes nothing either.
    ([{"start_line": 1, "content": "a = (1"}, {"start_line": 2, "content": "b = 3"}], None),
])
def test_refusals_and_dry_runs_write_nothing(tmp_path, specs, message):
    (path := tmp_path / "f.py").write_bytes(b"line1 = 1\r\nline2 = 2\r\nline3 = 3\r\n")
    before = tree_digest(tmp_path)
    result = blocks.edit_blocks(str(tmp_path), str(path), "src/f.py", path.read_bytes(), specs, dry_run=not message)
    if message:
        assert message in result["error"]
    else:
        assert result["syntax"].startswith("SyntaxError: ") and "+b = 3" in result["diff"]
        assert "--- a/src/f.py\n+++ b/src/f.py" in result["diff"]
    assert tree_digest(tmp_path) == before


@pytest.mark.parametrize("raw, start, end, content, mode, expected", [
    (b"a\r\nb\r\nc\nd\r\n", 3, None, "X\nY", "replace", b"a\r\nb\r\nX\r\nY\r\nd\r\n"),  # the dominant end
    (b"a\rb\rc", 1, None, "X", "replace", b"X\rb\rc"),
    (b"\xef\xbb\xbfa\r\nb\r\n", 1, None, "X", "replace", b"\xef\xbb\xbfX\r\nb\r\n"),
    (b"\xef\xbb\xbfa\rb", 2, None, "X", "insert_before", b"\xef\xbb\xbfa\rX\rb"),
    (b"a\r\nb", 2, None, "X", "insert_after", b"a\r\nb\r\nX\r\n"),  # the old last line gets an end
    (b"a\r\nb\r\nc\r\n", 2, 3, "", "replace", b"a\r\n"),
    # Breaks that are no line-end style stay where they are and give no style.
    ("a\x85b\x85".encode(), 1, None, "X\n", "insert_before", "X\na\x85b\x85".encode()),
    ("a\u2028b\nc\u2028d".encode(), 2, 3, "X\rY", "replace", "a\u2028X\nY\nd".encode()),
])
def test_an_edit_keeps_the_line_ends_of_the_lines_it_leaves(tmp_path, checker, raw, start, end, content, mode, expected):
    (path := tmp_path / "f.txt").write_bytes(raw)
    receipt = editor.apply_block(str(tmp_path), str(path), start, end, content, mode)
    span = lineends.single_span(receipt["at"], len(receipt["replaced"]), mode)
    assert lineends.restore(str(path), raw, [span], lineends.profile(raw)) == expected
