"""The session store's promises inside one process: a call that dies half way is recovered by the
next open, rollbacks and the ledger stay one-to-one, guards refuse before anything is written,
and a store that cannot be used is refused with a message naming it."""

import os
import signal
import sqlite3
import subprocess
from pathlib import Path

import pytest
from helpers import immutable, tree_digest

import editor
import projstore
from editor_session.session import Session
from editor_session import images
from editor_session.store import STORE_NAME, SessionError, Store

ROOT = Path(__file__).resolve().parent.parent


class Killed(BaseException):
    """Stands for the process dying at this point: nothing below catches it."""


@pytest.fixture(autouse=True)
def state_home(tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))


@pytest.fixture
def proj(project):
    (project / "a.py").write_text("A = 1\n")
    (project / "sub").mkdir()
    (project / "sub" / "b.py").write_text("B = 2\n")
    return project


def die(*_args, **_kwargs):
    raise Killed


def dying(monkeypatch, owner, name, replacement=die):
    """Makes `owner.name` die once; the original is back for the next call."""
    original = getattr(owner, name)

    def once(*args, **kwargs):
        monkeypatch.setattr(owner, name, original)
        return replacement(*args, **kwargs)
    monkeypatch.setattr(owner, name, once)


def _edit_a(s):
    return s.edit("a.py", 1, None, "A = 10\n")


def _create_c(s):
    return s.create("c.py", "C = 3\n")


@pytest.mark.parametrize("call, dies_in, after, depth, ledger_flags", [
    # Written, not yet in the ledger: undone.
    (_edit_a, (editor, "ledger_append"), {"a.py": "A = 1\n"}, 0, []),
    # In the ledger, not yet recorded as a step: undone, and its entry flagged.
    (_edit_a, (Session, "_record_step"), {"a.py": "A = 1\n"}, 0, [True]),
    # A create whose bytes prove it finished is kept as a step that can be rolled back.
    (_create_c, (editor, "ledger_append"), {"c.py": "C = 3\n"}, 1, [False]),
])
def test_a_write_cut_short_is_settled_on_open(proj, monkeypatch, call, dies_in, after, depth, ledger_flags):
    s = Session.open(str(proj))
    dying(monkeypatch, *dies_in)
    with pytest.raises(Killed):
        call(s)
    again = Session.open(str(proj))
    status = again.status()
    assert status["recovered"] and status["recovered"] == again.status()["recovered"]  # kept for status
    assert "recovered" in status and status["depth"] == depth
    assert {rel: (proj / rel).read_text() for rel in after} == after
    assert [bool(e.get("rolled_back")) for e in again.ledger()["entries"]] == ledger_flags
    if depth:
        assert again.rollback(1)["restored"] == ["c.py (deleted)"] and not (proj / "c.py").exists()


@pytest.mark.parametrize("dies_in, a_after, depth", [
    ("ledger_mark_rolled_back", "A = 1\n", 0),  # every file restored: the rollback finished
    ("rollback_steps", "A = 10\n", 1),          # cut in its first write: undone
])
def test_a_rollback_cut_short_is_settled_on_open(proj, monkeypatch, dies_in, a_after, depth):
    s = Session.open(str(proj))
    _edit_a(s)
    if dies_in == "rollback_steps":
        def partial(records, steps):
            Path(records[-1]["path"]).write_text("A =")
            raise Killed
        dying(monkeypatch, editor, dies_in, partial)
    else:
        dying(monkeypatch, editor, dies_in)
    with pytest.raises(Killed):
        s.rollback(1)
    again = Session.open(str(proj))
    assert again.status()["depth"] == depth and (proj / "a.py").read_text() == a_after
    assert [bool(e.get("rolled_back")) for e in again.ledger()["entries"]] == [depth == 0]


def files_under(top):
    return {str(p.relative_to(top)): p.read_bytes() for p in sorted(Path(top).rglob("*")) if p.is_file()}


def _cut_deletion(root, target):
    os.unlink(os.path.join(target, "b.py"))
    raise Killed


def _cut_restore(path, image, get):
    os.makedirs(os.path.join(path, "deep"))
    Path(path, "b.py").write_text("B")
    raise Killed


