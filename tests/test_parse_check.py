"""The syntax check after a write: the host's compiler for Python, tree-sitter elsewhere, deltas
against the text before the edit, and the web code held in Python strings."""

import threading

import pytest

import editor

MISSING, UNEXPECTED = "missing bracket/token", "unexpected syntax"


@pytest.fixture
def write(tmp_path):
    def write(name, text):
        path = tmp_path / name
        path.write_bytes(text.encode() if isinstance(text, str) else text)
        return str(path)

    return write


def compiler_says(text):
    try:
        compile(text, "<x>", "exec")
    except SyntaxError as error:
        return f"SyntaxError: {error.msg} (line {error.lineno})"


@pytest.mark.parametrize(
    "text",
    ["x = (1,\ny = 2\n", "def f():\nreturn 1\n", "if x:\n    a = 1\n  b = 2\n", "x = 1\0\n", "x = 'abc\n"],
)
def test_python_is_judged_by_the_host_compiler(write, text):
    message = compiler_says(text)
    assert message.startswith("SyntaxError: ")
    assert editor.syntax_check(write("m.py", text)) == message
    # The embedded check does not run on a file that does not compile.
    assert editor.syntax_check(write("m.py", text), before_text="") == message


@pytest.mark.parametrize(
    ("name", "text", "expected"),
    [
        ("A.PY", "x = (\n", "SyntaxError: '(' was never closed (line 1)"),
        ("clean.py", 'STYLE = "a { color: red; }}"\n', "ok"),
        ("new.c", "int main(void) {\n  return 0;\n", f"c {MISSING} (line 2)"),
        ("new.JS", "let a = @;\n", f"javascript {UNEXPECTED} (line 1)"),
        ("page.htm", "<p>hi</p>\n", "ok"),
        ("Makefile", "all:\n", None),
        ("data.xyz", "{{{", None),
        (".env", "A=1", None),
    ],
)
def test_check_chosen_by_lower_cased_extension(write, name, text, expected):
    assert editor.syntax_check(write(name, text)) == expected


def test_unreadable_and_undecodable_files(write, tmp_path):
    assert editor.syntax_check(str(tmp_path)) is None
    assert editor.syntax_check(str(tmp_path / "gone.py"), before_text="x = 1\n") is None
    with pytest.raises(UnicodeDecodeError):
        editor.syntax_check(write("latin.py", b"x = '\xe9'\n"))


def test_other_compile_failures_propagate(write, monkeypatch):
    def compile(*args):
        raise ValueError("compiler broke")

    # The module's own globals come before the builtins, as for code written in the module.
    monkeypatch.setattr(editor, "compile", compile, raising=False)
    with pytest.raises(ValueError, match="compiler broke"):
        editor.syntax_check(write("m.py", "x = 1\n"))


C_BEFORE = "void f() { EXPAND(a b c) }\nint g(void) {\n  return 1;\n}\n"


@pytest.mark.parametrize(
    ("before", "after", "expected"),
    [
        # An error that was already there cancels; the edit elsewhere passes.
        (C_BEFORE, C_BEFORE.replace("return 1", "return 2"), "ok"),
        # One more of the same kind is reported at that kind's first line in the new text.
        ("int a = 1;\nint b = 2 3;\nint c = 3;\n", "int a = 1 1;\nint b = 2 3;\nint c = 3;\n",
         f"c {UNEXPECTED} (line 1)"),
        # One removed and one added elsewhere: the count is unchanged.
        ("int a = 1;\nint b = 2 3;\n", "int a = 1 1;\nint b = 2;\n", "ok"),
        # Two kinds added: the one that shows first in the new text.
        ("int a = 1;\nint b = 2;\nint c = 3;\n", "int a = 1;\nint b = (2;\nint c = 3 3;\n",
         f"c {MISSING} (line 2)"),
        ("int a = 1;\nint b = 2;\nint c = 3;\n", "int a = 1;\nint b = 2 2;\nint c = (3;\n",
         f"c {UNEXPECTED} (line 2)"),
        # A baseline that cannot be judged counts as clean, so the first error is the edit's.
        ("int a\ud800;\n", "int a = 1;\nint b = (2;\n", f"c {MISSING} (line 2)"),
        ("int a = 1;\n", "int a = 1;\n", "ok"),
    ],
)
def test_native_delta(write, before, after, expected):
    assert editor.syntax_check(write("m.c", after), before_text=before) == expected


PROMPT = '''\
def ask(model):
    """Reply in exactly this shape: {name: string; tags: list of {id: int; label: string};
    and never wrap it in {braces: like; these}}.
    """
    return model.run("""Return {answer: text; score: number between {0; 1}}""")
'''

STYLES = '''\
import os

LEGACY = ".card { color: red; }}"
BANNER = "h1 { color: red; }"
STYLE = """
body {
  margin: 0;
}
"""
SCRIPT = "function go() { document.title = 'x'; if (a) { b(); } }"
'''


@pytest.mark.parametrize(
    ("before", "after", "expected"),
    [
        # Mislabelled prompts are broken before and after: they cancel.
        (PROMPT, PROMPT.replace("ask(model)", "ask(model, retries=2)"), "ok"),
        # One more broken CSS region: reported at the first such region, an older one above.
        (STYLES, STYLES.replace("  margin: 0;\n}", "  margin: 0;\n}}"), f"embedded css {UNEXPECTED} (line 3)"),
        (STYLES, STYLES.replace("if (a) {", "if (a {"), f"embedded javascript {MISSING} (line 10)"),
        (STYLES.replace("b();", "b(;"), STYLES.replace("b();", "b(;") + "X = 1\n", "ok"),
        (STYLES, STYLES.replace("h1 { color: red; }", "h1 { color: red;"), f"embedded css {MISSING} (line 4)"),
    ],
)
def test_embedded_delta(write, before, after, expected):
    path = write("m.py", after)
    assert editor.syntax_check(path, before_text=before) == expected
    assert editor.syntax_check(path) == "ok"


def test_runs_on_the_deep_stack_and_reaches_operations_through_the_module(write, monkeypatch):
    seen = []

    def native_language(ext):
        # A check made from inside a check runs in place on the deep stack.
        seen.append((ext, threading.current_thread().name, editor.syntax_check(python)))
        return "c"

    python = write("m.py", "x = (\n")
    monkeypatch.setattr(editor, "_native_language", native_language)
    assert editor.syntax_check(write("m.weird", "int x = ;"), before_text=None) == f"c {MISSING} (line 1)"
    assert seen == [(".weird", "deeprun", "SyntaxError: '(' was never closed (line 1)")]
    assert editor.syntax_check.__wrapped__.__name__ == "syntax_check"
