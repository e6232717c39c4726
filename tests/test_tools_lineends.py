"""Kept line ends: an edit of lines i..j changes exactly those lines' bytes."""

import pytest
from hypothesis import HealthCheck, given, settings, strategies as st

import editor
from editor_session import lineends

ENDS = ["\n", "\r\n", "\r", "\x0c", "\x85", "\u2028"]


@st.composite
def files(draw):
    lines = draw(st.lists(st.builds(str.__add__, st.text("abc \t\ufeff", max_size=4), st.sampled_from(ENDS)), min_size=1, max_size=8))
    if draw(st.booleans()):  # no final line end
        lines[-1] = lines[-1].rstrip("".join(ENDS)) or "z"
    return draw(st.booleans()), "".join(lines).lstrip("\ufeff") or "z"  # a leading mark is the BOM flag's business


def edited(tmp_path, data, start, end, content, mode):
    (path := tmp_path / "f.txt").write_bytes(data)
    receipt = editor.apply_block(str(tmp_path), str(path), start, end, content, mode)
    assert "error" not in receipt, receipt
    span = lineends.single_span(receipt["at"], len(receipt["replaced"]), mode)
    return lineends.restore(str(path), data, [span], lineends.profile(data))


@settings(max_examples=300, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(files(), st.data(), st.text("xy\n\r", max_size=6), st.sampled_from(["replace", "insert_before", "insert_after"]))
def test_an_edit_changes_only_its_own_lines(tmp_path_factory, checker, file, data, content, mode):
    bom, text = file
    lines = text.splitlines(keepends=True)
    start = data.draw(st.integers(1, len(lines) + (mode == "insert_before")))
    end = data.draw(st.integers(start, len(lines))) if mode == "replace" else None
    above = start if mode == "insert_after" else start - 1
    below = end if mode == "replace" else above
    style = lineends.dominant(text)
    # The module ends every block; its lines take the file's dominant end.
    prefix, block = lines[:above], [line.rstrip("\r\n") + style for line in content.splitlines(keepends=True)]
    if prefix and block and below == len(lines) and mode != "replace" and not prefix[-1].endswith(tuple(ENDS)):
        prefix[-1] += style  # the old last line gets an end before the block goes below it
    bom = lineends.BOM if bom else b""
    kept = edited(tmp_path_factory.mktemp("e"), bom + text.encode(), start, end, content, mode)
    assert kept == bom + "".join(prefix + block + lines[below:]).encode()


@pytest.mark.parametrize("raw, start, content, expected", [
    (b"a\rb\rc", 1, "X", b"X\rb\rc"),
    (b"\xef\xbb\xbfa\r\nb\r\n", 1, "X", b"\xef\xbb\xbfX\r\nb\r\n"),
    (b"a\r\nb\r\nc\nd\r\n", 3, "X\nY", b"a\r\nb\r\nX\r\nY\r\nd\r\n"),
    (b"a\r\nb", 1, "X", b"X\r\nb"),
])
def test_kept_line_ends(tmp_path, checker, raw, start, content, expected):
    assert edited(tmp_path, raw, start, None, content, "replace") == expected