@pytest.mark.parametrize("before, call, dies_in, whole, depth, ledger_flags", [
    ([], lambda s: s.delete("sub"), (editor, "delete_file", _cut_deletion), True, 0, []),
    # Gone and in the ledger, not yet a step: kept as a step that can be undone.
    ([], lambda s: s.delete("sub"), (Store, "add_step", die), False, 1, [False]),
    (["delete"], lambda s: s.rollback(1), (images, "restore", _cut_restore), False, 1, [False]),
    (["delete", "rollback"], lambda s: s.redo(1), (editor, "delete_file", _cut_deletion), True, 0, [True]),
    # Every file in place, the ledger not yet marked: finished, with the older edit inside undone too.
    (["edit", "delete"], lambda s: s.rollback(2), (editor, "ledger_mark_rolled_back", die), True, 0, [True, True]),
])
def test_a_tree_cut_short_is_whole_after_open(proj, monkeypatch, before, call, dies_in, whole, depth, ledger_flags):
    (proj / "sub" / "deep").mkdir()
    (proj / "sub" / "deep" / "c.txt").write_bytes(b"C\r\n")
    original = files_under(proj / "sub")
    s = Session.open(str(proj))
    steps = {"delete": lambda: s.delete("sub"), "rollback": lambda: s.rollback(1),
             "edit": lambda: s.edit("sub/b.py", 1, None, "B = 20\n")}
    for name in before:
        assert "error" not in steps[name]()
    dying(monkeypatch, *dies_in)
    with pytest.raises(Killed):
        call(s)
    again = Session.open(str(proj))
    assert again.status()["recovered"] and again.status()["depth"] == depth
    assert files_under(proj / "sub") == (original if whole else {}) and (proj / "sub").exists() == whole
    assert [bool(e.get("rolled_back")) for e in again.ledger()["entries"]] == ledger_flags
    if depth:
        assert "error" not in again.rollback(depth) and files_under(proj / "sub") == original
        assert all(e.get("rolled_back") for e in again.ledger()["entries"])


def test_a_redo_cut_short_takes_back_its_ledger_entries(proj, monkeypatch):
    s = Session.open(str(proj))
    _edit_a(s)
    s.rollback(1)
    dying(monkeypatch, Store, "add_step")  # after the module appended the redone step's entry
    with pytest.raises(Killed):
        s.redo(1)
    again = Session.open(str(proj))
    assert (proj / "a.py").read_text() == "A = 1\n" and again.status()["depth"] == 0
    assert [bool(e.get("rolled_back")) for e in again.ledger()["entries"]] == [True]
    assert again.redo(1)["redone"][0]["step"] == 2 and (proj / "a.py").read_text() == "A = 10\n"


def test_a_host_exception_after_the_write_is_a_step(proj):
    s = Session.open(str(proj))
    result = s.create("deep.py", "x = " + "-" * 100000 + "1\n")
    assert "Parser stack overflowed" in result["syntax"] and result["step"] == 1
    assert s.rollback(1)["restored"] == ["deep.py (deleted)"]


@pytest.mark.parametrize("prepare, message", [
    (lambda root: (root / "bin.py").write_bytes(b"\xff\xfeA = 1\n"), "bin.py is not UTF-8 text"),
    (lambda root: (root / "bin.py").mkdir(), "bin.py is a directory"),
])
def test_host_exceptions_become_one_line_refusals(proj, prepare, message):
    prepare(proj)
    before = tree_digest(proj)
    result = Session.open(str(proj)).edit("bin.py", 1, None, "x\n")
    assert result["error"].startswith(message) and "\n" not in result["error"]
    assert tree_digest(proj) == before


def test_partial_rollback_consumes_exactly_what_it_popped(proj):
    s = Session.open(str(proj))
    _edit_a(s)                                  # step 1
    s.create("c.py", "C = 3\n")                 # step 2, its file then removed behind our back
    s.edit("sub/b.py", 1, None, "B = 20\n")     # step 3
    (proj / "c.py").unlink()
    result = s.rollback(3)
    assert result["consumed"] == 2 and result["restored"] == ["sub/b.py"]
    assert "could not delete" in result["error"] and "2 step(s) were consumed" in result["error"]
    assert [bool(e.get("rolled_back")) for e in s.ledger()["entries"]] == [False, True, True]
    assert s.status()["depth"] == 1 and (proj / "sub" / "b.py").read_text() == "B = 2\n"
    assert s.rollback(1)["restored"] == ["a.py"] and (proj / "a.py").read_text() == "A = 1\n"
    assert all(e.get("rolled_back") for e in s.ledger()["entries"])


