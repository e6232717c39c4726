"""The stand-in indexer: what its maps hold, and that updates never touch an IR in a snapshot."""

import json
import shutil
from pathlib import Path

import pytest

import srcatlas
from srcatlas.css import css_scopes
from srcatlas.python_source import index_python

import editor

SAMPLE = Path(__file__).resolve().parent.parent / "demo" / "sample_project"


@pytest.fixture
def project(tmp_path):
    root = tmp_path / "proj"
    shutil.copytree(SAMPLE, root)
    return root


def test_maps_of_the_sample_project(project):
    index = srcatlas.enrich(srcatlas.build(project))
    edges = {(e["caller"], e["callee"]) for e in index["edges"]}
    assert ("inventory/pricing.py::total_value", "inventory/pricing.py::gross_value") in edges
    assert ("inventory/pricing.py::net_value", "inventory/util.py::round_money") in edges
    assert ("inventory/pricing.py::net_value", "inventory/models.py::Item.value") in edges
    # load_items exists once, but json.load is no project function: no edge to anything
    assert not any(caller.startswith("tools/") for caller, _ in edges)
    assert {"inventory/models.py::MAX_ITEMS", "inventory/models.py::Warehouse.add",
            "inventory/report.py::render"} <= set(index["symbols"])
    assert index["defs"]["inventory/models.py::<module>"]["MAX_ITEMS"] == [{"line": 3, "rhs": "500"}]
    assert index["defs"]["static/style.css::css::.report td"] == {"padding": [{"line": 12, "rhs": "4px 8px"}]}


@pytest.mark.parametrize(
    ("css", "expected"),
    [
        ("a { color: red; }", {"css::a": {"color": [{"line": 1, "rhs": "red"}]}}),
        ("/* x: y; */\np {\n  margin : 0 auto\n}", {"css::p": {"margin": [{"line": 3, "rhs": "0 auto"}]}}),
        ("@media print {\n .x { display: none; }\n}", {"css::@media print .x": {"display": [{"line": 2, "rhs": "none"}]}}),
        ("a { b: 1; b: 2; }", {"css::a": {"b": [{"line": 1, "rhs": "1"}, {"line": 1, "rhs": "2"}]}}),
    ],
)
def test_css_declarations(css, expected):
    assert css_scopes(css) == expected


def test_update_reparses_one_file_and_leaves_the_old_ir_alone(project):
    raw = srcatlas.build(project)
    frozen = json.dumps(raw, sort_keys=True)
    models = project / "inventory" / "models.py"
    models.write_text(models.read_text().replace("MAX_ITEMS = 500", "MAX_ITEMS = 800\nLIMIT = 2"))
    new = srcatlas.update(raw, str(project), str(models))
    assert json.dumps(raw, sort_keys=True) == frozen
    assert new["files"]["inventory/pricing.py"] is raw["files"]["inventory/pricing.py"]
    defs = srcatlas.enrich(new)["defs"]["inventory/models.py::<module>"]
    assert defs["MAX_ITEMS"][0]["rhs"] == "800" and "LIMIT" in defs


def test_removed_files_and_directories_leave_the_index(project):
    raw = srcatlas.build(project)
    shutil.rmtree(project / "inventory")
    new = srcatlas.update(raw, str(project), str(project / "inventory"))
    assert not any(rel.startswith("inventory/") for rel in new["files"])
    assert "tools/util.py" in new["files"]


def test_raw_ir_is_plain_json_and_rebuilds_the_same_maps(project):
    raw = srcatlas.build(project)
    assert srcatlas.enrich(json.loads(json.dumps(raw))) == srcatlas.enrich(raw)


def test_a_file_that_does_not_parse_has_no_symbols(project):
    (project / "broken.py").write_text("def f(:\n")
    (project / "latin1.py").write_bytes(b"x = '\xe9'\n")
    raw = srcatlas.build(project)
    assert raw["files"]["broken.py"]["symbols"] == []
    assert raw["files"]["latin1.py"]["kind"] == "file"


