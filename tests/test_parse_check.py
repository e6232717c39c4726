# The syntax check after a write: the host's compiler for Python, tree-sitter elsewhere, deltas
# against the text before the edit, and the web code held in Python strings.

import pytest

import editor
import helpers
pytestmark = pytest.mark.leaks

MISSING, UNEXPECTED = "missing bracket/token", "unexpected syntax"


@pytest.fixture
def write(tmp_path):
    return lambda name, text: str(helpers.write(tmp_path / name, text))


@pytest.mark.parametrize(("name", "text", "expected"), [
        ("A.PY", "x = (\n", "SyntaxError: '(' was never closed (line 1)"), ("page.htm", "<p>hi</p>\n", "ok"),
        ("clean.py", 'STYLE = "a { color: red; }}"\n', "ok"), ("Makefile", "all:\n", None), ("data.xyz", "{{{", None),
        ("new.c", "int main(void) {\n  return 0;\n", f"c {MISSING} (line 2)"),
        ("new.JS", "let a = @;\n", f"javascript {UNEXPECTED} (line 1)"),
])
def test_check_chosen_by_lower_cased_extension(write, name, text, expected):
    assert editor.syntax_check(write(name, text)) == expected


def test_unreadable_and_undecodable_files_and_compiler_faults(write, tmp_path, monkeypatch):
    assert editor.syntax_check(str(tmp_path)) is None
    assert editor.syntax_check(str(tmp_path / "gone.py"), before_text="x = 1\n") is None
    (tmp_path / "latin.py").write_bytes(b"x = '\xe9'\n")
    with pytest.raises(UnicodeDecodeError):
        editor.syntax_check(str(tmp_path / "latin.py"))

    def compile(*args):
        raise ValueError("compiler broke")

    # The module's own globals come before the builtins, as for code written in the module.
    monkeypatch.setattr(editor, "compile", compile, raising=False)
    with pytest.raises(ValueError, match="compiler broke"):
        editor.syntax_check(write("m.py", "x = 1\n"))


C_BEFORE = "void f() { EXPAND(a b c) }\nint g(void) {\n  return 1;\n}\n"
ABC = "int a = 1;\nint b = 2;\nint c = 3;\n"
PROMPT = '''\
def ask(model):
    """Reply in exactly this shape: {name: string; tags: list of {id: int; label: string};
    and never wrap it in {braces: like; these}}.
    """
    return model.run("""Return {answer: text; score: number between {0; 1}}""")
'''
STYLES = 'import os\nLEGACY = ".card { color: red; }}"\nBANNER = "h1 { color: red; }"\nSTYLE = "body { margin: 0; }"\n'


@pytest.mark.parametrize(("name", "before", "after", "expected"), [
        # An error that was already there cancels; the edit elsewhere passes.
        ("m.c", C_BEFORE, C_BEFORE.replace("return 1", "return 2"), "ok"),
        # One more of the same kind is reported at that kind's first line in the new text.
        ("m.c", "int a = 1;\nint b = 2 3;\n", "int a = 1 1;\nint b = 2 3;\n", f"c {UNEXPECTED} (line 1)"),
        # One removed and one added elsewhere: the count is unchanged.
        ("m.c", "int a = 1;\nint b = 2 3;\n", "int a = 1 1;\nint b = 2;\n", "ok"),
        # Two kinds added: the one that shows first in the new text.
        ("m.c", ABC, ABC.replace("b = 2", "b = (2").replace("c = 3", "c = 3 3"),
         f"c {MISSING} (line 2)"),
        ("m.c", ABC, ABC.replace("b = 2", "b = 2 2").replace("c = 3", "c = (3"), f"c {UNEXPECTED} (line 2)"),
        # A baseline that cannot be judged counts as clean, so the first error is the edit's.
        ("m.c", "int a\ud800;\n", "int a = 1;\nint b = (2;\n", f"c {MISSING} (line 2)"),
        # A file that does not compile gets the compiler's message; the embedded check does not run.
        ("m.py", "", "x = (\n", "SyntaxError: '(' was never closed (line 1)"),
        # Mislabelled prompts are broken before and after: they cancel.
        ("m.py", PROMPT, PROMPT.replace("ask(model)", "ask(model, retries=2)"), "ok"),
        # One more broken CSS region: reported at the first such region, an older one above.
        ("m.py", STYLES, STYLES.replace("margin: 0; }", "margin: 0; }}"), f"embedded css {UNEXPECTED} (line 2)"),
        ("m.py", STYLES, STYLES.replace("h1 { color: red; }", "h1 { color: red;"), f"embedded css {MISSING} (line 3)"),
])
def test_delta_against_the_text_before(write, name, before, after, expected):
    path = write(name, after)
    assert editor.syntax_check(path, before_text=before) == expected
    if name == "m.py" and "(\n" not in after:  # without a baseline the embedded code is not checked
        assert editor.syntax_check(path) == "ok"