def test_an_undone_rollback_leaves_nothing_to_redo(proj, monkeypatch):
    s = Session.open(str(proj))
    _edit_a(s)
    s.create("c.py", "C = 3\n")
    s.edit("sub/b.py", 1, None, "B = 20\n")
    (proj / "c.py").unlink()  # the rollback stops there, after undoing the newest step
    dying(monkeypatch, editor, "ledger_mark_rolled_back")
    with pytest.raises(Killed):
        s.rollback(3)
    again = Session.open(str(proj))
    assert again.status()["depth"] == 3 and (proj / "sub" / "b.py").read_text() == "B = 20\n"
    assert "0 undone step(s)" in again.redo(1)["error"]


def test_unreadable_ledger_is_moved_aside(proj):
    s = Session.open(str(proj))
    ledger = projstore.project_dir(str(proj)) / editor.LEDGER_NAME
    ledger.write_bytes(b"\xff{ not json")
    result = _edit_a(s)
    assert "moved aside" in result["notes"][0] and result["step"] == 1
    backups = [p for p in ledger.parent.iterdir() if p.name.startswith(editor.LEDGER_NAME + ".unreadable-")]
    assert [p.read_bytes() for p in backups] == [b"\xff{ not json"]


def swap_sub_for_link(root):
    outside = root.parent / "outside" / "sub"
    os.rename(root / "sub", outside)
    os.symlink(outside, root / "sub")
    return outside


@pytest.mark.parametrize("step", [
    lambda s: s.edit("sub/b.py", 1, None, "B = 20\n"),
    lambda s: s.create("sub/victim.py", "V = 1\n"),
])
def test_rollback_through_a_swapped_link_is_refused(proj, step):
    s = Session.open(str(proj))
    assert "error" not in step(s)
    swap_sub_for_link(proj)
    outside = tree_digest(proj.parent / "outside")
    result = s.rollback(1)
    assert result["error"].startswith("rollback refused, nothing was restored: sub/")
    assert tree_digest(proj.parent / "outside") == outside and s.status()["depth"] == 1


def test_check_leaves_out_files_no_longer_under_the_root(proj):
    s = Session.open(str(proj))
    s.edit("sub/b.py", 1, None, "B = undefined_name\n")
    swap_sub_for_link(proj)
    outside = tree_digest(proj.parent / "outside")
    result = s.check()
    assert result["findings"] == [] and "sub/b.py no longer lies under the project root" in result["skipped"][0]
    assert tree_digest(proj.parent / "outside") == outside


def test_hard_links_are_refused_unless_allowed(proj):
    os.link(proj.parent / "outside" / "secret.txt", proj / "h.txt")
    before = tree_digest(proj), tree_digest(proj.parent / "outside")
    assert Session.open(str(proj)).edit("h.txt", 1, None, "x\n") == {
        "error": "h.txt has 2 hard links; editing it would change the other copies too"}
    assert (tree_digest(proj), tree_digest(proj.parent / "outside")) == before
    s = Session.open(str(proj), allow_hard_links=True)
    assert s.edit("h.txt", 1, None, "changed\n")["step"] == 1
    os.link(proj / "a.py", proj.parent / "outside" / "a_copy.py")
    s.edit("a.py", 1, None, "A = 10\n")
    assert "hard links" not in str(s.rollback(1))
    assert "has 2 hard links" in Session.open(str(proj)).rollback(1)["error"]


def test_special_files_are_refused_without_blocking(proj):
    s = Session.open(str(proj))
    s.edit("a.py", 1, None, "A = 10\n")
    os.mkfifo(proj / "p.py")
    os.unlink(proj / "a.py")
    os.mkfifo(proj / "a.py")
    signal.alarm(20)  # a regression blocks on the pipe: fail instead of hanging
    try:
        assert s.edit("p.py", 1, None, "x\n")["error"] == (
            "p.py is a named pipe, not a regular file -- the session reads and writes only regular files")
        assert "a.py is a named pipe" in s.check()["skipped"][0]
        assert "a.py is a named pipe" in s.diff()["skipped"][0]
        assert "a.py is a named pipe" in s.rollback(1)["error"]
    finally:
        signal.alarm(0)


