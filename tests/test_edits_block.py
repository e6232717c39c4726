"""The block edit, file creation and deletion on real trees: receipts, refusals, links, identity of the file."""

import os

import pytest

import editor
from helpers import tree_digest
pytestmark = pytest.mark.leaks

ABC = "a\nb\nc\n"
MODE = "unknown mode '{}' (replace | insert_before | insert_after)"
NOT_FOUND = ("anchor not found in the file's current text -- re-read the region (it may have changed) "
             "or address by line number")
ESCAPE = "path escapes the project root"
EXISTS = "{path} already exists -- use edit_lines to change it"
ROOT = "{path} is the project root -- delete the files and directories inside it instead"


def outcome(call, *args):  # the call's result, or the class of what it raised
    try:
        return call(*args)
    except Exception as error:
        return type(error)


@pytest.mark.parametrize(
    ("before", "args", "kwargs", "after", "replaced", "at"),
    [
        (ABC, (1, "unused", "X"), {"mode": "insert_after"}, "a\nX\nb\nc\n", [], 1),
        (ABC, (True, None, "X\r\nY\r"), {}, "X\r\nY\r\nb\nc\n", ["a"], 1),
        # A final "\n" closes the anchor's last line: it addresses the lines its text covers.
        (ABC, (None, None, "X"), {"anchor": "c\n"}, "a\nb\nX\n", ["c"], 3),
        ("a\r\nb\r\nc", (2, None, "X"), {}, "a\nX\nc", ["b"], 2),
        # A NEL that ends the text ends its line.
        ("a\x85", (1, None, "X"), {"mode": "insert_after"}, "a\x85X\n", [], 1),
    ],
)
def test_edit_and_receipt(project, checker, before, args, kwargs, after, replaced, at):
    path = project / "f.txt"
    path.write_bytes(before.encode())
    receipt = editor.apply_block(str(project), str(path), *args, **kwargs)
    assert list(receipt.items()) == [("replaced", replaced), ("at", at), ("syntax", "ok")] and type(at) is int
    assert path.read_bytes() == after.encode()
    assert checker == [((str(path),), {"before_text": before.replace("\r\n", "\n")})]


@pytest.mark.parametrize(
    ("before", "args", "kwargs", "message"),
    [
        # A mode that is not a str is an unknown mode too, shown as str() shows it.
        (ABC, (1, None, "X"), {"mode": "Replace"}, MODE.format("Replace")),
        (ABC, (1, None, "X"), {"mode": b"replace"}, MODE.format("b'replace'")),
        ("", (True, None, "X"), {}, "start_line True is out of range (file has 0 lines)"),
        (ABC, (2, False, "X"), {}, "end_line False is out of range (start 2, file has 3 lines)"),
        (ABC, (-10**30, None, "X"), {}, f"start_line {-10**30} is out of range (file has 3 lines)"),
        (ABC, (1, 10**30, "X"), {}, f"end_line {10**30} is out of range (start 1, file has 3 lines)"),
        (ABC, (1, None, "X"), {"anchor": "\ud800"}, NOT_FOUND),
        ("a\r\nb\r\n", (1, None, "X"), {"anchor": "b\r\n"}, NOT_FOUND),
        ("a\nb\nb\n", (1, None, "X"), {"anchor": "b"},
         "anchor occurs 2 times -- include more surrounding text so it matches exactly once"),
        (ABC, (None, None, "X"), {"anchor": ""}, "give either start_line or anchor"),
        # The first failing check wins.
        (ABC, (9, None, "X"), {"anchor": "zzz", "mode": "nope"}, MODE.format("nope")),
        (ABC, (9, None, "X"), {"anchor": "zzz"}, NOT_FOUND),
        (ABC, (9, 0, "X"), {}, "start_line 9 is out of range (file has 3 lines)"),
        # The host's exceptions propagate; the text to write is encoded before the file is opened.
        ("a\n\udcff\udcfe\n", (2, None, "X"), {}, UnicodeDecodeError),
        (ABC, (2, None, "ok\n\udcff\n"), {}, UnicodeEncodeError),
        (ABC, (2.0, None, "X"), {}, TypeError), (ABC, (1, "2", "X"), {}, TypeError),
    ],
)
def test_edit_refusals_leave_the_tree_unchanged(project, checker, before, args, kwargs, message):
    path = project / "f.txt"
    path.write_bytes(before.encode(errors="surrogateescape"))
    digest = tree_digest(project.parent)
    expected = message if isinstance(message, type) else {"error": message}
    assert outcome(lambda: editor.apply_block(str(project), str(path), *args, **kwargs)) == expected
    assert tree_digest(project.parent) == digest and checker == []


