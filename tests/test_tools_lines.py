"""Lines as the tools see them: read, anchors of whole lines, multi-block edits, kept line ends."""

import pytest
from hypothesis import given, settings, strategies as st

import editor
from editor_session import anchors, blocks, lineends, reading


def test_large_ranges_are_capped_with_a_way_on():
    result = reading.read("".join(f"l{i}\n" for i in range(1, 2501)).encode(), 2)
    assert (result["end"], result["text"].count("\n"), result["note"]) == (
        2001, 1999, "showing lines 2-2001 of 2500 (at most 2000 at a time) -- read on with start=2002")
    assert reading.read(b"", 1) == {"tag": reading.tag_of(b""), "line_count": 0, "start": 1, "end": 0, "text": ""}


@pytest.mark.parametrize("refusal", [
    *(reading.read(b"a\nb\nc\n", start, end) for start, end in [(0, None), (4, None), (2, 1), ("1", None)]),
    *map(reading.tag_form_error, ["", "abc", "ABCDEF012345", "0123456789abc", 12, None])])
def test_out_of_range_reads_and_malformed_tags_are_refused(refusal):
    assert refusal["error"].endswith(" lines)") or "not a version tag" in refusal["error"]


def test_what_is_not_text_is_refused_in_one_line(tmp_path):  # directories, other encodings: test_session_store
    (path := tmp_path / "x").write_bytes(b"\x7fELF\0\0\1")
    assert reading.load(str(path), "x") == {"error": "x is a binary file -- only text files can be read or edited"}
    assert reading.load(str(tmp_path / "y"), "y") == {"error": "y does not exist"}


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
    # Only the first eight occurrences are listed.
    (" ", "insert_after", {"error": "anchor occurs 18 times (at lines 1, 1, 2, 2, 2, 2, 2, 2, ...) -- include more "
                                    "surrounding text so it matches exactly once", "occurrences": [
        {"line": n, "text": f"{n}\t{C_SOURCE[n - 1][:-1]}"} for n in [1, 1] + [2] * 6]}),
])
def test_anchors_resolve_to_the_whole_lines_read(anchor, mode, expected):
    assert anchors.locate(C_SOURCE, anchor, mode) == expected


def reach(spec):
    return blocks.Block(0, spec["mode"], spec["start_line"], spec["end_line"], "").reach()


@st.composite
def edits(draw):
    line = st.builds(str.__add__, st.text("ab\x0c", max_size=3), st.sampled_from(["\n", "\r\n", "\x0c"]))
    # The last line may lack an end.
    lines = draw(st.lists(line, max_size=8)) + draw(st.lists(st.text("ab", min_size=1), max_size=1))
    n, specs = len(lines), []
    for _ in range(draw(st.integers(1, 4))):
        mode = draw(st.sampled_from(["replace", "insert_before", "insert_after"] if n else ["insert_before"]))
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


@pytest.mark.parametrize("raw, start, end, content, mode, shown, expected", [
    (b"a\r\nb\rc\nd\r\n", 3, None, "X\nY", "replace", "c", b"a\r\nb\rX\r\nY\r\nd\r\n"),  # the dominant end
    (b"a\x0cb\nc\n", 2, None, "X", "replace", "b", b"a\x0cX\nc\n"),  # a form feed ends a line, as in the module's split
    (b"\xef\xbb\xbfa\r\nb\r\n", 1, None, "X", "replace", "a", b"\xef\xbb\xbfX\r\nb\r\n"),  # BOM: no text of line 1
    (b"\xef\xbb\xbfa\rb", 2, None, "X", "insert_before", "b", b"\xef\xbb\xbfa\rX\rb"),
    (b"a\r\nb", 2, None, "X", "insert_after", "b", b"a\r\nb\r\nX\r\n"),  # the old last line gets an end
    (b"a\r\nb\r\nc\r\n", 2, 3, "", "replace", "b", b"a\r\n"),
    # Breaks that are no line-end style stay where they are and give no style.
    ("a\x0bb\x85c\x85".encode(), 3, None, "X\n", "insert_before", "c", "a\x0bb\x85X\nc\x85".encode()),
    ("a\u2028b\nc\u2028d".encode(), 2, 3, "X\rY", "replace", "b", "a\u2028X\nY\nd".encode()),
])
def test_lines_are_read_as_edited_and_keep_ends(tmp_path, checker, raw, start, end, content, mode, shown, expected):
    (path := tmp_path / "f.txt").write_bytes(raw)
    assert reading.read(raw, start, start)["text"] == f"{start}\t{shown}"
    receipt = editor.apply_block(str(tmp_path), str(path), start, end, content, mode)
    assert [line.removeprefix("\ufeff") for line in receipt["replaced"][:1]] == ([shown] if mode == "replace" else [])
    span = lineends.single_span(receipt["at"], len(receipt["replaced"]), mode)
    assert lineends.restore(str(path), raw, [span], lineends.profile(raw)) == expected
