"""The stand-in indexer: what its maps hold, and that updates never touch an IR in a snapshot."""

import json
import shutil
from pathlib import Path

import pytest

import srcatlas
from srcatlas.css import css_scopes

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
