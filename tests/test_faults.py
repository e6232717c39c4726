"""Faults of the machine under the operations: files and directories that refuse changes, a
target that became a directory between two calls, a compiler that hangs, a state directory
that cannot be made. Each gives its documented result and leaves every other file as it was."""

import contextlib
import os
import subprocess
import types
from pathlib import Path

import pytest

import editor
import projstore
from helpers import immutable, repository, script, tree_digest, write


def test_read_only_directory_refuses_a_new_file(project, checker):
    locked = project / "locked"
    locked.mkdir()
    with immutable(locked):
        digest = tree_digest(project.parent)
        with pytest.raises(PermissionError):
            editor.create_file(str(project), str(locked / "new.py"), "x = 1\n")
        assert tree_digest(project.parent) == digest and checker == []


def test_read_only_directory_keeps_its_files_and_a_deletion_is_refused(project, checker):
    locked = project / "locked"
    locked.mkdir()
    target = locked / "f.txt"
    target.write_text("a\nb\n")
    with immutable(locked):
        # The edit rewrites the file in place: the directory's entries are not touched.
        receipt = editor.apply_block(str(project), str(target), 2, None, "B")
        assert receipt == {"replaced": ["b"], "at": 2, "syntax": "ok"} and target.read_text() == "a\nB\n"
        assert sorted(os.listdir(locked)) == ["f.txt"]
        digest = tree_digest(project.parent)
        refusal = editor.delete_file(str(project), str(target))
        assert refusal == {"error": f"could not delete {target}: [Errno 1] Operation not permitted: '{target}'"}
        assert tree_digest(project.parent) == digest


@pytest.fixture
def became_directory(project):
    """A file the session created, then replaced by a directory (with a file inside) behind its back."""
    target = project / "f.py"
    assert editor.create_file(str(project), str(target), "x = 1\n") == {"created": str(target), "syntax": "ok"}
    target.unlink()
    target.mkdir()
    (target / "inner.txt").write_text("keep\n")
    return target


@pytest.mark.parametrize(
    ("call", "expected"),
    [
        (lambda root, path: editor.apply_block(root, path, 1, None, "y = 2\n"), IsADirectoryError),
        (lambda root, path: editor.create_file(root, path, "y = 2\n"), "exists"),
        (lambda root, path: editor.syntax_check(path, before_text="x = 1\n"), None),
        (lambda root, path: editor.commit_time_check({path: "x = 1\n"}), []),
    ],
)
def test_target_replaced_by_a_directory_between_calls(project, became_directory, call, expected):
    digest = tree_digest(project.parent)
    if isinstance(expected, type):
        with pytest.raises(expected):
            call(str(project), str(became_directory))
    elif expected == "exists":
        assert call(str(project), str(became_directory)) == {
            "error": f"{became_directory} already exists -- use edit_lines to change it"}
    else:
        assert call(str(project), str(became_directory)) == expected
    assert tree_digest(project.parent) == digest


def test_deleting_the_replaced_target_removes_the_directory(project, became_directory):
    assert editor.delete_file(str(project), str(became_directory)) == {"deleted": str(became_directory),
                                                                       "was": "directory"}
    assert not became_directory.exists() and sorted(os.listdir(project)) == []


HANGING_CC = """\
for last; do :; done
if /bin/grep -q HANG "$last"; then echo $$ > "{pid}"; exec /bin/sleep 30; fi
echo "$last:1:9: error: 'ghost' undeclared"
exit 1
"""


