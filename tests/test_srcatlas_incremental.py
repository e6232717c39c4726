"""The incremental index: switching between raw IRs gives the same static diff as enriching both
whole, and `build` reuses records whose stamp has not moved."""

import json

import pytest
from hypothesis import given, settings, strategies as st

import editor
import srcatlas
from srcatlas.python_source import index_python

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
    """A lookup of the callable names of `raw` as a store's table answers it; `cap` lowers the
    limit below which ids are handed out, so that the atlas also counts names it holds no ids of."""
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


def test_build_reads_only_files_whose_stamp_moved(tmp_path, monkeypatch):
    for name in ("a.py", "b.py", "c.css"):
        (tmp_path / name).write_text("def f():\n    pass\n" if name.endswith(".py") else "a { b: c; }")
    first = srcatlas.build(tmp_path)
    (tmp_path / "b.py").write_text("def g():\n    return f()\n")
    read = []
    real = srcatlas.records._index_file
    monkeypatch.setattr(srcatlas.records, "_index_file", lambda path: read.append(path) or real(path))

    def reuse(rel, size, mtime_ns):
        old = first["files"][rel]
        return old if (old["size"], old["mtime_ns"]) == (size, mtime_ns) else None

    again = srcatlas.build(tmp_path, reuse=reuse)
    assert read == [str(tmp_path / "b.py")]
    assert again["files"]["a.py"] is first["files"]["a.py"]
    assert srcatlas.enrich(again)["symbols"].keys() == {"a.py::f", "b.py::g"}


TWICE = {"x.py": "def g(): pass", "y.py": "def g(): pass"}


@pytest.mark.parametrize(
    ("start", "rel", "text", "edge"),
    [
        (TWICE | {"pkg/b.py": "", "app.py": "import pkg.b as m\ndef main():\n    m.g()"},
         "pkg/b.py", "def g(): pass", "app.py::main -> b.py::g"),
        (TWICE | {"pkg/__init__.py": "from .b import g as f", "pkg/b.py": "",
                  "app.py": "from pkg import f\ndef main():\n    f()"},
         "pkg/b.py", "def g(): pass", "app.py::main -> b.py::g"),
        (TWICE | {"pkg/__init__.py": "", "pkg/b.py": "def g(): pass",
                  "app.py": "from pkg import g\ndef main():\n    g()"},
         "pkg/__init__.py", "from .b import *", "app.py::main -> b.py::g"),
        ({"pkg/__init__.py": "from .b import g as f", "pkg/b.py": "",
          "app.py": "from pkg import f\ndef main():\n    f()"},
         "other.py", "def g(): pass", "app.py::main -> other.py::g"),
        (TWICE | {"pkg/__init__.py": "", "pkg/b.py": "def g(): pass", "hub.py": "import pkg as P",
                  "app.py": "from hub import P\ndef main():\n    P.g()"},
         "pkg/__init__.py", "from .b import *", "app.py::main -> b.py::g"),
        (TWICE | {"pkg/__init__.py": "", "hub.py": "from pkg import *",
                  "app.py": "from hub import g\ndef main():\n    g()"},
         "pkg/__init__.py", "def g(): pass", "app.py::main -> __init__.py::g"),
    ],
    ids=["module-alias", "alias-re-export", "star-re-export", "fallback-through-re-export",
         "star-through-alias", "through-star-importer"],
)
def test_a_fresh_atlas_reports_edges_of_files_it_has_not_resolved(start, rel, text, edge):
    old = {"schema": srcatlas.SCHEMA, "files": {name: record(body) for name, body in start.items()}}
    new = step(old, rel, text)
    result = diff(*srcatlas.Atlas(old).switch(new))
    assert result == diff(srcatlas.enrich(old), srcatlas.enrich(new))
    assert edge in result["edges_added"]
