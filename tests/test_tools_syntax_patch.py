"""Honest syntax results, and the session diff as a patch that git applies."""

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
    found = patch.relative({"error": f"{tmp_path}/src/a.py does not exist", "list": [f"{tmp_path}/b"], "n": 3}, str(tmp_path))
    assert found == {"error": "src/a.py does not exist", "list": ["b"], "n": 3}
    assert git_hunks.exact(["@@ -1,1 +1,1 @@", "-a", "+A"], "a\nb\nc\nd\n", "A\nb\nc\nD\n") is None  # a missed change


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
def test_the_patch_is_what_git_applies_byte_for_byte(tmp_path, monkeypatch, data, edits):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    root, copy = tmp_path / "proj", tmp_path / "copy"
    (root / "old").mkdir(parents=True)
    (root / "f.txt").write_bytes(data)
    (root / "old" / "gone.txt").write_bytes(data)
    shutil.copytree(root, copy)
    with closing(Session.open(str(root))) as s:
        for line, content in edits:
            assert "error" not in s.edit("f.txt", line, None, content)
        assert "error" not in s.delete("old/gone.txt") and "error" not in s.create("new/made.txt", "fresh\n")
        result = s.diff("patch")
    assert "notes" not in result and "--- /dev/null\n+++ b/new/made.txt" in result["diff"]
    subprocess.run(["git", "init", "-q", str(copy)], check=True)
    subprocess.run(["git", "apply", "-"], input=result["diff"].encode(), cwd=copy, check=True)
    assert files(copy) == files(root)


def files(top):
    return {str(p.relative_to(top)): p.read_bytes() for p in top.rglob("*")
            if p.is_file() and not p.relative_to(top).parts[0].startswith(".")}
