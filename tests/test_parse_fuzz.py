"""Random input through every entry point of the parse checks: answers of the documented shape,
only the documented exceptions, and never a crash of the interpreter."""

from collections import Counter

import langtable
from hypothesis import HealthCheck, given, settings, strategies as st

import editor

LANGUAGES = ["c", "cpp", "java", "javascript", "css", "html", "python", "no-such-grammar"]
WHATS = {"missing bracket/token", "unexpected syntax"}
FAST = settings(max_examples=150, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])


class Node:
    """A node that logs every member read, so two scans can be compared read for read."""

    def __init__(self, log, label, type, missing, has_error, children):
        self._log, self._label = log, label
        self._members = {"type": type, "is_missing": missing, "has_error": has_error,
                         "children": children, "start_point": (label, 0)}

    def __getattr__(self, name):
        self._log.append((self._label, name))
        return self._members[name]


def build(shape, log, counter=None):
    counter = counter if counter is not None else [0]
    (type, missing, has_error), kids = shape
    counter[0] += 1
    label = counter[0]
    return Node(log, label, type, missing, has_error, [build(kid, log, counter) for kid in kids])


SHAPES = st.recursive(
    st.tuples(st.tuples(st.sampled_from(["ERROR", "x"]), st.booleans(), st.booleans()), st.just([])),
    lambda kids: st.tuples(st.tuples(st.sampled_from(["ERROR", "x", "x"]), st.booleans(), st.booleans()),
                           st.lists(kids, max_size=4)),
    max_leaves=30,
)


def first_error(node):
    if node.type == "ERROR" or node.is_missing:
        return node
    if not node.has_error:
        return None
    for child in node.children:
        found = first_error(child)
        if found is not None:
            return found
    return None


def all_errors(node, out):
    if node.type == "ERROR" or node.is_missing:
        out.append(node)
        return
    if not node.has_error:
        return
    for child in node.children:
        all_errors(child, out)


@settings(max_examples=300, deadline=None)
@given(SHAPES)
def test_scans_read_the_tree_as_the_recursive_definition_does(shape):
    expected_log, log = [], []
    expected = first_error(build(shape, expected_log))
    found = editor._first_error_node(build(shape, log))
    assert log == expected_log and (found is None) == (expected is None)
    assert found is None or found._label == expected._label

    expected_log, log, expected_out, out = [], [], [], []
    all_errors(build(shape, expected_log), expected_out)
    editor._all_error_nodes(build(shape, log), out)
    assert log == expected_log and [n._label for n in out] == [n._label for n in expected_out]


@FAST
@given(st.sampled_from(LANGUAGES), st.text())
def test_any_text_under_any_grammar(language, text):
    error = editor._treesitter_error(language, text)
    assert error is None or (type(error[0]) is int and error[0] >= 1 and error[1] in WHATS)
    counts, sample = editor._treesitter_error_counts(language, text)
    assert type(counts) is Counter and set(counts) == set(sample) <= WHATS
    assert (error is None) == (not counts)


@FAST
@given(st.text())
def test_any_python_text_through_the_web_count_and_language_detection(text):
    counts, sample = editor._web_error_counts(text)
    assert set(counts) == set(sample) and all(n >= 1 for n in counts.values())
    known = (*editor._WEB_EXT_LANG.values(), *langtable.EXTENSION_TO_LANGUAGE.values())
    assert editor._native_language(text) in (None, *known)


@FAST
@given(st.sampled_from([".py", ".c", ".js", ".css", ".html", ".java", ".xyz", ""]), st.binary(),
       st.none() | st.text())
def test_any_file_through_the_syntax_check(tmp_path, ext, content, before):
    path = tmp_path / f"f{ext}"
    path.write_bytes(content)
    try:
        result = editor.syntax_check(str(path), before_text=before)
    except UnicodeDecodeError:
        return
    assert result is None or isinstance(result, str)
    assert (result is None) == (ext in (".xyz", ""))
