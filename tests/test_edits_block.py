"""The block edit on real files: addressing, receipts, refusals, line semantics, identity."""

import os
from pathlib import Path

import pytest

import editor
from edits_helpers import checker, immutable, project, tree_digest  # noqa: F401  (fixtures)

ABC = "a\nb\nc\n"
NOT_FOUND = ("anchor not found in the file's current text -- re-read the region (it may have changed) "
             "or address by line number")


def edit(project, text, *args, name="f.txt", **kwargs):
    """Writes `text` (bytes as given) to a file of the project and applies one block edit to it."""
    path = project / name
    path.write_bytes(text.encode("utf-8") if isinstance(text, str) else text)
    return path, editor.apply_block(str(project), str(path), *args, **kwargs)


@pytest.mark.parametrize(
    ("args", "kwargs", "after", "replaced", "at"),
    [
        ((2, None, "X"), {}, "a\nX\nc\n", ["b"], 2),
        ((1, 3, ""), {}, "", ["a", "b", "c"], 1),
        ((1, 2, "X\nY\nZ\n"), {}, "X\nY\nZ\nc\n", ["a", "b"], 1),
        ((2, None, "X\nY"), {}, "a\nX\nY\nc\n", ["b"], 2),
        ((4, None, "X"), {"mode": "insert_before"}, "a\nb\nc\nX\n", [], 4),
        ((3, None, "X"), {"mode": "insert_after"}, "a\nb\nc\nX\n", [], 3),
        ((2, 99, "X"), {"mode": "insert_before"}, "a\nX\nb\nc\n", [], 2),
        ((1, "ignored", "X"), {"mode": "insert_after"}, "a\nX\nb\nc\n", [], 1),
        ((True, None, "X"), {}, "X\nb\nc\n", ["a"], 1),
        # The block's own line ends are written as given; only its last line gets a "\n".
        ((2, None, "X\r\nY\r"), {}, "a\nX\r\nY\r\nc\n", ["b"], 2),
        ((2, None, "X\u2028"), {}, "a\nX\u2028\nc\n", ["b"], 2),
        # An anchor overrides the line numbers given with it.
        ((99, 1, "B"), {"anchor": "b"}, "a\nB\nc\n", ["b"], 2),
        ((None, None, "X"), {"anchor": "b", "mode": "insert_after"}, "a\nb\nX\nc\n", [], 2),
        ((None, None, "X"), {"anchor": "b", "mode": "insert_before"}, "a\nX\nb\nc\n", [], 2),
        ((None, None, "X"), {"anchor": "a\nb"}, "X\nc\n", ["a", "b"], 1),
        ((None, None, "X"), {"anchor": "\nb\nc"}, "X\n", ["a", "b", "c"], 1),
        # A final "\n" closes the anchor's last line: it addresses the lines its text covers.
        ((None, None, "X"), {"anchor": "b\n"}, "a\nX\nc\n", ["b"], 2),
        ((None, None, "X"), {"anchor": "c\n"}, "a\nb\nX\n", ["c"], 3),
        ((None, None, "X"), {"anchor": "b\n", "mode": "insert_after"}, "a\nb\nX\nc\n", [], 2),
        ((None, None, "X"), {"anchor": "b\nc\n", "mode": "insert_after"}, "a\nb\nc\nX\n", [], 3),
    ],
)
def test_edits_of_a_three_line_file(project, checker, args, kwargs, after, replaced, at):
    path, receipt = edit(project, ABC, *args, **kwargs)
    assert receipt == {"replaced": replaced, "at": at, "syntax": "ok"}
    assert list(receipt) == ["replaced", "at", "syntax"] and type(receipt["at"]) is int
    assert path.read_bytes() == after.encode()
    assert checker == [((str(path),), {"before_text": ABC})]


