import itertools
import json

import pytest
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, rule, run_state_machine_as_test

import editor
import projstore
pytestmark = pytest.mark.leaks


@pytest.fixture
def root(tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    return str(tmp_path / "project")


def ledger_file(root):
    return projstore.project_dir(root) / editor.LEDGER_NAME


@pytest.mark.parametrize("content", [b"{}", b"{broken", b"\xff\xfe garbage", b"", None],
                         ids=["no-steps", "malformed", "not-utf8", "empty", "directory"])
def test_unusable_ledgers_read_as_empty_and_numbering_restarts(root, content):
    ledger_file(root).parent.mkdir(parents=True)
    ledger_file(root).mkdir() if content is None else ledger_file(root).write_bytes(content)
    assert editor.ledger_load(root) == []
    if content is not None:
        assert editor.ledger_append(root, {"x": 1}) == 1 and len(editor.ledger_load(root)) == 1


@pytest.mark.parametrize("content, call, argument, error", [
    (b"[1, 2]", "load", (), TypeError), (b'{"steps": {"a": 1}}', "append", ({},), AttributeError),
    (b'{"steps": [1]}', "mark_rolled_back", (1,), AttributeError), (b"{}", "append", ({"bad": {1, 2}},), TypeError),
    (b"{}", "append", ([("a", 1)],), TypeError), (b"{}", "mark_rolled_back", (1.0,), TypeError),
    (b"{}", "append", (5,), "'int' object is not a mapping"),
])
def test_other_faults_propagate_and_leave_the_file_unchanged(root, content, call, argument, error):
    ledger_file(root).parent.mkdir(parents=True)
    ledger_file(root).write_bytes(content)
    error, match = (TypeError, f"^{error}$") if isinstance(error, str) else (error, None)
    with pytest.raises(error, match=match):
        getattr(editor, "ledger_" + call)(root, *argument)
    assert ledger_file(root).read_bytes() == content


class LedgerMachine(RuleBasedStateMachine):
    # Appends and marks (counts below 1 flag nothing) against a list model of the entries.

    projects = itertools.count()

    def __init__(self, base):
        super().__init__()
        self.root, self.model = str(base / f"project{next(self.projects)}"), []

    @rule(entry=st.dictionaries(st.sampled_from(["file", "n", "ts", "rolled_back", "ü😀\t\""]),
                                st.integers() | st.text(max_size=5) | st.booleans() | st.floats(), max_size=4))
    def append(self, entry):
        self.model.append({**entry, "n": len(self.model) + 1, "ts": None})  # keys keep their places
        assert editor.ledger_append(self.root, entry) == len(self.model)

    @rule(count=st.integers(-2, 6))
    def mark(self, count):
        editor.ledger_mark_rolled_back(self.root, count)
        unflagged = [e for e in self.model if not e.get("rolled_back")]
        for e in unflagged[max(len(unflagged) - count, 0):] if count >= 1 else []:
            e["rolled_back"] = True

    def teardown(self):
        stored = editor.ledger_load(self.root)
        assert json.dumps([{**e, "ts": None} for e in stored]) == json.dumps(self.model)
        stamps = [e["ts"] for e in stored]
        assert all(isinstance(t, float) for t in stamps) and stamps == sorted(stamps)
        # Empty or flagged, the file is laid out as the host's json.dumps lays it out.
        if ledger_file(self.root).exists():
            assert ledger_file(self.root).read_bytes() == json.dumps({"steps": stored}, indent=1).encode("ascii")


def test_append_and_mark_sequences_follow_the_model(tmp_path, root):
    run_state_machine_as_test(lambda: LedgerMachine(tmp_path), settings=settings(
        max_examples=40, stateful_step_count=10, deadline=None, suppress_health_check=list(HealthCheck)))
