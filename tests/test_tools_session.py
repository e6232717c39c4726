"""The tools wired into the session: tags, blocks, kept line ends through rollback, delete, redo."""

from contextlib import closing

import pytest
from helpers import tree_digest

import editor
from editor_session.session import Session


@pytest.fixture
def proj(project, tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    (project / "m.py").write_bytes(b"a = 1\r\nb = 2\r\nc = 3\r\n")
    (project / "src").mkdir()
    (project / "src" / "n.py").write_text("x = 1\n")
    return project


@pytest.fixture
def s(proj):
    with closing(Session.open(str(proj))) as session:
        yield session


def tree_bytes(root):
    return {str(p.relative_to(root)): p.read_bytes() if p.is_file() else None for p in sorted(root.rglob("*"))}


@pytest.mark.parametrize("call", [
    lambda s: s.edit("m.py", 2, None, "b = 9\n", tag="0" * 12),
    lambda s: s.edit("m.py", None, None, "X\n", anchor="= 2"),
    lambda s: s.edit("m.py", blocks=[{"start_line": 1}, {"start_line": 1, "end_line": 2}]),
    lambda s: s.edit("m.py", blocks=[{"start_line": 1, "content": "A = (1"}], dry_run=True),
    lambda s: s.edit("src", 1, None, "x\n"),
    lambda s: s.read("src"),
])
def test_refusals_and_dry_runs_write_nothing(proj, s, call):
    before = tree_digest(proj)
    result = call(s)
    assert ("error" in result) != bool(result.get("dry_run"))
    assert tree_digest(proj) == before and s.status()["depth"] == 0


def test_a_stale_tag_is_refused_with_the_current_lines_and_a_fresh_one_passes(proj, s):
    tag = s.read("m.py")["tag"]
    (proj / "m.py").write_bytes(b"a = 1\r\nB = 2\r\nc = 3\r\n")
    refusal = s.edit("m.py", 2, 3, "b = 9\n", tag=tag)
    assert refusal["lines"] == "2\tB = 2\n3\tc = 3" and refusal["tag"] != tag
    receipt = s.edit("m.py", 2, 3, "b = 9\n", tag=refusal["tag"])
    assert receipt["replaced"] == ["B = 2", "c = 3"] and receipt["tag"] == s.read("m.py")["tag"]
    assert (proj / "m.py").read_bytes() == b"a = 1\r\nb = 9\r\n"


@pytest.mark.parametrize("keep, ends", [(True, b"\r\n"), (False, b"\n")])
def test_a_multi_block_edit_keeps_line_ends_and_is_one_step(proj, keep, ends):
    with closing(Session.open(str(proj), keep_line_ends=keep)) as s:
        result = s.edit("m.py", blocks=[{"start_line": 1, "content": "A = 1"}, {"anchor": "c = 3", "content": "C = 3"}])
        assert [b["at"] for b in result["blocks"]] == [1, 3] and result["syntax"] == "ok"
        assert (proj / "m.py").read_bytes() == ends.join([b"A = 1", b"b = 2", b"C = 3", b""])
        assert len(editor.ledger_load(str(proj))) == 1 and s.rollback(1) and s.status()["depth"] == 0
    assert (proj / "m.py").read_bytes() == ends.join([b"a = 1", b"b = 2", b"c = 3", b""])


@pytest.mark.parametrize("target, was, edited, changed", [
    ("m.py", "file", "src/n.py", "m.py"), ("src", "directory", "m.py", "src/n.py")])
def test_a_delete_is_one_step_undone_and_redone_until_the_files_change(proj, s, target, was, edited, changed):
    before = tree_bytes(proj)
    s.edit(edited, 1, None, "x = 2\n")
    assert all(s.diff(form)["diff"].startswith(f"--- a/{edited}\n+++ b/{edited}\n") for form in ("unified", "patch"))
    result = s.delete(target)
    assert (result["deleted"], result["was"], result["step"], s.status()["depth"]) == (target, was, 2, 2)
    done = tree_bytes(proj)
    assert target not in done and s.rollback(2) and tree_bytes(proj) == before
    assert all(e.get("rolled_back") for e in editor.ledger_load(str(proj))) and "2 undone step(s)" in s.redo(3)["error"]
    assert [r["tool"] for r in s.redo(2)["redone"]] == ["edit", "delete"] and tree_bytes(proj) == done
    assert [(e["tool"], e.get("redo_of")) for e in editor.ledger_load(str(proj))] == [
        ("edit", None), ("delete", None), ("edit", 1), ("delete", 2)]
    s.rollback(1)
    (proj / changed).write_text("changed\n")
    before = tree_bytes(proj)
    assert "no longer as the rollback left it" in s.redo(1)["error"] and tree_bytes(proj) == before
    s.edit("src/n.py", 1, None, "x = 0\n")
    assert "0 undone step(s)" in s.redo(1)["error"]


@pytest.mark.parametrize("call, dangling", [
    (lambda s: s.edit("lib.py", 1, 2, ""), True),
    (lambda s: s.edit("lib.py", 5, 6, ""), False),
    (lambda s: s.delete("lib.py"), True),
    (lambda s: s.edit("lib.py", 1, 1, "def helper(x, y=0):"), False),
])
def test_removing_what_other_files_call_reports_the_callers(proj, call, dangling):
    (proj / "lib.py").write_text("def helper(x):\n    return x + 1\n\n\ndef unused():\n    return 2\n")
    (proj / "app.py").write_text("from lib import helper\n\n\ndef main():\n    return helper(3)\n")
    with closing(Session.open(str(proj))) as s:
        result = call(s)
    assert "step" in result and result.get("dangling") == (
        [{"symbol": "lib.py::helper", "callers": ["app.py::main"], "caller_count": 1}] if dangling else None)
