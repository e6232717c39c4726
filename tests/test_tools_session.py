"""The tools wired into the session: tags, blocks, line ends, delete, redo, syntax verdicts, the patch."""

import shutil
import subprocess
from contextlib import closing

import pytest
from helpers import tree_digest, write

import editor
from editor_session.session import Session


@pytest.fixture
def proj(project, tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    (project / "m.py").write_bytes(b"a = 1\r\nb = 2\r\nc = 3\r\n")
    write(project / "src" / "n.py", "def helper(x):\n    return x + 1\n")
    (project / "app.py").write_text("from src.n import helper\n\n\ndef main():\n    return helper(3)\n")
    return project


@pytest.fixture
def s(proj):
    with closing(Session.open(str(proj))) as session:
        yield session


def tree_bytes(root):
    return {str(p.relative_to(root)): p.read_bytes() for p in root.rglob("*") if p.is_file() and ".git" not in p.parts}


@pytest.mark.parametrize("edit, message", [
    ({"start_line": 2, "content": "b = 9\n", "tag": "0" * 12}, "m.py changed since tag 000000000000"),
    ({"anchor": "= 2", "content": "X\n"}, "anchor covers only part of line 2"),
    ({"blocks": []}, "blocks is empty"),
    ({"blocks": [{"start_line": 1, "end_line": 3}, {"start_line": 2, "mode": "insert_after"}]}, "overlap"),
    ({"blocks": [{"start_line": 2, "mode": "insert_before"}, {"start_line": 1, "mode": "insert_after"}]},
     "block 1 (insert_before line 2) and block 2 (insert_after line 1) overlap"),
    ({"blocks": [{"start_line": 1}, {"anchor": " = "}]}, "block 2: anchor occurs 3 times"),
    ({"blocks": [{"start_line": 1, "mode": "Replace"}]}, "block 1: unknown mode"),
    ({"blocks": [{"start_line": 4}]}, "block 1: start_line 4 is out of range"),
    # A dry run refuses nothing, but writes nothing either.
    ({"blocks": [{"start_line": 1, "content": "a = (1"}, {"start_line": 2, "content": "b = 3"}], "dry_run": True},
     ("--- a/m.py\n+++ b/m.py\n@@ -1,3 +1,3 @@\n-a = 1\n-b = 2\n+a = (1\n+b = 3\n c = 3",
      "SyntaxError: '(' was never closed (line 1)")),
])
def test_refusals_and_dry_runs_write_nothing(proj, s, edit, message):
    before = tree_digest(proj)
    result = s.edit("m.py", **edit)
    assert message in result["error"] if isinstance(message, str) else (result["diff"], result["syntax"]) == message
    assert tree_digest(proj) == before and s.status()["depth"] == 0


@pytest.mark.parametrize("keep, ends", [(True, b"\r\n"), (False, b"\n")])
def test_a_multi_block_edit_on_a_fresh_tag_keeps_line_ends_and_is_one_step(proj, keep, ends):
    with closing(Session.open(str(proj), keep_line_ends=keep)) as s:
        tag = s.read("m.py")["tag"]
        (proj / "m.py").write_bytes(changed := b"a = 1\nb = 2\r\nc = 3\r\n")  # new line ends alone make the tag stale
        edit = [{"start_line": 1, "end_line": 2, "content": "A = 1\nb = 2"}, {"anchor": "c = 3", "content": "C = 3"}]
        refusal = s.edit("m.py", blocks=edit, tag=tag)
        assert refusal["lines"] == "1\ta = 1\n2\tb = 2\n...\n3\tc = 3" and refusal["tag"] != tag
        done = s.edit("m.py", blocks=edit, tag=refusal["tag"])
        assert (*[b["at"] for b in done["blocks"]], done["syntax"], done["tag"]) == (1, 3, "ok", s.read("m.py")["tag"])
        assert (proj / "m.py").read_bytes() == ends.join([b"A = 1", b"b = 2", b"C = 3", b""])
        assert len(editor.ledger_load(str(proj))) == 1 and s.rollback(1) and s.status()["depth"] == 0
    assert (proj / "m.py").read_bytes() == (changed if keep else b"a = 1\nb = 2\nc = 3\n")



DANGLING = [{"symbol": "src/n.py::helper", "callers": ["app.py::main"], "caller_count": 1}]


# The edit of src/n.py, or the delete of src, removes what app.py calls; the other removes nothing called.
@pytest.mark.parametrize("target, was, edited, changed, dangling", [
    ("m.py", "file", "src/n.py", "m.py", (DANGLING, None)), ("src", "directory", "m.py", "src/n.py", (None, DANGLING))])
def test_a_delete_is_one_step_undone_and_redone_until_the_files_change(proj, s, target, was, edited, changed, dangling):
    before = tree_bytes(proj)
    edit = s.edit(edited, 1, 2, "x = 2\n")
    assert all(s.diff(form)["diff"].startswith(f"--- a/{edited}\n+++ b/{edited}\n") for form in ("unified", "patch"))
    result = s.delete(target)
    assert (result["deleted"], result["was"], result["step"], edit.get("dangling"), result.get("dangling")) == (
        target, was, 2, *dangling)
    done = tree_bytes(proj)
    assert all(f"--- a/{changed}\n" in s.diff(form)["diff"] for form in ("unified", "patch"))
    assert changed in s.status()["touched"] and not (proj / target).exists() and s.status()["depth"] == 2 and s.rollback(2) and tree_bytes(proj) == before
    assert all(e.get("rolled_back") for e in editor.ledger_load(str(proj))) and "2 undone step(s)" in s.redo(3)["error"]
    assert [r["tool"] for r in s.redo(2)["redone"]] == ["edit", "delete"] and tree_bytes(proj) == done
    assert [(e["tool"], e.get("redo_of")) for e in editor.ledger_load(str(proj))] == [
        ("edit", None), ("delete", None), ("edit", 1), ("delete", 2)]
    s.rollback(1)
    (proj / changed).write_text("changed\n")
    before = tree_bytes(proj)
    assert "no longer as the rollback left it" in s.redo(1)["error"] and tree_bytes(proj) == before
    s.edit("src/n.py", 1, None, "x = 0\n")
    assert "0 undone step(s)" in s.redo(1)["error"] and s.delete("gone") == {"error": "gone does not exist"}


@pytest.mark.parametrize("before, content, expected", [
    ("x = (\ny = 1\n", "y = 2", ("ok", "SyntaxError: '(' was never closed (line 1)")),  # broken before, edit elsewhere
    ("\ufeffx = 1\ny = 1\n", "y = 2", ("ok", None)),  # a BOM is no breakage
    ("\ufeffx = 1\ny = 1\n", "y = (", ("SyntaxError: '(' was never closed (line 2)", None)),
])
def test_syntax_blames_the_edit_only_for_its_own_breakage(proj, s, before, content, expected):
    (proj / "m.py").write_text(before, encoding="utf-8")
    result = s.edit("m.py", 2, None, content)
    assert (result["syntax"], result.get("syntax_before")) == expected


@pytest.mark.skipif(shutil.which("git") is None, reason="git is not installed")
@pytest.mark.parametrize("data, edits", [
    (b"".join(b"line %d\r\n" % n for n in range(1, 21)), [(2, "two\n"), (17, "seventeen\nmore\n")]),  # two hunks
    (b"a\rb\rc\rd\re\rf\r", [(3, "C\n")]),                                  # CR only: one git line
    (b"\xef\xbb\xbfa\r\nb\r\nc\r\n", [(1, "A\n")]),                          # BOM on the replaced line
    (b"\xef\xbb\xbfa\r\nb\r\nc\r\n", [(3, "C\n")]),                          # BOM as context
    (b"a\r\nb\r\nc", [(3, "C"), (1, "A\n")]),                                # no final newline
    (b"a\r\nb\r\nc", [(3, "c\nd\n")]),                                      # final newline gained
    (b"a\fb\r\nc\xe2\x80\xa8d\r\ne\r\n", [(2, "B\n"), (4, "D\n")]),          # breaks git does not split at
])
def test_the_patch_is_what_git_applies_byte_for_byte(proj, s, tmp_path, data, edits):
    (proj / "f.txt").write_bytes(data)
    (proj / "gone.txt").write_bytes(data)
    shutil.copytree(proj, copy := tmp_path / "copy")
    for line, content in edits:
        assert "error" not in s.edit("f.txt", line, None, content)
    assert "error" not in s.delete("gone.txt") and "error" not in s.create("new/made.txt", "fresh\n")
    result = s.diff("patch")
    assert "notes" not in result and "--- /dev/null\n+++ b/new/made.txt" in result["diff"]
    subprocess.run(["git", "init", "-q", str(copy)], check=True)
    subprocess.run(["git", "apply", "-"], input=result["diff"].encode(), cwd=copy, check=True)
    assert tree_bytes(copy) == tree_bytes(proj)
