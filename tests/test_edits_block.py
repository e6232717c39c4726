"""The block edit on real files: addressing, receipts, refusals, identity of the file."""

import os
from pathlib import Path

import pytest

import editor
from helpers import immutable, tree_digest
pytestmark = pytest.mark.leaks

ABC = "a\nb\nc\n"
MODE = "unknown mode '{}' (replace | insert_before | insert_after)"
NOT_FOUND = ("anchor not found in the file's current text -- re-read the region (it may have changed) "
             "or address by line number")


@pytest.mark.parametrize(
    ("before", "args", "kwargs", "after", "replaced", "at"),
    [
        (ABC, (2, None, "X"), {}, "a\nX\nc\n", ["b"], 2),
        (ABC, (1, 3, ""), {}, "", ["a", "b", "c"], 1),
        (ABC, (4, None, "X"), {"mode": "insert_before"}, "a\nb\nc\nX\n", [], 4),
        (ABC, (3, None, "X"), {"mode": "insert_after"}, "a\nb\nc\nX\n", [], 3),
        (ABC, (2, 99, "X"), {"mode": "insert_before"}, "a\nX\nb\nc\n", [], 2),
        (ABC, (1, "unused", "X"), {"mode": "insert_after"}, "a\nX\nb\nc\n", [], 1),
        (ABC, (True, None, "X\r\nY\r"), {}, "X\r\nY\r\nb\nc\n", ["a"], 1),
        (ABC, (99, 1, "B"), {"anchor": "b"}, "a\nB\nc\n", ["b"], 2),
        (ABC, (None, None, "X"), {"anchor": "b", "mode": "insert_after"}, "a\nb\nX\nc\n", [], 2),
        (ABC, (None, None, "X"), {"anchor": "b", "mode": "insert_before"}, "a\nX\nb\nc\n", [], 2),
        (ABC, (None, None, "X"), {"anchor": "a\nb"}, "X\nc\n", ["a", "b"], 1),
        # A final "\n" closes the anchor's last line: it addresses the lines its text covers.
        (ABC, (None, None, "X"), {"anchor": "c\n"}, "a\nb\nX\n", ["c"], 3),
        (ABC, (None, None, "X"), {"anchor": "b\n", "mode": "insert_after"}, "a\nb\nX\nc\n", [], 2),
        ("a\r\nb\r\nc", (2, None, "X"), {}, "a\nX\nc", ["b"], 2),
        ("a\u2028b\x0cc\x85d\x1ce\n", (3, None, "X"), {}, "a\u2028b\x0cX\nd\x1ce\n", ["c\x85"], 3),
        # A last line without a line break gets one before a block goes below it.
        ("a\nb", (2, None, "X"), {"mode": "insert_after"}, "a\nb\nX\n", [], 2),
        ("a\nb", (3, None, ""), {"mode": "insert_before"}, "a\nb", [], 3),
        ("", (1, None, "X"), {"mode": "insert_before"}, "X\n", [], 1),
    ],
)
def test_edit_and_receipt(project, checker, before, args, kwargs, after, replaced, at):
    path = project / "f.txt"
    path.write_bytes(before.encode())
    receipt = editor.apply_block(str(project), str(path), *args, **kwargs)
    assert receipt == {"replaced": replaced, "at": at, "syntax": "ok"}
    assert list(receipt) == ["replaced", "at", "syntax"] and type(receipt["at"]) is int
    assert path.read_bytes() == after.encode()
    assert checker == [((str(path),), {"before_text": before.replace("\r\n", "\n")})]


@pytest.mark.parametrize(
    ("before", "args", "kwargs", "message"),
    [
        (ABC, (1, None, "X"), {"mode": "Replace"}, MODE.format("Replace")),
        # A mode that is not a str is an unknown mode too, shown as str() shows it.
        (ABC, (1, None, "X"), {"mode": None}, MODE.format("None")),
        (ABC, (1, None, "X"), {"mode": 3}, MODE.format("3")),
        (ABC, (1, None, "X"), {"mode": b"replace"}, MODE.format("b'replace'")),
        ("", (True, None, "X"), {}, "start_line True is out of range (file has 0 lines)"),
        (ABC, (2, False, "X"), {}, "end_line False is out of range (start 2, file has 3 lines)"),
        (ABC, (1, None, "X"), {"anchor": "\ud800"}, NOT_FOUND),
        ("a\r\nb\r\n", (1, None, "X"), {"anchor": "b\r\n"}, NOT_FOUND),
        ("a\nb\nb\n", (1, None, "X"), {"anchor": "b"},
         "anchor occurs 2 times -- include more surrounding text so it matches exactly once"),
        (ABC, (None, None, "X"), {"anchor": ""}, "give either start_line or anchor"),
        (ABC, (-10**30, None, "X"), {}, f"start_line {-10**30} is out of range (file has 3 lines)"),
        ("", (1, None, "X"), {}, "start_line 1 is out of range (file has 0 lines)"),
        (ABC, (1, 10**30, "X"), {}, f"end_line {10**30} is out of range (start 1, file has 3 lines)"),
        # The first failing check wins.
        (ABC, (9, None, "X"), {"anchor": "zzz", "mode": "nope"}, MODE.format("nope")),
        (ABC, (9, None, "X"), {"anchor": "zzz"}, NOT_FOUND),
        (ABC, (9, 0, "X"), {}, "start_line 9 is out of range (file has 3 lines)"),
    ],
)
def test_refusals_leave_the_tree_unchanged(project, checker, before, args, kwargs, message):
    # Line ranges and anchor counts on random files are the property test's; these are the rest.
    path = project / "f.txt"
    path.write_bytes(before.encode())
    digest = tree_digest(project.parent)
    assert editor.apply_block(str(project), str(path), *args, **kwargs) == {"error": message}
    assert tree_digest(project.parent) == digest and checker == []


