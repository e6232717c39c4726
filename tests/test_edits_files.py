"""File creation and deletion on real trees, with links in and out of the root."""

import os
import shutil

import pytest

import editor
from helpers import tree_digest
pytestmark = pytest.mark.leaks

EXISTS = "{path} already exists -- use edit_lines to change it"
ESCAPE = "path escapes the project root"
ROOT = "{path} is the project root -- delete the files and directories inside it instead"


@pytest.fixture
def tree(project):
    """A nested directory, links inside the root, and links leading out of it."""
    (project / "pkg" / "deep").mkdir(parents=True)
    (project / "pkg" / "deep" / "b.py").write_bytes(b"b\n")
    (project / "pkg" / "deep" / "to_outside").symlink_to(project.parent / "outside", target_is_directory=True)
    (project / "top.txt").write_bytes(b"")
    (project / "file_link").symlink_to(project / "top.txt")
    (project / "dir_link").symlink_to(project / "pkg", target_is_directory=True)
    (project / "out_file").symlink_to(project.parent / "outside" / "secret.txt")
    (project / "out_dir").symlink_to(project.parent / "outside", target_is_directory=True)
    (project / "dangling").symlink_to(project / "gone")
    (project / "dangling_out").symlink_to(project.parent / "outside" / "made_through_a_link")
    return project


@pytest.mark.parametrize(("relative", "content"), [("pkg/sub/new.py", "x = 1\r\ny = 2"), ("empty.txt", "")])
def test_create_writes_exactly_what_it_is_given(project, checker, relative, content):
    path = project / relative
    result = editor.create_file(str(project), str(path), content)
    assert result == {"created": str(path), "syntax": "ok"} and list(result) == ["created", "syntax"]
    assert path.read_bytes() == content.encode() and checker == [((str(path),), {})]


@pytest.mark.parametrize(
    ("operation", "relative", "message"),
    [
        ("create_file", "top.txt", EXISTS),
        ("create_file", "pkg", EXISTS),
        ("create_file", "file_link", EXISTS),
        ("create_file", "out_dir/new.txt", ESCAPE),
        ("create_file", "dangling_out", ESCAPE),
        ("delete_file", "out_file", ESCAPE),
        ("delete_file", "../outside", ESCAPE),
        ("delete_file", "never", "{path} does not exist"),
        ("delete_file", "dangling", "{path} does not exist"),
        ("delete_file", "", ROOT),
        ("delete_file", "pkg/..", ROOT),
    ],
)
def test_refusals_leave_the_tree_unchanged(tree, checker, operation, relative, message):
    digest = tree_digest(tree.parent)
    path = f"{tree}/{relative}"
    args = (str(tree), path) + (("new\n",) if operation == "create_file" else ())
    assert getattr(editor, operation)(*args) == {"error": message.format(path=path)}
    assert tree_digest(tree.parent) == digest and checker == []


def test_create_checks_the_encoding_before_making_anything(project, checker):
    digest = tree_digest(project.parent)
    with pytest.raises(UnicodeEncodeError):
        editor.create_file(str(project), str(project / "new" / "f.py"), "x = '\ud800'\n")
    assert tree_digest(project.parent) == digest and checker == []


@pytest.mark.parametrize(
    ("relative", "was", "gone", "kept"),
    [
        ("pkg", "directory", ["pkg", "dir_link/deep"], ["top.txt", "../outside/secret.txt"]),
        ("top.txt", "file", ["top.txt"], ["pkg"]),
        ("file_link", "file", ["file_link"], ["top.txt"]),
    ],
)
def test_delete(tree, relative, was, gone, kept):
    path = f"{tree}/{relative}"
    result = editor.delete_file(str(tree), path)
    assert result == {"deleted": path, "was": was} and list(result) == ["deleted", "was"]
    assert not any(os.path.lexists(tree / name) for name in gone)
    assert all((tree / name).exists() for name in kept)


def test_failed_removal_is_refused_with_the_hosts_text(tree):
    # An unlink that fails (a locked file) is in test_faults.py; this is rmtree refusing a link.
    path = tree / "dir_link"
    digest = tree_digest(tree.parent)
    with pytest.raises(OSError) as caught:
        shutil.rmtree(str(path))
    assert editor.delete_file(str(tree), str(path)) == {"error": f"could not delete {path}: {caught.value}"}
    assert tree_digest(tree.parent) == digest


@pytest.mark.parametrize("operation", ["apply_block", "create_file", "delete_file"])
def test_confinement_test_is_the_module_current_one(project, checker, monkeypatch, operation):
    asked = []
    monkeypatch.setattr(editor, "_within_root", lambda root, path: asked.append((root, path)) or False)
    (project / "f.txt").write_bytes(b"x\n")
    digest = tree_digest(project.parent)
    args = {"apply_block": (1, None, "y"), "create_file": ("y",), "delete_file": ()}[operation]
    assert getattr(editor, operation)(str(project), str(project / "f.txt"), *args) == {"error": ESCAPE}
    assert asked == [(str(project), str(project / "f.txt"))] and tree_digest(project.parent) == digest
