"""The stand-in indexer: its maps, updates that leave old IRs alone, Atlas.switch against enrich."""

import json
import shutil
from pathlib import Path

import pytest
from hypothesis import given, settings, strategies as st

import editor
import srcatlas
from srcatlas.css import css_scopes
from srcatlas.python_source import index_python

SAMPLE = Path(__file__).resolve().parent.parent / "demo" / "sample_project"


@pytest.fixture
def project(tmp_path):
    return Path(shutil.copytree(SAMPLE, tmp_path / "proj"))


def test_maps_of_the_sample_project(project):
    (project / "broken.py").write_text("def f(:\n")
    (project / "latin1.py").write_bytes(b"x = '\xe9'\n")
    raw = srcatlas.build(project)
    index = srcatlas.enrich(raw)
    edges = {(e["caller"], e["callee"]) for e in index["edges"]}
    assert {("inventory/pricing.py::total_value", "inventory/pricing.py::gross_value"),
            ("inventory/pricing.py::net_value", "inventory/util.py::round_money"),
            ("inventory/pricing.py::net_value", "inventory/models.py::Item.value")} <= edges
    # load_items exists once, but json.load is no project function: no edge to anything
    assert not any(caller.startswith("tools/") for caller, _ in edges)
    assert {"inventory/models.py::MAX_ITEMS", "inventory/models.py::Warehouse.add",
            "inventory/report.py::render"} <= set(index["symbols"])
    assert index["defs"]["inventory/models.py::<module>"]["MAX_ITEMS"] == [{"line": 3, "rhs": "500"}]
    assert index["defs"]["static/style.css::css::.report td"] == {"padding": [{"line": 12, "rhs": "4px 8px"}]}
    assert (raw["files"]["broken.py"]["symbols"], raw["files"]["latin1.py"]["kind"]) == ([], "file")


def test_css_declarations():
    css = "a { b: 1; b: 2; }\n/* x: y; */\np {\n  margin : 0 auto\n}\n@media print {\n .x { display: none; }\n}"
    assert css_scopes(css) == {"css::a": {"b": [{"line": 1, "rhs": "1"}, {"line": 1, "rhs": "2"}]},
                               "css::p": {"margin": [{"line": 4, "rhs": "0 auto"}]},
                               "css::@media print .x": {"display": [{"line": 7, "rhs": "none"}]}}


def test_update_and_rebuild_reparse_only_what_changed_and_leave_the_old_ir_alone(project, monkeypatch):
    raw = srcatlas.build(project)
    frozen, old = json.dumps(raw, sort_keys=True), raw["files"]
    models = project / "inventory" / "models.py"
    models.write_text(models.read_text().replace("MAX_ITEMS = 500", "MAX_ITEMS = 800\nLIMIT = 2"))
    read, real = [], srcatlas.records._index_file
    monkeypatch.setattr(srcatlas.records, "_index_file", lambda path: read.append(path) or real(path))
    new = srcatlas.update(raw, str(project), str(models))
    rebuilt = srcatlas.build(project, reuse=lambda rel, *stamp: old[rel] if (
        old[rel]["size"], old[rel]["mtime_ns"]) == stamp else None)
    assert read == [str(models)] * 2 and json.dumps(raw, sort_keys=True) == frozen and rebuilt == new
    assert new["files"]["inventory/pricing.py"] is rebuilt["files"]["inventory/pricing.py"] is old["inventory/pricing.py"]
    defs = srcatlas.enrich(new)["defs"]["inventory/models.py::<module>"]
    assert defs["MAX_ITEMS"][0]["rhs"] == "800" and "LIMIT" in defs
    shutil.rmtree(project / "inventory")
    new = srcatlas.update(new, str(project), str(project / "inventory"))
    assert not any(rel.startswith("inventory/") for rel in new["files"]) and "tools/util.py" in new["files"]
    (project / "inventory" / "deep").mkdir(parents=True)
    (project / "inventory" / "deep" / "x.py").write_text("def f(): pass\n")
    again = srcatlas.update(new, str(project), str(project / "inventory"))
    assert [rel for rel in again["files"] if rel.startswith("inventory/")] == ["inventory/deep/x.py"]


