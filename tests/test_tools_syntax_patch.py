"""Honest syntax results, and the session diff as a patch that git applies."""

import os
import shutil
import subprocess
from contextlib import closing

import pytest

import editor
from editor_session import git_hunks, patch, syntax
from editor_session.session import Session


BROKEN = "SyntaxError: '(' was never closed (line 2)"


@pytest.mark.parametrize("before, content, expected", [
    ("x = (\ny = 1\n", "y = 2", "before"),                # broken before, edit elsewhere
    ("x = 1\ny = 1\n", "y = (", BROKEN),
    ("\ufeffx = 1\ny = 1\n", "y = 2", "ok"),             # a BOM is no breakage
    ("\ufeffx = 1\ny = 1\n", "y = (", BROKEN),
])
def test_syntax_blames_the_edit_only_for_its_own_breakage(tmp_path, before, content, expected):
    path = tmp_path / "m.py"
    path.write_text(before, encoding="utf-8")
    receipt = editor.apply_block(str(tmp_path), str(path), 2, None, content)
    assert receipt["syntax"] != "ok"  # what the module alone says
    result = syntax.honest(receipt["syntax"], str(path), lambda: before)
    assert result == ({"syntax": "ok", "syntax_before": receipt["syntax"]} if expected == "before" else {"syntax": expected})


def test_paths_under_the_root_become_relative(tmp_path):
    root = str(tmp_path)
    found = patch.relative({"error": f"{root}/src/a.py does not exist", "list": [f"{root}/b"], "n": 3}, root)
    assert found == {"error": "src/a.py does not exist", "list": ["b"], "n": 3}


def _git_applies(patch_text: str, copy, root, tmp_path) -> None:
    subprocess.run(["git", "init", "-q", str(copy)], check=True)
    (tmp_path / "p.diff").write_bytes(patch_text.encode("utf-8"))
    subprocess.run(["git", "apply", str(tmp_path / "p.diff")], cwd=copy, check=True)
    for folder, dirs, names in os.walk(root):
        dirs[:] = [name for name in dirs if not name.startswith(".")]
        for name in names:
            rel = os.path.relpath(os.path.join(folder, name), root)
            assert (copy / rel).read_bytes() == (root / rel).read_bytes(), rel


@pytest.mark.skipif(shutil.which("git") is None, reason="git is not installed")
def test_the_patch_form_is_what_git_applies(tmp_path):
    root, copy = tmp_path / "proj", tmp_path / "copy"
    files = {"src/keep.py": "a\nb\nc", "src/gone.txt": "old\n", "doc/edit.md": "one\ntwo\nthree\n"}
    for rel, text in files.items():
        (root / rel).parent.mkdir(parents=True, exist_ok=True)
        (root / rel).write_text(text)
    shutil.copytree(root, copy)
    (root / "src/keep.py").write_text("a\nB\nc")                  # no final newline, kept
    (root / "doc/edit.md").write_text("one\ntwo\nthree\nfour")    # final newline dropped
    (root / "src/gone.txt").unlink()
    (root / "new").mkdir()
    (root / "new/made.txt").write_text("fresh\n")
    touched = {str(root / rel): text for rel, text in files.items()} | {str(root / "new/made.txt"): None}
    text = patch.patch(str(root), touched, [])
    assert "--- /dev/null\n+++ b/new/made.txt" in text and "--- a/src/gone.txt\n+++ /dev/null" in text
    _git_applies(text, copy, root, tmp_path)
    assert not (copy / "src/gone.txt").exists()


LONG_CRLF = b"".join(b"line %d\r\n" % n for n in range(1, 21))


@pytest.mark.skipif(shutil.which("git") is None, reason="git is not installed")
@pytest.mark.parametrize("data, edits", [
    (LONG_CRLF, [(2, "two\n"), (17, "seventeen\nmore\n")]),                 # CRLF, two hunks
    (b"a\rb\rc\rd\re\rf\r", [(3, "C\n")]),                                  # CR only: one git line
    (b"a\r\nb\nc\rd\r\ne\nf\r\ng\n" * 3, [(3, "C\n"), (20, "T\n")]),        # mixed
    (b"\xef\xbb\xbfa\r\nb\r\nc\r\n", [(1, "A\n")]),                          # BOM on the replaced line
    (b"\xef\xbb\xbfa\r\nb\r\nc\r\n", [(3, "C\n")]),                          # BOM as context
    (b"a\r\nb\r\nc", [(3, "C"), (1, "A\n")]),                                # no final newline
    (b"a\r\nb\r\nc", [(3, "c\nd\n")]),                                      # final newline gained
    (b"a\fb\r\nc\xe2\x80\xa8d\r\ne\r\n", [(2, "B\n"), (4, "D\n")]),          # breaks git does not split at
])
def test_the_patch_keeps_real_line_ends(tmp_path, data, edits):
    root, copy = tmp_path / "proj", tmp_path / "copy"
    root.mkdir()
    (root / "f.txt").write_bytes(data)
    shutil.copytree(root, copy)
    with closing(Session.open(str(root))) as s:
        for line, content in edits:
            assert "error" not in s.edit("f.txt", line, None, content)
        result = s.diff("patch")
    assert "notes" not in result and (root / "f.txt").read_bytes() != data
    _git_applies(result["diff"], copy, root, tmp_path)


def test_hunks_that_miss_a_change_are_not_passed_off_as_exact():
    assert git_hunks.exact(["@@ -1,1 +1,1 @@", "-a", "+A"], "a\nb\nc\nd\n", "A\nb\nc\nD\n") is None
