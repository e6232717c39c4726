"""File creation and deletion on real trees, with links in and out of the root."""

import os
import shutil

import pytest

import editor
from edits_helpers import checker, immutable, project, tree_digest  # noqa: F401  (fixtures)


@pytest.mark.parametrize(
    ("relative", "content"),
    [
        ("pkg/sub/new.py", "x = 1\r\ny = 2"),  # two missing directory levels; text kept exactly
        ("empty.txt", ""),
        ("é/ü.md", "\u2028\n"),
    ],
)
def test_create_writes_exactly_what_it_is_given(project, checker, relative, content):
    path = project / relative
    result = editor.create_file(str(project), str(path), content)
    assert result == {"created": str(path), "syntax": "ok"} and list(result) == ["created", "syntax"]
    assert path.read_bytes() == content.encode()
    assert checker == [((str(path),), {})]


@pytest.mark.parametrize(
    ("relative", "message"),
    [
        ("file.txt", "{path} already exists -- use edit_lines to change it"),
        ("empty.txt", "{path} already exists -- use edit_lines to change it"),
        ("dir", "{path} already exists -- use edit_lines to change it"),
        ("link_to_file", "{path} already exists -- use edit_lines to change it"),
        ("dir/../file.txt", "{path} already exists -- use edit_lines to change it"),
        ("../outside/new.txt", "path escapes the project root"),
        ("out_link/new.txt", "path escapes the project root"),
        ("dangling_out", "path escapes the project root"),
    ],
)
def test_create_refusals_leave_the_tree_unchanged(project, checker, relative, message):
    (project / "file.txt").write_bytes(b"old\n")
    (project / "empty.txt").write_bytes(b"")
    (project / "dir").mkdir()
    (project / "link_to_file").symlink_to(project / "file.txt")
    (project / "out_link").symlink_to(project.parent / "outside", target_is_directory=True)
    (project / "dangling_out").symlink_to(project.parent / "outside" / "made_through_a_link")
    digest = tree_digest(project.parent)
    path = f"{project}/{relative}"
    assert editor.create_file(str(project), path, "new\n") == {"error": message.format(path=path)}
    assert tree_digest(project.parent) == digest and checker == []


def test_create_with_content_utf8_cannot_hold_makes_nothing(project, checker):
    digest = tree_digest(project.parent)
    with pytest.raises(UnicodeEncodeError):
        editor.create_file(str(project), str(project / "new" / "f.py"), "x = '\ud800'\n")
    assert tree_digest(project.parent) == digest and checker == []


def test_create_where_a_parent_is_a_file_raises(project, checker):
    (project / "plain").write_bytes(b"x\n")
    with pytest.raises(FileExistsError):
        editor.create_file(str(project), str(project / "plain" / "f.py"), "")
    assert (project / "plain").read_bytes() == b"x\n"


@pytest.mark.parametrize("operation", ["create_file", "delete_file"])
def test_confinement_test_is_the_module_current_one(project, checker, monkeypatch, operation):
    asked = []
    monkeypatch.setattr(editor, "_within_root", lambda root, path: asked.append((root, path)) or False)
    (project / "f.txt").write_bytes(b"x\n")
    digest = tree_digest(project.parent)
    args = (str(project), str(project / "f.txt")) + (("y\n",) if operation == "create_file" else ())
    assert getattr(editor, operation)(*args) == {"error": "path escapes the project root"}
    assert asked == [args[:2]] and tree_digest(project.parent) == digest