MODULES = ["pkg/__init__.py", "pkg/a.py", "pkg/b.py", "pkg/sub/__init__.py", "pkg/sub/c.py", "d.py"]
IMPORTS = ["from pkg.a import f", "from pkg.b import g as f", "from pkg import a", "import pkg.b as m",
           "from . import b", "from .a import K", "from ..b import g", "from pkg import *", "import d",
           "from pkg.sub import c", "import json", "from .sub.c import h", "import pkg.sub.c",
           "from .a import *"]
CALLS = ["f()", "g()", "h()", "m.g()", "a.f()", "b.K()", "c.h()", "d.f()", "K()", "self.run()",
         "obj.run()", "obj.stop()", "json.load()", "pkg.a.f()", "K.run()", "make().stop()", "pkg.sub.c.h()"]


@st.composite
def module_text(draw):
    lines = draw(st.lists(st.sampled_from(IMPORTS), max_size=3))
    for name in draw(st.lists(st.sampled_from(["f", "g", "h", "K", "L", "X", "Y"]), max_size=4)):
        if name in "XY":
            lines.append(f"{name} = {draw(st.integers(0, 3))}")
        elif name in "KL":
            methods = draw(st.lists(st.sampled_from(["run", "stop"]), max_size=2, unique=True))
            lines += [f"class {name}:"] + [f"    def {meth}(self):\n        {draw(st.sampled_from(CALLS))}"
                                          for meth in methods] + ["    pass"]
        else:
            body = draw(st.lists(st.sampled_from(CALLS), min_size=1, max_size=3))
            lines += [f"def {name}():"] + [f"    {call}" for call in body]
    return "\n".join(lines) + "\n"


def record(text):
    return index_python(text) | {"hash": str(hash(text)), "size": len(text), "mtime_ns": 0}


def step(raw, rel, text):
    files = dict(raw["files"])
    if text is None:
        files.pop(rel, None)
    else:
        files[rel] = record(text)
    return {"schema": srcatlas.SCHEMA, "files": files}


def diff(before, after):
    return editor.static_diff(before, after, 1000)


def names_table(raw, cap):
    # The callable names of `raw` as a store's table answers them; `cap` lowers the limit below which
    # ids are handed out, so that the atlas also counts names it holds no ids of.
    table = {}
    for rel, rec in raw["files"].items():
        for group, short, sid in srcatlas.callable_names(rel, rec):
            table.setdefault((group, short), {})[sid] = None

    def lookup(group, short, limit):
        ids = list(table.get((group, short), ()))
        shown = limit is None or len(ids) <= min(limit, cap)
        return len(ids), ids if shown else None
    return lookup


@pytest.mark.parametrize("cap", [None, 0, 2], ids=["records", "names-counted", "names-listed"])
@settings(max_examples=150, deadline=None)
@given(st.dictionaries(st.sampled_from(MODULES), module_text(), min_size=1),
       st.lists(st.tuples(st.sampled_from(MODULES), st.none() | module_text(), st.integers(0, 9)), max_size=6))
def test_switching_matches_enriching_whole(cap, start, changes):
    history = [{"schema": srcatlas.SCHEMA, "files": {rel: record(text) for rel, text in sorted(start.items())}}]
    atlas = srcatlas.Atlas(history[0], None if cap is None else names_table(history[0], cap))
    for rel, text, back in changes:
        old = atlas.raw
        new = history[-1 - back] if back < len(history) and back % 3 == 2 else step(old, rel, text)
        if back % 2:  # a store hands back records that went through JSON
            new = json.loads(json.dumps(new))
        history.append(new)
        assert diff(*atlas.switch(new)) == diff(srcatlas.enrich(old), srcatlas.enrich(new))
        assert atlas.raw is new
    assert atlas.enriched() == srcatlas.enrich(atlas.raw)


