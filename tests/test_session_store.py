"""The session store in one process: calls cut short, rollbacks against the ledger, guards, unusable stores."""

import contextlib
import os
import signal
import sqlite3
import subprocess
from pathlib import Path

import pytest
from helpers import immutable, tree_digest, write

import editor
import projstore
from editor_session import images
from editor_session.session import Session
from editor_session.store import STORE_NAME, Store

ROOT = Path(__file__).resolve().parent.parent


class Killed(BaseException):  # the process dying at this point: nothing below catches it
    pass


@pytest.fixture(autouse=True)
def state_home(tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))


def sample(root):
    (root / "sub" / "deep").mkdir(parents=True)
    for rel, data in {"a.py": b"A = 1\n", "sub/b.py": b"B = 2\n", "sub/deep/c.txt": b"C\r\n"}.items():
        (root / rel).write_bytes(data)
    return root


@pytest.fixture
def proj(project):
    return sample(project)


@pytest.fixture
def opened():
    with contextlib.ExitStack() as stack:  # every session opened is closed at the end of the test
        yield lambda root, **options: stack.enter_context(contextlib.closing(Session.open(str(root), **options)))


def snapshot(top):
    return {str(p.relative_to(top)): p.read_bytes() if p.is_file() else None for p in sorted(Path(top).rglob("*"))}


def die(*_args, **_kwargs):
    raise Killed


def dying(monkeypatch, owner, name, replacement=die):
    # `owner.name` dies once; the original is back for the next call.
    original = getattr(owner, name)

    def once(*args, **kwargs):
        monkeypatch.setattr(owner, name, original)
        return replacement(*args, **kwargs)
    monkeypatch.setattr(owner, name, once)


def cut_deletion(root, target):
    die(os.unlink(os.path.join(target, "b.py")))


def cut_restore(path, image, get):
    die(os.makedirs(os.path.join(path, "deep")), Path(path, "b.py").write_text("B"))


def cut_rollback(records, steps):
    die(Path(records[-1]["path"]).write_text("A ="))


STEPS = {"edit": lambda s: s.edit("a.py", 1, None, "A = 10\n"), "edit_b": lambda s: s.edit("sub/b.py", 1, None, "B = 20\n"),
         "create": lambda s: s.create("c.py", "C = 3\n"), "delete": lambda s: s.delete("sub"),
         "rollback": lambda s: s.rollback(1), "rollback2": lambda s: s.rollback(2), "rollback3": lambda s: s.rollback(3),
         "redo": lambda s: s.redo(1), "lose_c": lambda s: os.unlink(Path(s.root, "c.py")) or {}}


@pytest.mark.parametrize("before, call, dies_in, finished, depth, ledger_flags, redoable", [
    # Written, not yet in the ledger: undone.
    ("", "edit", (editor, "ledger_append", die), False, 0, [], None),
    # In the ledger, not yet recorded as a step: undone, and its entry flagged.
    ("", "edit", (Session, "_record_step", die), False, 0, [True], None),
    # A create whose bytes prove it finished is kept as a step that can be rolled back.
    ("", "create", (editor, "ledger_append", die), True, 1, [False], None),
    ("edit", "rollback", (editor, "ledger_mark_rolled_back", die), True, 0, [True], None),
    ("edit", "rollback", (editor, "rollback_steps", cut_rollback), False, 1, [False], None),
    ("", "delete", (editor, "delete_file", cut_deletion), False, 0, [], None),
    # Gone and in the ledger, not yet a step: kept as a step that can be undone.
    ("", "delete", (Store, "add_step", die), True, 1, [False], None),
    ("delete", "rollback", (images, "restore", cut_restore), False, 1, [False], None),
    ("delete rollback", "redo", (editor, "delete_file", cut_deletion), False, 0, [True], None),
    # Every file in place, the ledger not yet marked: finished, with the older edit inside undone too.
    ("edit_b delete", "rollback2", (editor, "ledger_mark_rolled_back", die), True, 0, [True, True], None),
    # After the module appended the redone step's entry: the entry is taken back, the redo stays.
    ("edit rollback", "redo", (Store, "add_step", die), False, 0, [True], 1),
    # The rollback stops at the lost file after undoing the newest step, then dies: undone whole.
    ("edit create edit_b lose_c", "rollback3", (editor, "ledger_mark_rolled_back", die), False, 3, [False] * 3, 0),
])
def test_a_call_cut_short_leaves_the_pre_or_post_image(proj, tmp_path, opened, monkeypatch, before, call, dies_in,
                                                       finished, depth, ledger_flags, redoable):
    original, images_ = snapshot(proj), []  # the twin's post-image, then the pre-image
    for root in (sample(tmp_path / "twin"), proj):
        s = opened(root)
        assert all("error" not in STEPS[name](s) for name in before.split())
        if root == proj:
            images_.append(snapshot(root))
            dying(monkeypatch, *dies_in)
        with pytest.raises(Killed) if root == proj else contextlib.nullcontext():
            STEPS[call](s)
        images_ += [snapshot(root)] if root != proj else []
    again = opened(proj)
    status = again.status()
    assert status["recovered"] and again.status()["recovered"] == status["recovered"]  # kept for status
    assert status["depth"] == depth and snapshot(proj) == images_[0 if finished else 1]
    assert [bool(e.get("rolled_back")) for e in again.ledger()["entries"]] == ledger_flags
    if redoable is not None:
        assert f" {redoable} undone step(s)" in again.redo(redoable + 1)["error"]
        assert redoable == 0 or "error" not in again.redo(redoable)
    elif depth:
        assert "error" not in again.rollback(depth) and snapshot(proj) == original
        assert all(e.get("rolled_back") for e in again.ledger()["entries"])


