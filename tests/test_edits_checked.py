"""Receipts carrying the module's real syntax check."""

import pytest

import editor
from edits_helpers import project  # noqa: F401  (fixture)


def compiler_verdict(text, path):
    try:
        compile(text, str(path), "exec")
    except SyntaxError as error:
        return f"SyntaxError: {error.msg} (line {error.lineno})"
    return "ok"


@pytest.mark.parametrize(
    ("content", "broken"),
    [("    return (\n", True), ("    return 2\n", False)],
)
def test_block_edit_reports_the_compilers_verdict(project, content, broken):
    path = project / "mod.py"
    path.write_bytes(b"def f():\n    return 1\n")
    receipt = editor.apply_block(str(project), str(path), 2, None, content)
    after = "def f():\n" + content
    assert path.read_text() == after  # a breakage is reported, and the file stays written
    assert receipt == {"replaced": ["    return 1"], "at": 2, "syntax": compiler_verdict(after, path)}
    assert (receipt["syntax"] != "ok") == broken


@pytest.mark.parametrize(
    ("name", "content"),
    [("new.py", "x = (\n"), ("new.py", "x = 1\n"), ("data.xyz", "anything (")],
)
def test_created_file_is_checked_without_a_baseline(project, name, content):
    path = project / "sub" / name
    result = editor.create_file(str(project), str(path), content)
    expected = compiler_verdict(content, path) if name.endswith(".py") else None
    assert result == {"created": str(path), "syntax": expected}
    assert path.read_text() == content
