import json

import pytest

from hypothesis import given, settings
from hypothesis import strategies as st

import editor
from helpers import json_like
pytestmark = pytest.mark.leaks

NOTE = {"note": "no structural change (edit was within existing bodies)"}


def short(i):
    return i.split("\\")[-1].split("/")[-1]


def const_values(enriched):
    table = {}
    for scope, names in enriched.get("defs", {}).items():
        is_module = scope.endswith("::<module>")
        if is_module or "::css::" in scope:
            for name, records in names.items():
                if records:
                    table[f"{scope[:-10] if is_module else scope}::{name}"] = records[-1].get("rhs", "")
    return table


def reference(before, after, cap=10):
    # The comparison written plainly, as the host application would in Python.
    eb, ea = ({(e["caller"], e["callee"]) for e in m.get("edges", [])} for m in (before, after))
    sb, sa = (set(m.get("symbols", {})) for m in (before, after))
    vb, va = const_values(before), const_values(after)
    lists = {
        "edges_added": [f"{short(a)} -> {short(b)}" for a, b in sorted(ea - eb)],
        "edges_removed": [f"{short(a)} -> {short(b)}" for a, b in sorted(eb - ea)],
        "symbols_added": sorted(short(s) for s in sa - sb),
        "symbols_removed": sorted(short(s) for s in sb - sa),
        "values_changed": sorted(f"{short(k)}: {vb[k]!r} -> {va[k]!r}" for k in vb if k in va and vb[k] != va[k]),
        "constants_added": sorted(short(k) for k in va if k not in vb),
        "constants_removed": sorted(short(k) for k in vb if k not in va),
    }
    return {key: items[:cap] for key, items in lists.items() if items} or dict(NOTE)


# Ids from few files and names so maps overlap, "/" and "\" paths sharing base names, text
# beyond ASCII and the BMP; scopes of modules, CSS, both, and locals (ignored).
files = st.sampled_from(["src/app.py", "lib/app.py", "C:\\w\\app.py", "x.css", "ü/😀.py", "app.py"])
# "x" and "css::x::f" make one value id from two scopes: module x.css::css::x::<module> with CSS
# scope x.css::css::x, or a module's "css::x::f" with CSS scope app.py::css::x's "f".
names = st.sampled_from(["f", "g", "Cls.m", "a/b", "TIMEOUT", "ñ", "x", "css::x::f"])
ids = st.builds("{}::{}".format, files, names)
scopes = st.builds("{}::<module>".format, files) | st.builds("{}::css::{}".format, files, names) \
    | st.builds("{}::css::x::<module>".format, files) | ids
NAN = float("nan")  # the same object on both sides still differs from itself
values = st.sampled_from(["1", "'a'", '"b"', "{'k': 1}", "x\\y", "é\n", "😀", "", NAN, None, 2.5])
maps = st.fixed_dictionaries({}, optional={
    "edges": st.lists(st.builds(lambda a, b: {"caller": a, "callee": b, "kind": "call"}, ids, ids), max_size=14),
    "symbols": st.dictionaries(ids, st.none(), max_size=8) | st.lists(ids, max_size=8),
    "defs": st.dictionaries(scopes, st.dictionaries(names, st.lists(
        st.dictionaries(st.sampled_from(["rhs", "line"]), values), max_size=3), max_size=4), max_size=5),
})


class Id(str):
    """An id type of the indexer's own, compared as the host compares it."""


@settings(max_examples=400, deadline=None)
@given(before=maps, after=maps, cap=st.none() | st.integers(-4, 14) | st.just(2**70), own_ids=st.booleans())
def test_matches_the_plain_comparison(before, after, cap, own_ids):
    if own_ids:
        before = {**before, "edges": [{**e, "caller": Id(e["caller"])} for e in before.get("edges", [])],
                  "symbols": [Id(s) for s in before.get("symbols", [])]}
    result = editor.static_diff(before, after) if cap is None else editor.static_diff(before, after, cap=cap)
    expected = reference(before, after, 10 if cap is None else cap)
    assert result == expected and list(result) == list(expected)
    result.clear()  # a note handed out is the caller's: the next one is fresh


def outcome(fn, *args):
    try:
        return "ok", json.dumps(fn(*args))  # NaN compares equal as text
    except Exception:
        return "raised", None


@settings(max_examples=300, deadline=None)
@given(before=json_like, after=json_like, maps=st.booleans(), cap=st.integers(-3, 12) | st.booleans())
def test_random_plain_values_answer_or_raise_as_the_plain_comparison_does(before, after, maps, cap):
    if maps:  # the same values where a map's members go
        before = {"edges": before, "symbols": after, "defs": {"f::<module>": before, "g::css::h": {"x": after}}}
        after = {"edges": [{"caller": before["symbols"], "callee": "c"}]}
    assert outcome(editor.static_diff, before, after, cap) == outcome(reference, before, after, cap)


class Triples(dict):
    """A definition table of its own, read through its items(): triples here, lists below."""
    shape = staticmethod(lambda pair: (*pair, 0))

    def items(self):
        return [self.shape(pair) for pair in dict.items(self)]


class Lists(Triples):
    shape = list


# Bad definition tables raise what the plain expressions raise (defs.items, records[-1].get,
# names.items, scope.endswith, the id's f-string, unpacking) whichever way the tables are compared.
@pytest.mark.parametrize("defs, error", [
    (None, AttributeError), ([1], AttributeError), (Triples({"a::<module>": {}}), ValueError),
    ({"a.py::<module>": {"X": ["not a record"]}}, AttributeError), ({"a.py::<module>": ["X"]}, AttributeError),
    ({7: {"X": [{}]}}, AttributeError), ({b"a::<module>": {"X": [{}]}}, TypeError)])
def test_bad_definition_tables_raise_as_the_plain_expressions_do(defs, error):
    with pytest.raises(error):
        editor.static_diff({"defs": defs}, {})


def test_a_table_of_its_own_is_read_through_its_items():
    after = {"defs": {"a.py::<module>": {"X": [{"rhs": "2"}]}}}
    before = {"defs": Lists({"a.py::<module>": {"X": [{"rhs": "1"}]}})}
    assert editor.static_diff(before, after) == {"values_changed": ["a.py::X: '1' -> '2'"]}
