"""Tree-sitter error scans: over the real grammars, and over hand-built trees."""

import subprocess
import sys
import types
from collections import Counter

import pytest

import editor

MISSING, UNEXPECTED = "missing bracket/token", "unexpected syntax"


class Node:
    """The five members the scans read; has_error follows the tree unless given."""

    def __init__(self, type="x", children=(), missing=False, row=0, has_error=None):
        self.type, self.is_missing, self.children = type, missing, list(children)
        self.start_point = (row, 0)
        self.has_error = (type == "ERROR" or missing or any(c.has_error for c in self.children)
                          if has_error is None else has_error)


class Untouchable:
    def __getattribute__(self, name):
        raise AssertionError("a pruned subtree was visited")


def collect(node):
    out = []
    assert editor._all_error_nodes(node, out) is None
    return out


def test_scans_visit_in_preorder_and_stop_at_error_nodes():
    inner_missing = Node(missing=True, row=1)
    error = Node("ERROR", [inner_missing], row=2)
    late = Node(missing=True, row=7)
    tree = Node("root", [Node("a", [Node("b", has_error=False)]), Node("c", [error]), late])
    assert editor._first_error_node(tree) is error
    assert collect(tree) == [error, late]
    assert editor._first_error_node(Node("root", [Node("a")])) is None
    assert collect(Node("root")) == []


def test_clean_flag_prunes_the_subtree_and_the_node_itself_comes_first():
    hidden = Node("root", [Untouchable()], has_error=False)
    assert editor._first_error_node(hidden) is None and collect(hidden) == []
    # An error node is returned before anything its children would yield, flags or not.
    error = Node("ERROR", [Untouchable()], has_error=False)
    assert editor._first_error_node(error) is error and collect(error) == [error]


def test_first_hit_stops_pulling_children():
    pulled = []

    def children():
        for node in (Node(missing=True, row=3), Node(missing=True, row=4)):
            pulled.append(node)
            yield node

    root = Node("root", has_error=True)
    root.children = children()
    assert editor._first_error_node(root) is pulled[0] and len(pulled) == 1


def test_out_may_be_any_object_with_append():
    class Sink:
        def __init__(self):
            self.items = []

        def append(self, item):
            self.items.append(item)

    sink, error = Sink(), Node("ERROR")
    editor._all_error_nodes(Node("root", [Node(), error]), sink)
    assert sink.items == [error]


def test_a_tree_100000_levels_deep_is_walked_without_recursion():
    node = Node(missing=True, row=99)
    for _ in range(100_000):
        node = Node("wrap", [Node(), node])
    assert editor._first_error_node(node).start_point == (99, 0)
    assert len(collect(node)) == 1


def test_attribute_errors_propagate():
    with pytest.raises(AttributeError):
        editor._first_error_node(object())


@pytest.mark.parametrize(
    ("language", "text", "first", "counts", "sample"),
    [
        ("c", "int main(void) {\n  return 0;\n}\n", None, {}, {}),
        ("c", "int main(void) {\n  return 0;\n", (2, MISSING), {MISSING: 1}, {MISSING: 2}),
        ("c", "int x = 1;\nint y = 2 3;\n", (2, UNEXPECTED), {UNEXPECTED: 1}, {UNEXPECTED: 2}),
        ("java", "class A { void f() { int x = 1 } }\n", (1, MISSING), {MISSING: 1}, {MISSING: 1}),
        ("javascript", "@@\nlet a = 1;\n", (1, UNEXPECTED), {UNEXPECTED: 1}, {UNEXPECTED: 1}),
        ("css", "a { color: red; }\n\nb { color: red; }\n}}\n", (4, UNEXPECTED), {UNEXPECTED: 1},
         {UNEXPECTED: 4}),
        ("cpp", "int f() {\n  return 1 +;\n}\nint g() {\n  return 2 +;\n}\n", (2, MISSING), {MISSING: 2},
         {MISSING: 2}),
        ("javascript", "let a = 1;\nlet b = 2;\nlet c = @;\n" + "let d = 4;\n" * 5 + "let i = @;\n",
         (3, UNEXPECTED), {UNEXPECTED: 2}, {UNEXPECTED: 3}),
        # Document order decides the counter's order, not the numbers.
        ("javascript", "f(1;\nlet b = 2;\nlet c = @;\nlet d = @;\n", (1, MISSING), {MISSING: 1, UNEXPECTED: 2},
         {MISSING: 1, UNEXPECTED: 3}),
        ("python", "def f(:\n    pass\n", (1, MISSING), {MISSING: 1}, {MISSING: 1}),
        ("html", "<div>\n<p>a</div>\n<", (3, UNEXPECTED), {UNEXPECTED: 1}, {UNEXPECTED: 3}),
    ],
)
def test_real_grammars(language, text, first, counts, sample):
    assert editor._treesitter_error(language, text) == first
    found, lines = editor._treesitter_error_counts(language, text)
    assert type(found) is Counter and type(lines) is dict
    assert list(found.items()) == list(counts.items()) and list(lines.items()) == list(sample.items())


def test_error_node_holding_a_missing_node_counts_once_as_unexpected():
    text = "int f() { return (1 + ; }\n"
    assert editor._treesitter_error_counts("c", text) == (Counter({UNEXPECTED: 1}), {UNEXPECTED: 1})


def test_counts_are_fresh_at_every_call():
    first = editor._treesitter_error_counts("c", "int x = ;\n")
    first[0].clear()
    assert editor._treesitter_error_counts("c", "int x = ;\n")[0] == Counter({MISSING: 1})


def test_real_tree_nested_100000_levels():
    depth = 100_000
    text = "x = " + "[" * depth + "1 +" + "]" * depth + ";\n"
    assert editor._treesitter_error("javascript", text) is not None


@pytest.mark.parametrize(
    ("language", "text"),
    [("no-such-grammar", "x"), ("c", "int \ud800;"), (42, "x"), ("c", b"int x;")],
)
def test_what_cannot_be_judged_reports_nothing(language, text):
    assert editor._treesitter_error(language, text) is None
    assert editor._treesitter_error_counts(language, text) == (Counter(), {})


def broken_pack(exc):
    def get_parser(language):
        raise exc

    return types.SimpleNamespace(get_parser=get_parser)


@pytest.mark.parametrize("pack", [None, broken_pack(RuntimeError("parser failed")), types.SimpleNamespace()])
def test_missing_or_failing_grammar_package_reports_nothing(monkeypatch, pack):
    # The package is imported at every call, so replacing it after the first use takes effect.
    assert editor._treesitter_error("c", "int x = ;") is not None
    monkeypatch.setitem(sys.modules, "tree_sitter_language_pack", pack)
    assert editor._treesitter_error("c", "int x = ;") is None
    assert editor._treesitter_error_counts("c", "int x = ;") == (Counter(), {})


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
for language, text in [("python", "def f(:\\n"), ("c", "int main( {"), ("cpp", "class A {"),
                       ("java", "class A { void f( }"), ("javascript", "let x = ;"),
                       ("css", "a { color: red; }}"), ("html", "<p></p>\\n<")]:
    print(language, editor._treesitter_error(language, text) is not None,
          editor._treesitter_error(language, "") is None)
"""


def test_every_checked_grammar_loads_offline():
    result = subprocess.run([sys.executable, "-c", OFFLINE], capture_output=True, text=True, timeout=120,
                            env={"PYTHONPATH": ":".join(sys.path)})
    assert result.returncode == 0, result.stderr
    assert result.stdout.split() == [word for language in ("python", "c", "cpp", "java", "javascript", "css",
                                                           "html") for word in (language, "True", "True")]