ELSEWHERE = {"other.py": "def f():\n    pass\ndef g():\n    pass\nclass K:\n    def run(self):\n        pass\n"}
TWICE = {"x.py": "def g(): pass", "y.py": "def g(): pass"}
MAIN, G, MOD, PKG = "\ndef main():\n    ", "def g(): pass", {"pkg/mod.py": "def f(): pass"}, {"pkg/__init__.py": ""}


@pytest.mark.parametrize("start, rel, text, callee", [
    (ELSEWHERE | MOD, "app.py", "from pkg.mod import f" + MAIN + "f()", "pkg/mod.py::f"),
    (ELSEWHERE | {"pkg/mod.py": G}, "app.py", "from pkg.mod import g as f" + MAIN + "f()", "pkg/mod.py::g"),
    (ELSEWHERE | MOD, "app.py", "import pkg.mod as m" + MAIN + "m.f()", "pkg/mod.py::f"),
    (ELSEWHERE | MOD, "app.py", "import pkg.mod" + MAIN + "pkg.mod.f()", "pkg/mod.py::f"),
    (ELSEWHERE | MOD, "pkg/sub/app.py", "from ..mod import f" + MAIN + "f()", "pkg/mod.py::f"),
    (ELSEWHERE | MOD, "pkg/app.py", "from . import mod" + MAIN + "mod.f()", "pkg/mod.py::f"),
    (ELSEWHERE | MOD | {"pkg/__init__.py": "from .mod import f"}, "app.py", "from pkg import f" + MAIN + "f()",
     "pkg/mod.py::f"),
    (ELSEWHERE | {"pkg/mod.py": "class K:\n    def run(self): pass"}, "app.py", "from pkg.mod import K" + MAIN + "K.run()",
     "pkg/mod.py::K.run"),
    (ELSEWHERE | MOD, "app.py", "from pkg.mod import f\ndef f(): pass" + MAIN + "f()", "app.py::f"),
    (ELSEWHERE, "app.py", "import json" + MAIN + "json.f()", None),
    (ELSEWHERE, "app.py", "class L:\n    def run(self): pass\ndef main(k):\n    k.run()", None),
    (ELSEWHERE, "app.py", "class L:\n    def stop(self): pass\ndef main(k):\n    k.stop()", "app.py::L.stop"),
    # An atlas that never resolved the caller still reports the edges a change of another file gives it.
    (TWICE | {"pkg/b.py": "", "app.py": "import pkg.b as m" + MAIN + "m.g()"}, "pkg/b.py", G, "pkg/b.py::g"),
    (TWICE | {"pkg/__init__.py": "from .b import g as f", "pkg/b.py": "", "app.py": "from pkg import f" + MAIN + "f()"},
     "pkg/b.py", G, "pkg/b.py::g"),
    (TWICE | PKG | {"pkg/b.py": G, "app.py": "from pkg import g" + MAIN + "g()"},
     "pkg/__init__.py", "from .b import *", "pkg/b.py::g"),
    ({"pkg/__init__.py": "from .b import g as f", "pkg/b.py": "", "app.py": "from pkg import f" + MAIN + "f()"},
     "other.py", G, "other.py::g"),
    (TWICE | PKG | {"pkg/b.py": G, "hub.py": "import pkg as P", "app.py": "from hub import P" + MAIN + "P.g()"},
     "pkg/__init__.py", "from .b import *", "pkg/b.py::g"),
    (TWICE | PKG | {"hub.py": "from pkg import *", "app.py": "from hub import g" + MAIN + "g()"},
     "pkg/__init__.py", G, "pkg/__init__.py::g"),
])
def test_calls_resolve_through_imports_also_in_a_fresh_atlas(start, rel, text, callee):
    old = {"schema": srcatlas.SCHEMA, "files": {name: record(body) for name, body in start.items()}}
    new = step(old, rel, text)
    assert diff(*srcatlas.Atlas(old).switch(new)) == diff(srcatlas.enrich(old), srcatlas.enrich(new))
    caller = next(name for name in [*start, rel] if name.endswith("app.py")) + "::main"
    assert {e["callee"] for e in srcatlas.enrich(new)["edges"] if e["caller"] == caller} == ({callee} if callee else set())
