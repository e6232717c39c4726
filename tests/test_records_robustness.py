"""Random nested plain values thrown at the record operations: each call returns what the plain
Python version returns, or raises when it raises, and a failed ledger write changes nothing."""

import json

from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import editor
import projstore
from helpers import json_like
from test_records_static_diff import reference as static_reference

SETTINGS = settings(max_examples=300, deadline=None, suppress_health_check=list(HealthCheck))


def outcome(fn, *args):
    try:
        return "ok", json.dumps(fn(*args))  # NaN compares equal as text
    except Exception:
        return "raised", None


@SETTINGS
@given(before=json_like, after=json_like, maps=st.booleans(), cap=st.integers(-3, 12) | st.booleans())
def test_static_diff(before, after, maps, cap):
    if maps:  # the same values where a map's members go
        before = {"edges": before, "symbols": after, "defs": {"f::<module>": before, "g::css::h": {"x": after}}}
        after = {"edges": [{"caller": before["symbols"], "callee": "c"}]}
    assert outcome(editor.static_diff, before, after, cap) == outcome(static_reference, before, after, cap)


@SETTINGS
@given(entry=json_like, count=json_like, stored=json_like)
def test_ledger_functions(entry, count, stored, tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    root = str(tmp_path / "project")
    ledger = projstore.ensure_orvel_dir(root) / editor.LEDGER_NAME
    ledger.write_text(json.dumps(stored))
    expected = ("ok", json.dumps(stored.get("steps", []))) if isinstance(stored, dict) else ("raised", None)
    assert outcome(editor.ledger_load, root) == expected
    for call, argument in ((editor.ledger_append, entry), (editor.ledger_mark_rolled_back, count)):
        before = ledger.read_text()
        if outcome(call, root, argument)[0] == "raised":
            assert ledger.read_text() == before
        else:
            assert ledger.read_text() == json.dumps({"steps": editor.ledger_load(root)}, indent=1)
