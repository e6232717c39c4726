import difflib
import tempfile
from pathlib import Path

import pytest
from hypothesis import given, settings

import editor
from records_helpers import file_text


def unified(before, after, name):
    return "\n".join(difflib.unified_diff(before.splitlines(), after.splitlines(),
                                          fromfile="a/" + name, tofile="b/" + name, lineterm=""))


@settings(max_examples=150, deadline=None)
@given(before=file_text, after=file_text)
def test_one_file_matches_difflib(before, after):
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder, "mod.py")
        with open(path, "w", encoding="utf-8", newline="") as f:
            f.write(after)
        now = path.read_text(encoding="utf-8")
        assert editor.session_diff({str(path): before}) == ("" if before == now else unified(before, now, "mod.py"))


def test_files_in_path_order_created_deleted_unchanged_and_same_names(tmp_path):
    for sub in ("a", "b", "z"):
        (tmp_path / sub).mkdir()
    created, deleted = tmp_path / "z" / "new.py", tmp_path / "a" / "gone.py"
    same_a, same_b, untouched = tmp_path / "b" / "app.py", tmp_path / "a" / "app.py", tmp_path / "a" / "keep.py"
    created.write_text("one\ntwo\n")
    same_a.write_text("x = 2\n")
    same_b.write_text("y = 2\n")
    untouched.write_text("same\n")
    touched = {str(created): None, str(deleted): "old\nlines\n", str(same_a): "x = 1\n",
               str(same_b): "y = 1\n", str(untouched): "same\n"}
    snapshot = dict(touched)
    result = editor.session_diff(touched)
    chunks = result.split("\n\n")
    assert chunks == [
        unified("y = 1\n", "y = 2\n", "app.py"),         # a/app.py
        unified("old\nlines\n", "", "gone.py"),         # a/gone.py
        unified("x = 1\n", "x = 2\n", "app.py"),         # b/app.py
        unified("", "one\ntwo\n", "new.py"),            # z/new.py
    ]
    assert chunks[1].splitlines()[2] == "@@ -1,2 +0,0 @@" and chunks[3].splitlines()[2] == "@@ -0,0 +1,2 @@"
    assert touched == snapshot


def test_backslash_paths_are_named_by_their_last_piece(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    Path("C:\\proj\\src\\app.py").write_text("new\n")  # one odd file name on POSIX
    assert editor.session_diff({"C:\\proj\\src\\app.py": "old\n"}).splitlines()[:2] == ["--- a/app.py", "+++ b/app.py"]


@pytest.mark.parametrize(
    "disk, first_touch",
    [(b"a\r\nb\r\n", "a\nb\n"), (b"a\nb", "a\nb\n"), (b"same", "same")],
    ids=["crlf", "final-newline", "undone-edit"],
)
def test_changes_line_splitting_cannot_see_give_no_chunk(tmp_path, disk, first_touch):
    path = tmp_path / "f.txt"
    path.write_bytes(disk)
    assert editor.session_diff({str(path): first_touch}) == ""


def test_unreadable_file_counts_as_empty_but_bad_utf8_raises(tmp_path):
    folder = tmp_path / "now-a-dir"
    folder.mkdir()
    assert editor.session_diff({str(folder): "x\n"}) == unified("x\n", "", "now-a-dir")
    bad = tmp_path / "bad.txt"
    bad.write_bytes(b"\xff")
    with pytest.raises(UnicodeDecodeError):
        editor.session_diff({str(bad): "x\n"})


def test_nothing_touched_gives_the_empty_string():
    assert editor.session_diff({}) == ""


@pytest.mark.parametrize("touched", [{Path("/x"): "a"}, {"/x": b"bytes"}, [("a", "b")], None])
def test_wrong_shapes_raise(touched):
    with pytest.raises((TypeError, AttributeError)):
        editor.session_diff(touched)
