import difflib
import tempfile
from pathlib import Path

import pytest
from hypothesis import given, settings

import editor
from helpers import file_text, tree_digest, write
pytestmark = pytest.mark.leaks


def unified(before, after, name):
    return "\n".join(difflib.unified_diff(before.splitlines(), after.splitlines(),
                                          fromfile="a/" + name, tofile="b/" + name, lineterm=""))


@settings(max_examples=150, deadline=None)
@given(before=file_text, after=file_text)
def test_one_file_matches_difflib(before, after):
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder, "mod.py")
        path.write_bytes(after.encode())
        now = path.read_text(encoding="utf-8")
        assert editor.session_diff({str(path): before}) == ("" if before == now else unified(before, now, "mod.py"))


def test_path_order_created_deleted_unchanged_same_names_and_backslashes(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    now = {"z/new.py": "one\ntwo\n", "b/app.py": "x = 2\n", "a/app.py": "y = 2\n", "C:\\proj\\win.py": "w\n",
           # Changes that line splitting cannot see give no chunk.
           "same/keep.py": "same\n", "same/crlf.py": "a\r\nb\r\n", "same/eol.py": "a\nb"}
    touched = {"z/new.py": None, "a/gone.py": "old\nlines\n", "b/app.py": "x = 1\n", "a/app.py": "y = 1\n",
               "C:\\proj\\win.py": "v\n", "same/keep.py": "same\n", "same/crlf.py": "a\nb\n", "same/eol.py": "a\nb\n"}
    for path, text in now.items():
        write(path, text)
    assert editor.session_diff(touched).split("\n\n") == [
        unified(touched[path] or "", now.get(path, ""), path.replace("\\", "/").split("/")[-1])
        for path in sorted(touched) if not path.startswith("same/")]
    assert editor.session_diff({}) == ""


def test_unreadable_file_counts_as_empty_but_bad_utf8_and_wrong_types_raise(tmp_path):
    assert editor.session_diff({str(tmp_path): "x\n"}) == unified("x\n", "", tmp_path.name)
    (tmp_path / "bad.txt").write_bytes(b"\xff")
    with pytest.raises(UnicodeDecodeError):
        editor.session_diff({str(tmp_path / "bad.txt"): "x\n"})
    tree = tree_digest(tmp_path)
    # Checked before anything is called on them: a Path's own replace() would rename the file.
    for touched, message in [({tmp_path / "bad.txt": "x"}, "touched paths must be str, not PosixPath"),
                             ({str(tmp_path / "bad.txt"): b"x"}, "first-touch texts must be str or None, not bytes")]:
        with pytest.raises(TypeError, match=f"^{message}$"):
            editor.session_diff(touched)
    assert tree_digest(tmp_path) == tree