def run_cli(root, *args, stdin=""):
    return subprocess.run([str(ROOT / "scripts" / "editor-session"), "--root", str(root), *args],
                          input=stdin, capture_output=True, text=True, timeout=120)


def test_corrupt_store_is_refused_with_how_to_reset(proj):
    Session.open(str(proj)).close()
    store = projstore.project_dir(str(proj)) / STORE_NAME
    store.write_bytes(b"this is not a database" * 100)
    before = tree_digest(proj)
    refused = run_cli(proj, "edit", "a.py", "--start", "1", "--content", "A = 5\n")
    assert refused.returncode == 1 and str(store) in refused.stderr and "reset" in refused.stderr
    assert len(refused.stderr.splitlines()) == 1 and tree_digest(proj) == before
    assert run_cli(proj, "reset").returncode == 0
    assert run_cli(proj, "edit", "a.py", "--start", "1", "--content", "A = 5\n").returncode == 0


def test_store_of_another_schema_version_is_refused(proj):
    Session.open(str(proj)).close()
    path = projstore.project_dir(str(proj)) / STORE_NAME
    with sqlite3.connect(path) as conn:
        conn.execute("PRAGMA user_version=99")
    with pytest.raises(SessionError, match="schema version 99.*reset"):
        Session.open(str(proj))


def test_read_only_state_directory_is_refused_before_any_write(proj):
    state = projstore.ensure_orvel_dir(str(proj))
    before = tree_digest(proj)
    with immutable(state):
        refused = run_cli(proj, "edit", "a.py", "--start", "1", "--content", "A = 5\n")
    assert refused.returncode == 1 and str(state) in refused.stderr and "writable" in refused.stderr
    assert tree_digest(proj) == before


def test_reset_settles_a_call_cut_short_then_forgets_the_session(proj, monkeypatch):
    s = Session.open(str(proj))
    s.edit("sub/b.py", 1, None, "B = 20\n")
    dying(monkeypatch, editor, "ledger_append")
    with pytest.raises(Killed):
        _edit_a(s)
    result = Session.open(str(proj)).reset()
    assert result["recovered"] == ["an interrupted edit was undone: restored a.py"]
    assert (proj / "a.py").read_text() == "A = 1\n" and (proj / "sub" / "b.py").read_text() == "B = 20\n"
    fresh = Session.open(str(proj))
    assert fresh.status()["depth"] == 0 and fresh.status()["touched"] == []
    assert "error" in fresh.rollback(1)
    # An open session resets under its own lock and keeps working.
    assert "reset" in s.reset() and "step" in s.edit("a.py", 1, None, "A = 2\n")
    assert Session.open(str(proj)).status()["depth"] == 1


def test_store_from_before_the_names_table_is_brought_up_to_date(proj):
    s = Session.open(str(proj))
    s.edit("a.py", 1, 1, "class A:\n    def run(self):\n        pass\n")
    s.close()
    with sqlite3.connect(projstore.project_dir(str(proj)) / STORE_NAME) as conn:
        conn.executescript("DROP TABLE names; DELETE FROM meta WHERE key='names_of'; PRAGMA user_version=1;")
    s = Session.open(str(proj))
    assert s.create("d.py", "def h(x):\n    x.run()\n")["static_diff"]["edges_added"] == ["d.py::h -> a.py::A.run"]
    s.close()
    again = Session.open(str(proj))
    assert again.edit("a.py", 2, 2, "    def go(self):\n")["static_diff"]["edges_removed"] == ["d.py::h -> a.py::A.run"]
    again.close()


def test_reset_of_a_reopened_session_keeps_the_records_it_had_not_read(proj):
    (proj / "a.py").write_text("class A:\n    def run(self):\n        pass\n")
    (proj / "c.py").write_text("def h(x):\n    x.run()\n")
    Session.open(str(proj)).close()
    s = Session.open(str(proj))  # its records are still in the store, unread
    assert "error" not in s.reset()
    assert s.edit("a.py", 2, 2, "    def go(self):\n")["static_diff"]["edges_removed"] == ["c.py::h -> a.py::A.run"]
    s.close()