def test_partial_rollback_consumes_exactly_what_it_popped(proj, opened):
    s = opened(proj)
    for name in ("edit", "create", "edit_b", "lose_c"):  # step 2's file is removed behind our back
        STEPS[name](s)
    result = s.rollback(3)
    assert "could not delete" in result["error"] and "2 step(s) were consumed" in result["error"]
    assert (result["consumed"], result["restored"], s.status()["depth"], (proj / "sub" / "b.py").read_text(), [
        bool(e.get("rolled_back")) for e in s.ledger()["entries"]]) == (2, ["sub/b.py"], 1, "B = 2\n", [False, True, True])
    assert s.rollback(1)["restored"] == ["a.py"] and (proj / "a.py").read_text() == "A = 1\n"
    assert all(e.get("rolled_back") for e in s.ledger()["entries"])


def test_an_unreadable_ledger_or_a_host_exception_after_the_write_still_leaves_a_step(proj, opened):
    s, ledger = opened(proj), projstore.project_dir(str(proj)) / editor.LEDGER_NAME
    ledger.write_bytes(b"\xff{ not json")
    result = STEPS["edit"](s)
    assert "moved aside" in result["notes"][0] and result["step"] == 1
    assert [p.read_bytes() for p in ledger.parent.glob(editor.LEDGER_NAME + ".unreadable-*")] == [b"\xff{ not json"]
    result = s.create("deep.py", "x = " + "-" * 100000 + "1\n")
    assert "Parser stack overflowed" in result["syntax"] and result["step"] == 2
    assert s.rollback(1)["restored"] == ["deep.py (deleted)"]


@pytest.mark.parametrize("step, rel", [(lambda s: s.edit("sub/b.py", 1, None, "B = undefined_name\n"), "sub/b.py"),
                                       (lambda s: s.create("sub/victim.py", "V = undefined_name\n"), "sub/victim.py")])
def test_files_swapped_out_of_the_root_are_left_alone(proj, opened, step, rel):
    s = opened(proj)
    assert "error" not in step(s)
    os.rename(proj / "sub", proj.parent / "outside" / "sub")
    os.symlink(proj.parent / "outside" / "sub", proj / "sub")
    outside = tree_digest(proj.parent / "outside")
    assert s.rollback(1)["error"].startswith("rollback refused, nothing was restored: sub/")
    result = s.check()
    assert result["findings"] == [] and f"{rel} no longer lies under the project root" in result["skipped"][0]
    assert tree_digest(proj.parent / "outside") == outside and s.status()["depth"] == 1


