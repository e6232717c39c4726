"""Honest syntax results, and the session diff as a patch that git applies."""

import os
import shutil
import subprocess

import pytest

import editor
from editor_session import patch, syntax


@pytest.mark.parametrize("before, line, content, expected, before_key", [
    ("x = (\ny = 1\n", 2, "y = 2", None, True),                     # broken before, edit elsewhere
    ("x = 1\ny = 1\n", 2, "y = (", "SyntaxError: '(' was never closed (line 2)", False),
    ("\ufeffx = 1\ny = 1\n", 2, "y = 2", "ok", False),               # a BOM is no breakage
    ("\ufeffx = 1\ny = 1\n", 2, "y = (", "SyntaxError: '(' was never closed (line 2)", False),
])
def test_syntax_blames_the_edit_only_for_its_own_breakage(tmp_path, before, line, content, expected, before_key):
    path = tmp_path / "m.py"
    path.write_text(before, encoding="utf-8")
    receipt = editor.apply_block(str(tmp_path), str(path), line, None, content)
    assert receipt["syntax"] != "ok"  # what the module alone says
    result = syntax.honest(receipt["syntax"], str(path), lambda: before)
    if before_key:
        assert result == {"syntax": "ok", "syntax_before": receipt["syntax"]}
    else:
        assert result == {"syntax": expected}


def test_paths_under_the_root_become_relative(tmp_path):
    root = str(tmp_path)
    found = patch.relative({"error": f"{root}/src/a.py does not exist", "list": [f"{root}/b"], "n": 3}, root)
    assert found == {"error": "src/a.py does not exist", "list": ["b"], "n": 3}


@pytest.mark.skipif(shutil.which("git") is None, reason="git is not installed")
def test_the_patch_form_is_what_git_applies(tmp_path):
    root, copy = tmp_path / "proj", tmp_path / "copy"
    files = {"src/keep.py": "a\nb\nc", "src/gone.txt": "old\n", "doc/edit.md": "one\ntwo\nthree\n"}
    for rel, text in files.items():
        (root / rel).parent.mkdir(parents=True, exist_ok=True)
        (root / rel).write_text(text)
    shutil.copytree(root, copy)
    touched = {str(root / rel): text for rel, text in files.items()} | {str(root / "new/made.txt"): None}
    (root / "src/keep.py").write_text("a\nB\nc")                  # no final newline, kept
    (root / "doc/edit.md").write_text("one\ntwo\nthree\nfour")    # final newline dropped
    (root / "src/gone.txt").unlink()
    (root / "new").mkdir()
    (root / "new/made.txt").write_text("fresh\n")
    text = patch.patch(str(root), touched)
    assert "--- /dev/null\n+++ b/new/made.txt" in text and "--- a/src/gone.txt\n+++ /dev/null" in text
    subprocess.run(["git", "init", "-q", str(copy)], check=True)
    (tmp_path / "p.diff").write_text(text)
    subprocess.run(["git", "apply", "--check", str(tmp_path / "p.diff")], cwd=copy, check=True)
    subprocess.run(["git", "apply", str(tmp_path / "p.diff")], cwd=copy, check=True)
    for folder, _, names in os.walk(root):
        for name in names:
            rel = os.path.relpath(os.path.join(folder, name), root)
            assert (copy / rel).read_bytes() == (root / rel).read_bytes()
    assert not (copy / "src/gone.txt").exists()
