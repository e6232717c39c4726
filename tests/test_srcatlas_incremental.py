"""The incremental index: switching between raw IRs gives the same static diff as enriching both
whole, and `build` reuses records whose stamp has not moved."""

import json

from hypothesis import given, settings, strategies as st

import editor
import srcatlas
from srcatlas.python_source import index_python

MODULES = ["pkg/__init__.py", "pkg/a.py", "pkg/b.py", "pkg/sub/__init__.py", "pkg/sub/c.py", "d.py"]
IMPORTS = ["from pkg.a import f", "from pkg.b import g as f", "from pkg import a", "import pkg.b as m",
           "from . import b", "from .a import K", "from ..b import g", "from pkg import *", "import d",
           "from pkg.sub import c", "import json", "from .sub.c import h"]
CALLS = ["f()", "g()", "h()", "m.g()", "a.f()", "b.K()", "c.h()", "d.f()", "K()", "self.run()",
         "obj.run()", "obj.stop()", "json.load()", "pkg.a.f()", "K.run()", "make().stop()"]


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


@settings(max_examples=150, deadline=None)
@given(st.dictionaries(st.sampled_from(MODULES), module_text(), min_size=1),
       st.lists(st.tuples(st.sampled_from(MODULES), st.none() | module_text(), st.integers(0, 9)), max_size=6))
def test_switching_matches_enriching_whole(start, changes):
    history = [{"schema": srcatlas.SCHEMA, "files": {rel: record(text) for rel, text in sorted(start.items())}}]
    atlas = srcatlas.Atlas(history[0])
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