@pytest.mark.parametrize("make, said", [
    (lambda p: os.link(write(p.parent.parent / "outside" / p.name, "x\n"), p),
     "has 2 hard links; editing it would change the other copies too"),
    (os.mkfifo, "is a named pipe, not a regular file -- the session reads and writes only regular files"),
])
def test_special_files_are_refused_without_blocking(proj, opened, make, said):
    s = opened(proj)
    STEPS["edit"](s)
    make(proj / "p.py")
    os.unlink(proj / "a.py")
    make(proj / "a.py")
    before = tree_digest(proj), tree_digest(proj.parent / "outside")
    signal.alarm(20)  # a regression blocks on the pipe: fail instead of hanging
    try:
        assert s.edit("p.py", 1, None, "x\n") == {"error": f"p.py {said}"}
        assert (s.check()["skipped"], s.rollback(1)["error"]) == (
            [f"a.py {said}"], f"rollback refused, nothing was restored: a.py {said}")
    finally:
        signal.alarm(0)
    assert (tree_digest(proj), tree_digest(proj.parent / "outside")) == before
    if make is not os.mkfifo:
        assert opened(proj, allow_hard_links=True).rollback(1)["restored"] == ["a.py"]


def old_schema(store):
    with contextlib.closing(sqlite3.connect(store)) as conn:
        conn.execute("PRAGMA user_version=99")


def run_cli(root, *args):
    return subprocess.run([str(ROOT / "scripts" / "editor-session"), "--root", str(root), *args],
                          capture_output=True, text=True, timeout=120)


@pytest.mark.parametrize("spoil, words", [
    (lambda store: store.write_bytes(b"this is not a database" * 100), ["reset"]),
    (old_schema, ["schema version 99", "reset"]),
    (None, ["writable"]),
])
def test_an_unusable_store_is_refused_before_any_write(proj, opened, spoil, words):
    state = projstore.ensure_orvel_dir(str(proj))
    if spoil:
        opened(proj).close()
        spoil(state / STORE_NAME)
    before = tree_digest(proj)
    with contextlib.nullcontext() if spoil else immutable(state):
        refused = run_cli(proj, "edit", "a.py", "--start", "1", "--content", "A = 5\n")
    assert refused.returncode == 1 and len(refused.stderr.splitlines()) == 1 and tree_digest(proj) == before
    assert str(state) in refused.stderr and all(word in refused.stderr for word in words)
    if spoil:
        assert run_cli(proj, "reset").returncode == 0
        assert run_cli(proj, "edit", "a.py", "--start", "1", "--content", "A = 5\n").returncode == 0


def test_reset_settles_a_call_cut_short_then_forgets_the_session(proj, opened, monkeypatch):
    s = opened(proj)
    STEPS["edit_b"](s)
    dying(monkeypatch, editor, "ledger_append")
    with pytest.raises(Killed):
        STEPS["edit"](s)
    assert opened(proj).reset()["recovered"] == ["an interrupted edit was undone: restored a.py"]
    assert (proj / "a.py").read_text() == "A = 1\n" and (proj / "sub" / "b.py").read_text() == "B = 20\n"
    fresh = opened(proj)
    assert fresh.status()["depth"] == 0 and fresh.status()["touched"] == [] and "error" in fresh.rollback(1)
    # An open session resets under its own lock and keeps working.
    assert "reset" in s.reset() and "step" in s.edit("a.py", 1, None, "A = 2\n")
    assert opened(proj).status()["depth"] == 1


def test_records_left_unread_in_an_old_or_reset_store_still_resolve_names(proj, opened):
    s, edge = opened(proj), ["d.py::h -> a.py::A.run"]
    s.edit("a.py", 1, 1, "class A:\n    def run(self):\n        pass\n")
    s.close()
    with contextlib.closing(sqlite3.connect(projstore.project_dir(str(proj)) / STORE_NAME)) as conn:
        conn.executescript("DROP TABLE names; DELETE FROM meta WHERE key='names_of'; PRAGMA user_version=1;")
    assert opened(proj).create("d.py", "def h(x):\n    x.run()\n")["static_diff"]["edges_added"] == edge
    assert opened(proj).edit("a.py", 2, 2, "    def go(self):\n")["static_diff"]["edges_removed"] == edge
    s = opened(proj)  # its records are still in the store, unread: a reset must read them first
    assert "error" not in s.reset()
    assert s.edit("a.py", 2, 2, "    def run(self):\n")["static_diff"]["edges_added"] == edge
