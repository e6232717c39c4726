"""Ground that refuses a change, a file that became a directory, records that cannot be written."""

import os

import pytest

import editor
import projstore
from helpers import immutable, tree_digest, write


@pytest.mark.parametrize(("operation", "locked"), [("apply_block", "f.txt"), ("create_file", ""), ("delete_file", "")])
def test_what_refuses_a_change_is_reported_with_the_hosts_error(project, checker, operation, locked):
    # An edit of a file in a read-only directory succeeds: the identity test shows it is written in place.
    (project / "locked").mkdir()
    (project / "locked" / "f.txt").write_text("a\nb\n")
    target = project / "locked" / ("new.py" if operation == "create_file" else "f.txt")
    args = {"apply_block": (2, None, "B"), "create_file": ("B",), "delete_file": ()}[operation]
    with immutable(project / "locked" / locked):
        digest = tree_digest(project.parent)
        if operation == "delete_file":
            assert editor.delete_file(str(project), str(target)) == {
                "error": f"could not delete {target}: [Errno 1] Operation not permitted: '{target}'"}
        else:
            with pytest.raises(PermissionError) as caught:
                getattr(editor, operation)(str(project), str(target), *args)
            assert caught.value.filename == str(target)
        assert tree_digest(project.parent) == digest and checker == []


# Edits, creation and deletion of a directory are the edit tests' own cases.
@pytest.mark.parametrize(("check", "expected"), [
    (lambda path: editor.syntax_check(path, before_text="x = 1\n"), None),
    (lambda path: editor.commit_time_check({path: "x = 1\n"}), []),
])
def test_checks_of_a_file_that_became_a_directory_find_nothing(project, check, expected):
    write(project / "f.py" / "inner.txt", "keep\n")
    digest = tree_digest(project.parent)
    assert check(str(project / "f.py")) == expected and tree_digest(project.parent) == digest


# Rolling back onto ground that refuses a change is test_records_snapshots.py's (a refusal and a raise
# part-way down the stack): the same paths as a read-only file or directory.
@pytest.mark.parametrize("locked", ["the state's holder", "the ledger"])
def test_records_that_cannot_be_written_raise_and_keep_their_steps(tmp_path, monkeypatch, locked):
    project, holder, steps = str(tmp_path / "project"), tmp_path / "holder", ["edit"] if locked == "the ledger" else []
    monkeypatch.setenv("EDITOR_STATE_HOME", str(holder / "state"))
    os.mkdir(project)
    holder.mkdir()
    if steps:
        assert editor.ledger_append(project, {"step": "edit"}) == 1
    with immutable(projstore.project_dir(project) / editor.LEDGER_NAME if steps else holder):
        digest = tree_digest(tmp_path)
        assert [step["step"] for step in editor.ledger_load(project)] == steps
        for call in (lambda: editor.ledger_append(project, {"step": "second"}),
                     lambda: editor.ledger_mark_rolled_back(project, 1)):
            with pytest.raises(PermissionError):
                call()
        assert tree_digest(tmp_path) == digest