def edges_of(texts):
    raw = {"schema": srcatlas.SCHEMA, "files": {rel: index_python(text) for rel, text in texts.items()}}
    return {(e["caller"], e["callee"]) for e in srcatlas.enrich(raw)["edges"]}


ELSEWHERE = {"other.py": "def f():\n    pass\ndef g():\n    pass\nclass K:\n    def run(self):\n        pass\n"}


@pytest.mark.parametrize(
    ("files", "callee"),
    [
        ({"pkg/mod.py": "def f(): pass", "app.py": "from pkg.mod import f\ndef main():\n    f()"}, "pkg/mod.py::f"),
        ({"pkg/mod.py": "def g(): pass", "app.py": "from pkg.mod import g as f\ndef main():\n    f()"}, "pkg/mod.py::g"),
        ({"pkg/mod.py": "def f(): pass", "app.py": "import pkg.mod as m\ndef main():\n    m.f()"}, "pkg/mod.py::f"),
        ({"pkg/mod.py": "def f(): pass", "app.py": "import pkg.mod\ndef main():\n    pkg.mod.f()"}, "pkg/mod.py::f"),
        ({"pkg/mod.py": "def f(): pass", "pkg/sub/app.py": "from ..mod import f\ndef main():\n    f()"}, "pkg/mod.py::f"),
        ({"pkg/mod.py": "def f(): pass", "pkg/app.py": "from . import mod\ndef main():\n    mod.f()"}, "pkg/mod.py::f"),
        ({"pkg/mod.py": "def f(): pass", "pkg/__init__.py": "from .mod import f",
          "app.py": "from pkg import f\ndef main():\n    f()"}, "pkg/mod.py::f"),
        ({"pkg/mod.py": "class K:\n    def run(self): pass",
          "app.py": "from pkg.mod import K\ndef main():\n    K.run()"}, "pkg/mod.py::K.run"),
        ({"pkg/mod.py": "def f(): pass", "app.py": "from pkg.mod import f\ndef f(): pass\ndef main():\n    f()"},
         "app.py::f"),
        ({"app.py": "import json\ndef main():\n    json.f()"}, None),
        ({"app.py": "class L:\n    def run(self): pass\ndef main(k):\n    k.run()"}, None),
        ({"app.py": "class L:\n    def stop(self): pass\ndef main(k):\n    k.stop()"}, "app.py::L.stop"),
    ],
    ids=["from", "from-as", "import-as", "import-dotted", "relative-up", "relative-module", "re-export",
         "class-member", "local-wins", "external", "ambiguous", "unique-method"],
)
def test_calls_resolve_through_imports(files, callee):
    edges = edges_of(ELSEWHERE | files)
    caller = next(rel for rel in files if rel.endswith("app.py")) + "::main"
    assert {c for a, c in edges if a == caller} == ({callee} if callee else set())


def test_a_name_added_elsewhere_moves_no_edge_of_unrelated_files():
    files = {"lib.py": "def helper(): pass\nclass Job:\n    def start(self): pass",
             "use.py": "from lib import helper, Job\ndef main(job: Job):\n    helper()\n    Job().start()",
             "new.py": "X = 1"}
    old = {"schema": srcatlas.SCHEMA, "files": {rel: index_python(text) for rel, text in files.items()}}
    atlas = srcatlas.Atlas(old)
    new = dict(old, files=dict(old["files"], **{"new.py": index_python("X = 1\ndef helper(): pass")}))
    before, after = atlas.switch(new)
    assert not any(e["caller"].startswith("use.py") for e in before["edges"] + after["edges"])
    assert editor.static_diff(before, after) == {"symbols_added": ["new.py::helper"]}
    assert atlas.callers(["lib.py::helper"]) == {"lib.py::helper": ["use.py::main"]}