def test_confinement_and_existence_come_first(project, checker):
    outside = project.parent / "outside" / "secret.txt"
    (project / "link.txt").symlink_to(outside)
    (project / "sub").mkdir()
    digest = tree_digest(project.parent)
    escape = {"error": "path escapes the project root"}
    calls = [(outside, "replace", escape), (project / "link.txt", "replace", escape),
             (project.parent / "nowhere", "bad", escape),
             (project / "gone", "bad", {"error": f"{project / 'gone'} does not exist (create_file makes new files)"}),
             (project / "sub", "bad", {"error": MODE.format("bad")})]
    for target, mode, refusal in calls:
        assert editor.apply_block(str(project), str(target), 1, None, "X", mode) == refusal
    assert tree_digest(project.parent) == digest and checker == []


@pytest.mark.parametrize(
    ("before", "content", "error"),
    [
        (None, "X", IsADirectoryError),  # the target is a directory
        (b"a\n\xff\xfe\n", "X", UnicodeDecodeError),
        (ABC.encode(), "ok\n\udcff\n", UnicodeEncodeError),  # raised before the file is opened
    ],
)
def test_host_exceptions_propagate_and_write_nothing(project, checker, before, content, error):
    target = project / "target"
    if before is None:
        target.mkdir()
    else:
        target.write_bytes(before)
    digest = tree_digest(project.parent)
    with pytest.raises(error):
        editor.apply_block(str(project), str(target), 2, None, content)
    assert tree_digest(project.parent) == digest and checker == []


def test_unwritable_file_raises_the_hosts_permission_error(project, checker):
    path = project / "f.txt"
    path.write_bytes(ABC.encode())
    with immutable(path):
        digest = tree_digest(project.parent)
        with pytest.raises(PermissionError) as caught:
            editor.apply_block(str(project), str(path), 2, None, "X")
        assert tree_digest(project.parent) == digest
    assert caught.value.filename == str(path) and checker == []


@pytest.mark.parametrize(
    ("wrong", "message"),
    [
        ({"abs_path": Path("/")}, "apply_block() argument 'abs_path' must be str, not PosixPath"),
        ({"content": None}, "apply_block() argument 'content' must be str, not None"),
        ({"anchor": b"b"}, "apply_block() argument 'anchor' must be str or None, not bytes"),
        ({"start_line": 2.0}, "'float' object cannot be interpreted as an integer"),
        ({"end_line": "2"}, "'str' object cannot be interpreted as an integer"),
    ],
)
def test_wrong_argument_types_raise_type_error(project, checker, wrong, message):
    path = project / "f.txt"
    path.write_bytes(ABC.encode())
    digest = tree_digest(project.parent)
    call = {"root": str(project), "abs_path": str(path), "start_line": 1, "end_line": None, "content": "X"}
    with pytest.raises(TypeError) as caught:
        editor.apply_block(**(call | wrong))
    assert str(caught.value) == message
    assert tree_digest(project.parent) == digest and checker == []


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


@pytest.mark.parametrize("answer", [None, "SyntaxError: '(' was never closed (line 2)"])
@pytest.mark.parametrize("operation", ["apply_block", "create_file"])
def test_syntax_result_is_passed_on_unchanged(project, monkeypatch, answer, operation):
    monkeypatch.setattr(editor, "syntax_check", lambda path, before_text=None: answer, raising=False)
    path = project / "f.txt"
    if operation == "create_file":
        assert editor.create_file(str(project), str(path), "(") == {"created": str(path), "syntax": answer}
    else:
        path.write_bytes(ABC.encode())
        assert editor.apply_block(str(project), str(path), 2, None, "(") == {"replaced": ["b"], "at": 2,
                                                                            "syntax": answer}
        assert path.read_bytes() == b"a\n(\nc\n"
