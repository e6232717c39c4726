"""Random nested plain values thrown at the record operations: each call returns what the plain
Python version returns, or raises when it raises, and never takes the interpreter down."""

import json
from pathlib import Path

from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import editor
import projstore
from helpers import json_like
from test_records_session_diff import unified
from test_records_static_diff import reference as static_reference

SETTINGS = settings(max_examples=300, deadline=None, suppress_health_check=list(HealthCheck))


def outcome(fn, *args):
    try:
        return "ok", json.dumps(fn(*args))  # NaN compares equal as text
    except Exception:
        return "raised", None


def session_reference(touched):
    chunks = []
    for path, before in sorted(touched.items()):
        try:
            after = Path(path).read_text(encoding="utf-8")
        except OSError:
            after = ""
        before = "" if before is None else before
        if before != after:
            chunks.append(unified(before, after, path.replace("\\", "/").split("/")[-1]))
    return "\n\n".join(c for c in chunks if c)


@SETTINGS
@given(before=json_like, after=json_like, maps=st.booleans(), cap=st.integers(-3, 12) | st.booleans())
def test_static_diff(before, after, maps, cap):
    if maps:  # the same values where a map's members go
        before = {"edges": before, "symbols": after, "defs": {"f::<module>": before, "g::css::h": {"x": after}}}
        after = {"edges": [{"caller": before["symbols"], "callee": "c"}]}
    assert outcome(editor.static_diff, before, after, cap) == outcome(static_reference, before, after, cap)


@SETTINGS
@given(touched=json_like | st.dictionaries(st.sampled_from(["a.txt", "sub", "", "x\\y", "b\x00"]), json_like))
def test_session_diff(touched, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)  # the random paths are relative: they only read inside tmp_path
    Path("a.txt").write_text("line\nother\n")
    Path("sub").mkdir(exist_ok=True)
    assert outcome(editor.session_diff, touched) == outcome(session_reference, touched)


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