@pytest.mark.parametrize(
    ("before", "args", "kwargs", "after", "replaced"),
    [
        # Every line end kept from the file comes back as "\n".
        ("a\r\nb\r\nc\r\n", (2, None, "X"), {}, "a\nX\nc\n", ["b"]),
        ("a\r\nb\r\nc", (1, 2, "X\r\n"), {}, "X\r\nc", ["a", "b"]),
        ("a\rb\rc\r", (3, None, "X"), {"mode": "insert_after"}, "a\nb\nc\nX\n", []),
        # The host's line split: these characters end lines too, and stay in the echo.
        ("a\u2028b\x0cc\x85d\x1ce\n", (3, None, "X"), {}, "a\u2028b\x0cX\nd\x1ce\n", ["c\x85"]),
        ("a\x0b\x1d\x1eb\u2029", (2, 3, ""), {}, "a\x0bb\u2029", ["\x1d", "\x1e"]),
        ("é\u2028ü\n", (2, None, "ß"), {}, "é\u2028ß\n", ["ü"]),
        # A last line without a line break: a block after it starts on a line of its own.
        ("a\nb", (2, None, "X"), {}, "a\nX\n", ["b"]),
        ("a\nb", (2, None, ""), {}, "a\n", ["b"]),
        ("a\nb", (2, None, "X"), {"mode": "insert_after"}, "a\nb\nX\n", []),
        ("a\nb", (3, None, "X\nY"), {"mode": "insert_before"}, "a\nb\nX\nY\n", []),
        ("a\nb", (2, None, "X"), {"mode": "insert_before"}, "a\nX\nb", []),
        ("a\nb", (2, None, ""), {"mode": "insert_after"}, "a\nb", []),
        ("a\u2028", (1, None, "X"), {"mode": "insert_after"}, "a\u2028X\n", []),
        ("a\nb", (None, None, "X"), {"anchor": "b", "mode": "insert_after"}, "a\nb\nX\n", []),
        # Anchors are counted without overlaps, as str.count counts.
        ("aaa\nb\n", (None, None, "X"), {"anchor": "aa"}, "X\nb\n", ["aaa"]),
        ("x€😀\ny😀\n", (None, None, "Z"), {"anchor": "😀\ny"}, "Z\n", ["x€😀", "y😀"]),
        ("", (1, None, "X"), {"mode": "insert_before"}, "X\n", []),
        ("", (1, None, ""), {"mode": "insert_before"}, "", []),
    ],
)
def test_line_ends_and_separators(project, checker, before, args, kwargs, after, replaced):
    path, receipt = edit(project, before, *args, **kwargs)
    assert receipt["replaced"] == replaced
    assert path.read_bytes() == after.encode()
    [(_, keywords)] = checker
    assert keywords["before_text"] == before.replace("\r\n", "\n").replace("\r", "\n")


@pytest.mark.parametrize(
    ("before", "args", "kwargs", "message"),
    [
        (ABC, (1, None, "X"), {"mode": "Replace"}, "unknown mode 'Replace' (replace | insert_before | insert_after)"),
        (ABC, (1, None, "X"), {"mode": ""}, "unknown mode '' (replace | insert_before | insert_after)"),
        (ABC, (1, None, "X"), {"anchor": "zzz"}, NOT_FOUND),
        (ABC, (1, None, "X"), {"anchor": "\ud800"}, NOT_FOUND),
        ("a\r\nb\r\nc\r\n", (1, None, "X"), {"anchor": "b\r\n"}, NOT_FOUND),
        ("a\nb\nb\n", (1, None, "X"), {"anchor": "b"},
         "anchor occurs 2 times -- include more surrounding text so it matches exactly once"),
        (ABC * 4, (None, None, "X"), {"anchor": "\n"},
         "anchor occurs 12 times -- include more surrounding text so it matches exactly once"),
        (ABC, (None, None, "X"), {"anchor": ""}, "give either start_line or anchor"),
        (ABC, (None, 2, "X"), {}, "give either start_line or anchor"),
        (ABC, (0, None, "X"), {}, "start_line 0 is out of range (file has 3 lines)"),
        (ABC, (-5, None, "X"), {}, "start_line -5 is out of range (file has 3 lines)"),
        (ABC, (False, None, "X"), {}, "start_line 0 is out of range (file has 3 lines)"),
        (ABC, (4, None, "X"), {}, "start_line 4 is out of range (file has 3 lines)"),
        (ABC, (4, None, "X"), {"mode": "insert_after"}, "start_line 4 is out of range (file has 3 lines)"),
        (ABC, (5, None, "X"), {"mode": "insert_before"}, "start_line 5 is out of range (file has 3 lines)"),
        (ABC, (10**30, None, "X"), {}, f"start_line {10**30} is out of range (file has 3 lines)"),
        (ABC, (-10**30, None, "X"), {"mode": "insert_before"},
         f"start_line {-10**30} is out of range (file has 3 lines)"),
        ("a\nb", (3, None, "X"), {}, "start_line 3 is out of range (file has 2 lines)"),
        ("", (1, None, "X"), {}, "start_line 1 is out of range (file has 0 lines)"),
        ("", (1, None, "X"), {"mode": "insert_after"}, "start_line 1 is out of range (file has 0 lines)"),
        ("a\u2028b\n", (3, None, "X"), {}, "start_line 3 is out of range (file has 2 lines)"),
        (ABC, (2, 1, "X"), {}, "end_line 1 is out of range (start 2, file has 3 lines)"),
        (ABC, (2, 4, "X"), {}, "end_line 4 is out of range (start 2, file has 3 lines)"),
        (ABC, (1, 10**30, "X"), {}, f"end_line {10**30} is out of range (start 1, file has 3 lines)"),
        # The first failing check wins.
        (ABC, (9, None, "X"), {"anchor": "zzz", "mode": "nope"},
         "unknown mode 'nope' (replace | insert_before | insert_after)"),
        (ABC, (9, None, "X"), {"anchor": "zzz"}, NOT_FOUND),
        (ABC, (9, 0, "X"), {}, "start_line 9 is out of range (file has 3 lines)"),
    ],
)
def test_refusals_leave_the_tree_unchanged(project, checker, before, args, kwargs, message):
    path = project / "f.txt"
    path.write_bytes(before.encode())
    digest = tree_digest(project.parent)
    receipt = editor.apply_block(str(project), str(path), *args, **kwargs)
    assert receipt == {"error": message}
    assert tree_digest(project.parent) == digest
    assert checker == []


