import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import editor

NOTE = {"note": "no structural change (edit was within existing bodies)"}


def short(i):
    return i.split("\\")[-1].split("/")[-1]


def const_values(enriched):
    table = {}
    for scope, names in enriched.get("defs", {}).items():
        is_module = scope.endswith("::<module>")
        if not (is_module or "::css::" in scope):
            continue
        base = scope[:-10] if is_module else scope
        for name, records in names.items():
            if records:
                table[f"{base}::{name}"] = records[-1].get("rhs", "")
    return table


def reference(before, after, cap=10):
    """The comparison written plainly, as the host application would in Python."""
    eb = {(e["caller"], e["callee"]) for e in before.get("edges", [])}
    ea = {(e["caller"], e["callee"]) for e in after.get("edges", [])}
    sb, sa = set(before.get("symbols", {})), set(after.get("symbols", {}))
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


# Ids from few files and names so maps overlap, with "/" and "\" paths sharing base names and
# texts beyond ASCII and the BMP.
files = st.sampled_from(["src/app.py", "lib/app.py", "C:\\w\\app.py", "x.css", "ü/😀.py", "app.py"])
names = st.sampled_from(["f", "g", "Cls.m", "a/b", "TIMEOUT", "ñ"])
ids = st.builds(lambda f, n: f"{f}::{n}", files, names)
scopes = st.one_of(
    st.builds(lambda f: f"{f}::<module>", files),
    st.builds(lambda f, n: f"{f}::css::{n}", files, names),
    st.builds(lambda f: f"{f}::css::x::<module>", files),
    st.builds(lambda f, n: f"{f}::{n}", files, names),  # a local scope: ignored
)
NAN = float("nan")  # the same object on both sides still differs from itself
values = st.sampled_from(["1", "'a'", '"b"', "{'k': 1}", "x\\y", "é\n", "😀", "", NAN, None, 2.5])
records = st.lists(st.dictionaries(st.sampled_from(["rhs", "line"]), values), max_size=3)
maps = st.fixed_dictionaries(
    {},
    optional={
        "edges": st.lists(st.builds(lambda a, b: {"caller": a, "callee": b, "kind": "call"}, ids, ids), max_size=12),
        "symbols": st.dictionaries(ids, st.none(), max_size=8) | st.lists(ids, max_size=8),
        "defs": st.dictionaries(scopes, st.dictionaries(names, records, max_size=4), max_size=5),
        "other": st.none(),
    },
)


@settings(max_examples=400, deadline=None)
@given(before=maps, after=maps, cap=st.none() | st.integers(-4, 14))
def test_matches_the_plain_comparison(before, after, cap):
    result = editor.static_diff(before, after) if cap is None else editor.static_diff(before, after, cap)
    assert result == reference(before, after, 10 if cap is None else cap)
    assert list(result) == list(reference(before, after, 10 if cap is None else cap))


class Id(str):
    """An id type of the indexer's own: compared as the host compares it."""


def with_own_ids(enriched):
    edges = [{"caller": Id(e["caller"]), "callee": e["callee"]} for e in enriched.get("edges", [])]
    return {**enriched, "edges": edges, "symbols": [Id(s) for s in enriched.get("symbols", [])]}


@settings(max_examples=150, deadline=None)
@given(before=maps, after=maps, cap=st.integers(-4, 14))
def test_ids_of_a_str_subclass_match_the_plain_comparison(before, after, cap):
    before = with_own_ids(before)
    assert editor.static_diff(before, after, cap) == reference(before, after, cap)


def test_the_note_is_a_fresh_dict_each_time():
    first = editor.static_diff({}, {})
    first["note"] = "changed by the caller"
    assert editor.static_diff({"edges": []}, {"symbols": {}}) == NOTE


def test_fifteen_added_edges_give_the_first_ten_by_full_ids():
    edges = [{"caller": f"a/zeta.py::f{i}", "callee": "c.py::g"} for i in range(8)]
    edges += [{"caller": f"b/alpha.py::f{i}", "callee": "c.py::g"} for i in range(7)]
    # Ordered by the full ids, so the shown lines are not in their own sorted order.
    assert editor.static_diff({}, {"edges": edges[::-1]}) == {
        "edges_added": [f"zeta.py::f{i} -> c.py::g" for i in range(8)] + ["alpha.py::f0 -> c.py::g", "alpha.py::f1 -> c.py::g"]
    }


def test_a_value_edit_that_keeps_the_id_shows_only_as_a_changed_value():
    before = {"symbols": {"src/config.py::TABLE": {}},
              "defs": {"src/config.py::<module>": {"TABLE": [{"rhs": "{'a': 1}"}]},
                       "src/config.py::load": {"tmp": [{"rhs": "1"}]}}}
    after = {"symbols": {"src/config.py::TABLE": {}},
             "defs": {"src/config.py::<module>": {"TABLE": [{"rhs": "{'a': 1}"}, {"rhs": "{'a': 2}"}]},
                      "src/config.py::load": {"tmp": [{"rhs": "2"}]}}}
    assert editor.static_diff(before, after) == {"values_changed": ["config.py::TABLE: \"{'a': 1}\" -> \"{'a': 2}\""]}


def test_css_declarations_and_empty_definition_lists():
    before = {"defs": {"web\\site.css::css::.nav": {"color": [{"rhs": "red"}], "gap": []}}}
    after = {"defs": {"web\\site.css::css::.nav": {"gap": [{"line": 3}]}}}
    assert editor.static_diff(before, after) == {"constants_added": ["site.css::css::.nav::gap"],
                                                 "constants_removed": ["site.css::css::.nav::color"]}


@pytest.mark.parametrize("cap, expected", [(0, []), (-1, ["a.py::x"]), (-5, []), (2**70, ["a.py::x", "a.py::y"])])
def test_cap_cuts_as_a_slice(cap, expected):
    result = editor.static_diff({}, {"symbols": ["p/a.py::x", "q\\a.py::y"]}, cap=cap)
    assert result == {"symbols_added": expected}


@pytest.mark.parametrize(
    "before, error",
    [
        ({"edges": [{"callee": "a::f"}]}, KeyError),
        ({"edges": None}, TypeError),
        ({"defs": {"a.py::<module>": ["not", "a", "mapping"]}}, AttributeError),
        ({"defs": {"a.py::<module>": {"X": ["not a record"]}}}, TypeError),
        ({"symbols": [["unhashable"]]}, TypeError),
        ({"edges": [{"caller": 1, "callee": 2}]}, TypeError),
        ([], AttributeError),
    ],
)
def test_malformed_maps_raise(before, error):
    with pytest.raises(error):
        editor.static_diff(before, {})


@pytest.mark.parametrize("cap", [1.5, "3", None])
def test_cap_must_be_an_integer(cap):
    with pytest.raises(TypeError):
        editor.static_diff({}, {}, cap)
