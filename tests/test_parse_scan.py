# Tree-sitter error scans over the real grammars and over hand-built trees.

import sys
from collections import Counter
from types import SimpleNamespace

import pytest

import editor

MISSING, UNEXPECTED = "missing bracket/token", "unexpected syntax"


def node(children=(), missing=False, row=0, type="x", has_error=None):
    if has_error is None:
        has_error = missing or type == "ERROR" or any(child.has_error for child in children)
    return SimpleNamespace(type=type, is_missing=missing, has_error=has_error, children=children,
                           start_point=(row, 0))


def test_scans_visit_outermost_errors_in_pre_order_and_skip_clean_subtrees():
    tree = node([
        node([node(missing=True, row=1)], has_error=False),  # pruned by its flag
        node([node(missing=True, row=3)], type="ERROR", row=2),  # nothing inside an ERROR counts
        node([node(), node(missing=True, row=4, has_error=False)], has_error=True),  # missing comes before the flag
        node(missing=True, row=5),
    ])
    out = type("Sink", (list,), {})()  # not a list: reached through its append
    editor._all_error_nodes(tree, out)
    assert [n.start_point[0] for n in out] == [2, 4, 5] and editor._first_error_node(tree) is out[0]
    assert editor._first_error_node(node([node(missing=True)], has_error=False)) is None


def test_the_walk_keeps_its_own_bounded_stack():
    tree = node(missing=True, row=99)
    for _ in range(100_000):
        tree = node([node(), tree])
    out = []
    editor._all_error_nodes(tree, out)
    assert editor._first_error_node(tree).start_point == (99, 0) and len(out) == 1
    assert editor._treesitter_error("javascript", "x = " + "[" * 100_000 + "1 +" + "]" * 100_000 + ";\n")
    # Children leading back to their node end in RecursionError, not a hang.
    loop = SimpleNamespace(type="x", is_missing=False, has_error=True, start_point=(0, 0))
    loop.children = [loop]
    with pytest.raises(RecursionError):
        editor._first_error_node(loop)
    assert editor._treesitter_error("python", "x = (") == (1, UNEXPECTED)


@pytest.mark.leaks
@pytest.mark.parametrize(("language", "text", "first", "counts", "sample"), [
        ("c", "int main(void) {\n  return 0;\n", (2, MISSING), {MISSING: 1}, {MISSING: 2}),
        # An ERROR node holding a missing node is one unexpected-syntax error.
        ("c", "int f() { return (1 + ; }\n", (1, UNEXPECTED), {UNEXPECTED: 1}, {UNEXPECTED: 1}),
        # Document order decides the counter's order, not the numbers; the sample is the first line.
        ("javascript", "f(1;\nlet b = 2;\nlet c = @;\nlet d = @;\n", (1, MISSING), {MISSING: 1, UNEXPECTED: 2},
         {MISSING: 1, UNEXPECTED: 3}),
        ("html", "<div>\n<p>a</div>\n<", (3, UNEXPECTED), {UNEXPECTED: 1}, {UNEXPECTED: 3}),
        # Every other grammar the checks use loads from the installed package.
        ("cpp", "int f() {\n  return (1;\n}\n", (2, MISSING), {MISSING: 1}, {MISSING: 2}),
        ("java", "class A {\n  int x = ;\n}\n", (2, UNEXPECTED), {UNEXPECTED: 1}, {UNEXPECTED: 2}),
        ("css", "a { color: red; }\n}}\nb { x }\n", (2, UNEXPECTED), {UNEXPECTED: 1}, {UNEXPECTED: 2})])
def test_real_grammars(language, text, first, counts, sample):
    assert editor._treesitter_error(language, text) == first
    found, lines = editor._treesitter_error_counts(language, text)
    assert (type(found), type(lines), list(found.items()), list(lines.items())) == (
        Counter, dict, list(counts.items()), list(sample.items()))
    found.clear()
    assert editor._treesitter_error_counts(language, text)[0] == counts  # fresh objects every call


def broken_pack(exc):
    def get_parser(language):
        raise exc

    return SimpleNamespace(get_parser=get_parser)


@pytest.mark.leaks
@pytest.mark.parametrize(("language", "text", "pack"), [
        ("no-such-grammar", "x", ...), ("c", "int \ud800;", ...), (42, "x", ...), ("c", b"int x = ;", ...),
        # The package is imported at every call, so replacing it after a first use takes effect.
        ("c", "int x = ;", None), ("c", "int x = ;", broken_pack(RuntimeError)),
        ("c", "int x = ;", SimpleNamespace())])
def test_what_cannot_be_judged_reports_nothing_but_interrupts_propagate(monkeypatch, language, text, pack):
    if pack is not ...:
        assert editor._treesitter_error("c", text) is not None
        monkeypatch.setitem(sys.modules, "tree_sitter_language_pack", pack)
    assert editor._treesitter_error(language, text) is None
    assert editor._treesitter_error_counts(language, text) == (Counter(), {})
    monkeypatch.setitem(sys.modules, "tree_sitter_language_pack", broken_pack(KeyboardInterrupt()))
    with pytest.raises(KeyboardInterrupt):
        editor._treesitter_error("c", "int x;")
