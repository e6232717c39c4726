"""One session's records end to end, with the stand-in indexer's real maps and IR."""

import shutil
from pathlib import Path

import editor
import srcatlas

SAMPLE = Path(__file__).resolve().parent.parent / "demo" / "sample_project"


def test_edit_report_record_and_roll_back(tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    root = tmp_path / "proj"
    shutil.copytree(SAMPLE, root)
    raw, stack, touched = srcatlas.build(root), [], {}
    for rel, old, new in [("inventory/models.py", "MAX_ITEMS = 500", "MAX_ITEMS = 50"),
                          ("static/style.css", "color: #224;", "")]:
        path = str(root / rel)
        stack.append(editor.take_snapshot(raw, path))
        touched.setdefault(path, stack[-1]["text_before"])
        Path(path).write_text(stack[-1]["text_before"].replace(old, new))
        before, raw = srcatlas.enrich(raw), srcatlas.update(raw, str(root), path)
        editor.ledger_append(str(root), {"file": rel, "static": editor.static_diff(before, srcatlas.enrich(raw))})
    assert [e["static"] for e in editor.ledger_load(str(root))] == [
        {"values_changed": ["models.py::MAX_ITEMS: '500' -> '50'"]},
        {"constants_removed": ["style.css::css::h1::color"]},
    ]
    assert editor.session_diff(touched).count("\n--- a/") == 1
    first = stack[0]["raw"]
    assert editor.rollback_steps(stack, 2)["raw"] is first and editor.session_diff(touched) == ""
    editor.ledger_mark_rolled_back(str(root), 2)
    assert all(e["rolled_back"] for e in editor.ledger_load(str(root)))
    assert editor.static_diff(srcatlas.enrich(first), srcatlas.enrich(srcatlas.build(root))) == {
        "note": "no structural change (edit was within existing bodies)"}