def test_confinement_and_existence_come_first(project, checker):
    outside = project.parent / "outside" / "secret.txt"
    (project / "link.txt").symlink_to(outside)
    (project / "sub").mkdir()
    digest = tree_digest(project.parent)
    refusals = [
        editor.apply_block(str(project), str(outside), 1, None, "X"),
        editor.apply_block(str(project), str(project / "link.txt"), 1, None, "X"),
        editor.apply_block(str(project), str(project.parent / "nowhere"), 1, None, "X", mode="bad"),
        editor.apply_block(str(project), str(project / "missing.txt"), 1, None, "X", mode="bad"),
        editor.apply_block(str(project), str(project / "sub"), 1, None, "X", mode="bad"),
    ]
    assert refusals == [
        {"error": "path escapes the project root"},
        {"error": "path escapes the project root"},
        {"error": "path escapes the project root"},
        {"error": f"{project / 'missing.txt'} does not exist (create_file makes new files)"},
        {"error": "unknown mode 'bad' (replace | insert_before | insert_after)"},
    ]
    assert tree_digest(project.parent) == digest and checker == []


def test_refusal_dicts_are_fresh(project, checker):
    first = editor.apply_block(str(project), str(project / "x"), 1, None, "X")
    first["error"] = "changed"
    assert editor.apply_block(str(project), str(project / "x"), 1, None, "X")["error"].endswith(
        "does not exist (create_file makes new files)")


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
        (target / "inner.txt").write_bytes(b"x\n")
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
        ({"root": b"/"}, "apply_block() argument 'root' must be str, not bytes"),
        ({"abs_path": Path("/")}, "apply_block() argument 'abs_path' must be str, not PosixPath"),
        ({"content": None}, "apply_block() argument 'content' must be str, not None"),
        ({"mode": 1}, "apply_block() argument 'mode' must be str, not int"),
        ({"anchor": b"b"}, "apply_block() argument 'anchor' must be str or None, not bytes"),
        ({"start_line": 2.0}, "'float' object cannot be interpreted as an integer"),
        ({"start_line": "2"}, "'str' object cannot be interpreted as an integer"),
        ({"end_line": 2.5}, "'float' object cannot be interpreted as an integer"),
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
    twin = project / "twin.txt"
    os.link(path, twin)
    alias = project / "alias.txt"
    alias.symlink_to(path)
    before = path.stat()
    receipt = editor.apply_block(str(project), str(alias), 1, 3, "new\n")
    assert receipt["replaced"] == ["a", "b", "c"]
    after = path.stat()
    assert (after.st_ino, after.st_mode, after.st_nlink) == (before.st_ino, before.st_mode, 2)
    assert twin.read_bytes() == b"new\n" and alias.is_symlink()


@pytest.mark.parametrize("answer", ["ok", None, "SyntaxError: '(' was never closed (line 2)"])
def test_syntax_result_is_the_module_checks_own(project, monkeypatch, answer):
    seen = []
    monkeypatch.setattr(editor, "syntax_check", lambda *a, **k: seen.append((a, k)) or answer, raising=False)
    path, receipt = edit(project, ABC, 2, None, "(")
    assert receipt == {"replaced": ["b"], "at": 2, "syntax": answer}
    assert path.read_bytes() == b"a\n(\nc\n"
    assert seen == [((str(path),), {"before_text": ABC})]


def test_confinement_test_is_the_module_current_one(project, checker, monkeypatch):
    asked = []
    monkeypatch.setattr(editor, "_within_root", lambda root, path: asked.append((root, path)) or False)
    path = project / "f.txt"
    path.write_bytes(ABC.encode())
    assert editor.apply_block(str(project), str(path), 1, None, "X") == {"error": "path escapes the project root"}
    assert asked == [(str(project), str(path))] and path.read_bytes() == ABC.encode()


def test_every_parameter_by_name(project, checker):
    path = project / "f.txt"
    path.write_bytes(ABC.encode())
    receipt = editor.apply_block(anchor="c", mode="insert_before", content="X", end_line=None, start_line=None,
                                 abs_path=str(path), root=str(project))
    assert receipt["at"] == 3 and path.read_bytes() == b"a\nb\nX\nc\n"
