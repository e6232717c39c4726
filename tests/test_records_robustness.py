"""Random nested plain values thrown at the record operations: every call either returns what
the plain Python comparison returns or raises an ordinary exception, and never takes the
interpreter down."""

import json
from pathlib import Path

from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import editor
import projstore
from records_helpers import json_like
from test_records_static_diff import reference as static_reference

SETTINGS = settings(max_examples=300, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])

map_like = json_like | st.fixed_dictionaries(
    {},
    optional={
        "edges": json_like | st.lists(st.dictionaries(st.sampled_from(["caller", "callee"]), json_like), max_size=4),
        "symbols": json_like,
        "defs": json_like | st.dictionaries(st.text(max_size=12) | st.just("f.py::<module>"),
                                            json_like | st.dictionaries(st.text(max_size=4), json_like)),
    },
)


def outcome(fn, *args):
    try:
        return "ok", fn(*args)
    except Exception as e:  # the plain comparison's own failure, whatever its kind
        return "raised", type(e)


@SETTINGS
@given(before=map_like, after=map_like, cap=st.integers(-3, 12) | st.booleans())
def test_static_diff_agrees_with_the_plain_comparison_or_raises_with_it(before, after, cap):
    expected = outcome(static_reference, before, after, cap)
    actual = outcome(editor.static_diff, before, after, cap)
    assert actual[0] == expected[0]
    if expected[0] == "ok":
        assert json.dumps(actual[1]) == json.dumps(expected[1])  # NaN reprs compare as text


def session_reference(touched):
    import difflib

    chunks = []
    for path, before in sorted(touched.items()):
        try:
            after = Path(path).read_text(encoding="utf-8")
        except OSError:
            after = ""
        before = "" if before is None else before
        if before == after:
            continue
        body = "\n".join(difflib.unified_diff(before.splitlines(), after.splitlines(),
                                              fromfile="a/" + path.replace("\\", "/").split("/")[-1],
                                              tofile="b/" + path.replace("\\", "/").split("/")[-1], lineterm=""))
        if body:
            chunks.append(body)
    return "\n\n".join(chunks)


@SETTINGS
@given(touched=json_like | st.dictionaries(st.sampled_from(["a.txt", "sub", "", "x\\y.txt", "b\x00"]), json_like))
def test_session_diff_agrees_with_difflib_or_raises_with_it(touched, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)  # random paths are relative: they read inside the tmp dir only
    Path("a.txt").write_text("line\nother\n")
    Path("sub").mkdir(exist_ok=True)
    expected = outcome(session_reference, touched)
    actual = outcome(editor.session_diff, touched)
    assert actual[0] == expected[0] and (expected[0] == "raised" or actual == expected)


@SETTINGS
@given(entry=json_like, count=json_like, stored=json_like)
def test_ledger_functions_keep_the_file_valid_json(entry, count, stored, tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    root = str(tmp_path / "project")
    ledger = projstore.ensure_orvel_dir(root) / editor.LEDGER_NAME
    ledger.write_text(json.dumps(stored))
    loaded = outcome(editor.ledger_load, root)
    if not isinstance(stored, dict):
        assert loaded == ("raised", TypeError)  # a top-level value that cannot be indexed by "steps"
        return
    assert json.dumps(loaded[1]) == json.dumps(stored.get("steps", []))
    before = ledger.read_bytes()
    for call, argument in ((editor.ledger_append, entry), (editor.ledger_mark_rolled_back, count)):
        result = outcome(call, root, argument)
        if result[0] == "raised":
            assert ledger.read_bytes() == before
        else:
            steps = editor.ledger_load(root)
            assert ledger.read_text() == json.dumps({"steps": steps}, indent=1)
            before = ledger.read_bytes()


record_like = json_like | st.fixed_dictionaries(
    {"path": st.none() | st.sampled_from(["r1.txt", "r2.txt"]) | json_like,
     "text_before": st.none() | st.text(max_size=5) | json_like, "raw": json_like}
)


@SETTINGS
@given(snapshots=json_like | st.lists(record_like, max_size=4), steps=json_like | st.integers(-1, 5))
def test_rollback_returns_a_result_or_raises(snapshots, steps, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    result = outcome(editor.rollback_steps, snapshots, steps)
    if result[0] == "ok":
        assert set(result[1]) in ({"error"}, {"restored", "raw"})
    else:
        assert issubclass(result[1], (TypeError, KeyError, OSError, ValueError))
