"""Tree-sitter error scans over the real grammars and over hand-built trees (read-for-read
equivalence with the recursive definition is in test_parse_fuzz.py)."""

import os
import subprocess
import sys
from collections import Counter
from types import SimpleNamespace

import pytest

import editor

MISSING, UNEXPECTED = "missing bracket/token", "unexpected syntax"


def node(children=(), missing=False, row=0):
    has_error = missing or any(child.has_error for child in children)
    return SimpleNamespace(type="x", is_missing=missing, has_error=has_error, children=children,
                           start_point=(row, 0))


def test_a_tree_100000_levels_deep_is_walked_without_recursion():
    tree = node(missing=True, row=99)
    for _ in range(100_000):
        tree = node([node(), tree])
    out = []
    editor._all_error_nodes(tree, out)
    assert editor._first_error_node(tree).start_point == (99, 0) and len(out) == 1


def test_children_leading_back_to_their_node_end_in_recursion_error_not_a_hang():
    loop = SimpleNamespace(type="x", is_missing=False, has_error=True, start_point=(0, 0))
    loop.children = [loop]
    with pytest.raises(RecursionError):
        editor._first_error_node(loop)
    assert editor._treesitter_error("python", "x = (") == (1, UNEXPECTED)


def test_first_hit_stops_pulling_children_and_out_needs_only_append():
    pulled = []

    def children():
        for child in (node(missing=True, row=3), node(missing=True, row=4)):
            pulled.append(child)
            yield child

    root = SimpleNamespace(type="x", is_missing=False, has_error=True, children=children())
    assert editor._first_error_node(root) is pulled[0] and len(pulled) == 1
    sink = SimpleNamespace(items=[])
    sink.append = sink.items.append
    editor._all_error_nodes(node([node(), node(missing=True)]), sink)
    assert [n.is_missing for n in sink.items] == [True]


@pytest.mark.parametrize(
    ("language", "text", "first", "counts", "sample"),
    [
        ("c", "int main(void) {\n  return 0;\n}\n", None, {}, {}),
        ("c", "int main(void) {\n  return 0;\n", (2, MISSING), {MISSING: 1}, {MISSING: 2}),
        # An ERROR node holding a missing node is one unexpected-syntax error.
        ("c", "int f() { return (1 + ; }\n", (1, UNEXPECTED), {UNEXPECTED: 1}, {UNEXPECTED: 1}),
        ("java", "class A { void f() { int x = 1 } }\n", (1, MISSING), {MISSING: 1}, {MISSING: 1}),
        ("javascript", "let a = 1;\nlet b = 2;\nlet c = @;\n" + "let d = 4;\n" * 5 + "let i = @;\n",
         (3, UNEXPECTED), {UNEXPECTED: 2}, {UNEXPECTED: 3}),
        # Document order decides the counter's order, not the numbers.
        ("javascript", "f(1;\nlet b = 2;\nlet c = @;\nlet d = @;\n", (1, MISSING), {MISSING: 1, UNEXPECTED: 2},
         {MISSING: 1, UNEXPECTED: 3}),
        ("css", "a { color: red; }\n\nb { color: red; }\n}}\n", (4, UNEXPECTED), {UNEXPECTED: 1},
         {UNEXPECTED: 4}),
        ("cpp", "int f() {\n  return 1 +;\n}\nint g() {\n  return 2 +;\n}\n", (2, MISSING), {MISSING: 2},
         {MISSING: 2}),
        ("python", "def f(:\n    pass\n", (1, MISSING), {MISSING: 1}, {MISSING: 1}),
        ("html", "<div>\n<p>a</div>\n<", (3, UNEXPECTED), {UNEXPECTED: 1}, {UNEXPECTED: 3}),
    ],
)
def test_real_grammars(language, text, first, counts, sample):
    assert editor._treesitter_error(language, text) == first
    found, lines = editor._treesitter_error_counts(language, text)
    assert type(found) is Counter and type(lines) is dict
    assert list(found.items()) == list(counts.items()) and list(lines.items()) == list(sample.items())
    found.clear()
    assert editor._treesitter_error_counts(language, text)[0] == counts  # fresh objects every call


def test_real_tree_nested_100000_levels():
    assert editor._treesitter_error("javascript", "x = " + "[" * 100_000 + "1 +" + "]" * 100_000 + ";\n")


def broken_pack(exc):
    def get_parser(language):
        raise exc

    return SimpleNamespace(get_parser=get_parser)


@pytest.mark.parametrize(
    ("language", "text", "pack"),
    [
        ("no-such-grammar", "x", ...), ("c", "int \ud800;", ...), (42, "x", ...), ("c", b"int x = ;", ...),
        # The package is imported at every call, so replacing it after a first use takes effect.
        ("c", "int x = ;", None), ("c", "int x = ;", broken_pack(RuntimeError("no parser"))),
        ("c", "int x = ;", SimpleNamespace()),
    ],
)
def test_what_cannot_be_judged_reports_nothing(monkeypatch, language, text, pack):
    if pack is not ...:
        assert editor._treesitter_error("c", text) is not None
        monkeypatch.setitem(sys.modules, "tree_sitter_language_pack", pack)
    assert editor._treesitter_error(language, text) is None
    assert editor._treesitter_error_counts(language, text) == (Counter(), {})


def test_interrupts_inside_the_guard_propagate(monkeypatch):
    monkeypatch.setitem(sys.modules, "tree_sitter_language_pack", broken_pack(KeyboardInterrupt()))
    with pytest.raises(KeyboardInterrupt):
        editor._treesitter_error("c", "int x;")


OFFLINE = """
import socket
def refuse(*args, **kwargs):
    raise OSError("network used")
socket.socket = socket.create_connection = socket.getaddrinfo = refuse
import editor
for language, text in [("python", "def f(:"), ("c", "int main( {"), ("cpp", "class A {"), ("java", "class A {"),
                       ("javascript", "let x = ;"), ("css", "a { color: red; }}"), ("html", "<p></p>\\n<")]:
    print(language, editor._treesitter_error(language, text) is not None, editor._treesitter_error(language, ""))
"""


def test_every_checked_grammar_loads_offline():
    result = subprocess.run([sys.executable, "-c", OFFLINE], capture_output=True, text=True, timeout=120,
                            env=dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path)))
    assert result.returncode == 0, result.stderr
    languages = ["python", "c", "cpp", "java", "javascript", "css", "html"]
    assert result.stdout.split() == [word for name in languages for word in (name, "True", "None")]