@pytest.fixture
def tree(project):
    # A nested directory, links inside the root, and links leading out of it.
    (project / "pkg" / "deep").mkdir(parents=True)
    (project / "pkg" / "deep" / "b.py").write_bytes(b"b\n")
    (project / "top.txt").write_bytes(b"")
    for name, target in [("file_link", "top.txt"), ("dir_link", "pkg"), ("dangling", "gone"), ("out_dir", "../outside"),
                         ("out_file", "../outside/secret.txt"), ("dangling_out", "../outside/made"),
                         ("pkg/deep/to_outside", "../outside")]:
        (project / name).symlink_to(project / target)
    return project


@pytest.mark.parametrize(
    ("operation", "relative", "message"),
    [
        ("apply_block", "../outside/secret.txt", ESCAPE),
        ("apply_block", "out_file", ESCAPE),
        ("apply_block:bad", "../nowhere", ESCAPE),  # confinement before the mode
        ("apply_block:bad", "gone", "{path} does not exist (create_file makes new files)"),
        ("apply_block:bad", "pkg", MODE.format("bad")),  # the mode before reading the directory
        ("apply_block", "pkg", IsADirectoryError),
        ("create_file:x = '\ud800'\n", "new/f.py", UnicodeEncodeError),  # before any directory is made
        ("create_file", "top.txt", EXISTS), ("create_file", "pkg", EXISTS), ("create_file", "file_link", EXISTS),
        ("create_file", "out_dir/new.txt", ESCAPE), ("create_file", "dangling_out", ESCAPE),
        ("delete_file", "out_file", ESCAPE), ("delete_file", "../outside", ESCAPE),
        ("delete_file", "never", "{path} does not exist"), ("delete_file", "dangling", "{path} does not exist"),
        ("delete_file", "", ROOT), ("delete_file", "pkg/..", ROOT),
    ],
)
def test_refusals_leave_the_tree_unchanged(tree, checker, operation, relative, message):
    digest, path = tree_digest(tree.parent), f"{tree}/{relative}"
    operation, _, given = operation.partition(":")  # apply_block's mode, create_file's content
    args = {"apply_block": (1, None, "X", given or "replace"), "create_file": (given or "new\n",), "delete_file": ()}
    expected = message if isinstance(message, type) else {"error": message.format(path=path)}
    assert outcome(getattr(editor, operation), str(tree), path, *args[operation]) == expected
    assert tree_digest(tree.parent) == digest and checker == []


def test_write_keeps_identity_mode_and_links(project, checker):
    path = project / "f.txt"
    path.write_bytes(ABC.encode())
    path.chmod(0o640)
    os.link(path, project / "twin.txt")
    (project / "alias.txt").symlink_to(path)
    before = path.stat()
    assert editor.apply_block(str(project), str(project / "alias.txt"), 1, 3, "new\n")["replaced"] == ["a", "b", "c"]
    after = path.stat()
    assert (after.st_ino, after.st_mode, after.st_nlink) == (before.st_ino, before.st_mode, 2)
    assert (project / "twin.txt").read_bytes() == b"new\n" and (project / "alias.txt").is_symlink()


@pytest.mark.parametrize(("relative", "content"), [("pkg/sub/new.py", "x = 1\r\ny = 2"), ("empty.txt", "")])
def test_create_writes_exactly_what_it_is_given(project, checker, relative, content):
    path = project / relative
    result = editor.create_file(str(project), str(path), content)
    assert list(result.items()) == [("created", str(path)), ("syntax", "ok")]
    assert path.read_bytes() == content.encode() and checker == [((str(path),), {})]


# A link to a file goes, and only the link; a directory's removal is test_confinement.py's.
@pytest.mark.parametrize(("relative", "kept"), [("top.txt", "pkg"), ("file_link", "top.txt")])
def test_delete_a_file(tree, relative, kept):
    path = f"{tree}/{relative}"
    assert list(editor.delete_file(str(tree), path).items()) == [("deleted", path), ("was", "file")]
    assert not os.path.lexists(path) and (tree / kept).exists()