@pytest.mark.parametrize("hangs_on", ["current text", "earlier text"])
def test_hanging_compiler_is_killed_and_the_current_text_stays(tmp_path, monkeypatch, hangs_on):
    root = repository(tmp_path / "proj")
    pid_file = tmp_path / "pid"
    script(tmp_path / "bin", "cc", HANGING_CC.format(pid=pid_file))
    monkeypatch.setenv("PATH", str(tmp_path / "bin"))

    def run(*args, **kwargs):  # the host's own run, with the limit cut short so the suite stays quick
        return subprocess.run(*args, **{**kwargs, "timeout": 0.5})

    monkeypatch.setattr(editor, "subprocess", types.SimpleNamespace(run=run, SubprocessError=subprocess.SubprocessError))
    current = "int a = ghost; /* HANG */\n" if hangs_on == "current text" else "int a = ghost;\n"
    earlier = "int a; /* HANG */\n" if hangs_on == "earlier text" else "int a;\n"
    source = write(root / "src" / "m.c", current)
    before = contents(tmp_path)
    # A run that does not finish in time cannot be judged: no finding, never a blocked change.
    assert editor.commit_time_check({str(source): earlier}) == []
    with pytest.raises(ProcessLookupError):
        os.kill(int(pid_file.read_text()), 0)
    pid_file.unlink()
    # The file may have held its earlier text for a moment; it holds the current one again.
    assert contents(tmp_path) == before


def contents(top):
    """Every directory and file below `top`, with the bytes of each file."""
    found = {}
    for folder, dirs, files in os.walk(top):
        found.update({os.path.join(folder, name): None for name in dirs})
        found.update({os.path.join(folder, name): Path(folder, name).read_bytes() for name in files})
    return found


@pytest.mark.parametrize("blocked_by", ["a file", "a read-only directory"])
def test_state_directory_that_cannot_be_created(tmp_path, monkeypatch, blocked_by):
    project = tmp_path / "project"
    project.mkdir()
    holder = tmp_path / "holder"
    if blocked_by == "a file":
        holder.write_text("not a directory\n")
    else:
        holder.mkdir()
    monkeypatch.setenv("EDITOR_STATE_HOME", str(holder / "state"))
    with immutable(holder) if blocked_by != "a file" else contextlib.nullcontext():
        digest = tree_digest(tmp_path)
        assert editor.ledger_load(str(project)) == []
        for call in (lambda: editor.ledger_append(str(project), {"step": "edit"}),
                     lambda: editor.ledger_mark_rolled_back(str(project), 1)):
            with pytest.raises(OSError):
                call()
        assert tree_digest(tmp_path) == digest


def test_read_only_ledger_keeps_its_steps(tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    project = str(tmp_path / "project")
    assert editor.ledger_append(project, {"step": "edit"}) == 1
    ledger = projstore.project_dir(project) / editor.LEDGER_NAME
    with immutable(ledger):
        digest = tree_digest(tmp_path)
        with pytest.raises(PermissionError):
            editor.ledger_append(project, {"step": "second"})
        with pytest.raises(PermissionError):
            editor.ledger_mark_rolled_back(project, 1)
        assert tree_digest(tmp_path) == digest
    assert [step["step"] for step in editor.ledger_load(project)] == ["edit"]


@pytest.mark.parametrize("locked", ["a file to write back", "a created file to delete"])
def test_rollback_onto_read_only_ground_stops_at_that_record(tmp_path, locked):
    first, last = tmp_path / "first.txt", tmp_path / "last.txt"
    target = tmp_path / "locked" / ("edited.txt" if locked == "a file to write back" else "created.txt")
    target.parent.mkdir()
    for path in (first, last) + ((target,) if locked == "a file to write back" else ()):
        path.write_text(f"{path.name} before\n")
    stack = [editor.take_snapshot({"ir": n}, str(path)) for n, path in enumerate((first, target, last), 1)]
    for path in (first, target, last):
        path.write_text(f"{path.name} after\n")
    with immutable(target if locked == "a file to write back" else target.parent):
        before = contents(tmp_path)
        if locked == "a file to write back":
            with pytest.raises(PermissionError):
                editor.rollback_steps(stack, 3)
        else:
            assert editor.rollback_steps(stack, 3) == {
                "error": f"could not delete {target}: [Errno 1] Operation not permitted: '{target}'"}
    # The newest step was undone and the failing one consumed; the oldest was not reached.
    assert [record["raw"] for record in stack] == [{"ir": 1}]
    assert contents(tmp_path) == {**before, str(last): b"last.txt before\n"}