@pytest.fixture
def tree(project):
    """A project with a nested directory, links inside it, and links leading out of it."""
    (project / "pkg" / "deep").mkdir(parents=True)
    (project / "pkg" / "a.py").write_bytes(b"a\n")
    (project / "pkg" / "deep" / "b.py").write_bytes(b"b\n")
    (project / "pkg" / "deep" / "to_outside").symlink_to(project.parent / "outside", target_is_directory=True)
    (project / "pkg" / "deep" / "secret_link").symlink_to(project.parent / "outside" / "secret.txt")
    (project / "top.txt").write_bytes(b"t\n")
    (project / "file_link").symlink_to(project / "top.txt")
    (project / "dir_link").symlink_to(project / "pkg", target_is_directory=True)
    (project / "out_file").symlink_to(project.parent / "outside" / "secret.txt")
    (project / "out_dir").symlink_to(project.parent / "outside", target_is_directory=True)
    (project / "dangling").symlink_to(project / "gone")
    return project


@pytest.mark.parametrize(
    ("relative", "was", "gone", "kept"),
    [
        ("pkg", "directory", ["pkg", "dir_link/a.py"], ["top.txt", "../outside/secret.txt"]),
        ("pkg/deep", "directory", ["pkg/deep"], ["pkg/a.py", "../outside/secret.txt"]),
        ("top.txt", "file", ["top.txt"], ["pkg/a.py"]),
        ("file_link", "file", ["file_link"], ["top.txt"]),
    ],
)
def test_delete(tree, relative, was, gone, kept):
    path = f"{tree}/{relative}"
    result = editor.delete_file(str(tree), path)
    assert result == {"deleted": path, "was": was} and list(result) == ["deleted", "was"]
    assert not any((tree / name).exists() or (tree / name).is_symlink() for name in gone)
    assert all((tree / name).exists() for name in kept)
    assert (tree.parent / "outside" / "secret.txt").read_bytes() == b"keep\n"


@pytest.mark.parametrize(
    ("relative", "message"),
    [
        ("out_file", "path escapes the project root"),
        ("pkg/deep/secret_link", "path escapes the project root"),
        ("out_dir", "path escapes the project root"),
        ("out_dir/secret.txt", "path escapes the project root"),
        ("../outside", "path escapes the project root"),
        ("never", "{path} does not exist"),
        ("dangling", "{path} does not exist"),
        ("", "{path} is the project root -- delete the files and directories inside it instead"),
        ("pkg/..", "{path} is the project root -- delete the files and directories inside it instead"),
    ],
)
def test_delete_refusals_leave_the_tree_unchanged(tree, relative, message):
    digest = tree_digest(tree.parent)
    path = f"{tree}/{relative}"
    assert editor.delete_file(str(tree), path) == {"error": message.format(path=path)}
    assert tree_digest(tree.parent) == digest


def host_error(operation, path):
    """The host's own exception text for a removal that fails and changes nothing."""
    with pytest.raises(OSError) as caught:
        operation(path)
    return str(caught.value)


def test_link_to_a_directory_is_refused_with_the_hosts_text(tree):
    path = str(tree / "dir_link")
    digest = tree_digest(tree.parent)
    expected = host_error(shutil.rmtree, path)
    assert editor.delete_file(str(tree), path) == {"error": f"could not delete {path}: {expected}"}
    assert tree_digest(tree.parent) == digest


def test_failed_removal_is_refused_with_the_hosts_text(project):
    path = project / "locked.txt"
    path.write_bytes(b"x\n")
    with immutable(path):
        digest = tree_digest(project.parent)
        expected = host_error(os.unlink, str(path))
        assert editor.delete_file(str(project), str(path)) == {"error": f"could not delete {path}: {expected}"}
        assert tree_digest(project.parent) == digest


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda root: editor.create_file(root, root + "/f", 1), "create_file() argument 'content' must be str, not int"),
        (lambda root: editor.create_file(None, root + "/f", ""), "create_file() argument 'root' must be str, not None"),
        (lambda root: editor.delete_file(root, root.encode()), "delete_file() argument 'abs_path' must be str, not bytes"),
    ],
)
def test_wrong_argument_types_raise_type_error(project, checker, call, message):
    digest = tree_digest(project.parent)
    with pytest.raises(TypeError) as caught:
        call(str(project))
    assert str(caught.value) == message and tree_digest(project.parent) == digest
