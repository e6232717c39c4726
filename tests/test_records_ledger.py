import json
import math

import pytest
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, rule, run_state_machine_as_test

import editor
import projstore
from records_helpers import tree_digest

EMPTY_LEDGER = '{\n "steps": []\n}'


@pytest.fixture
def state_home(tmp_path, monkeypatch):
    home = tmp_path / "state"
    monkeypatch.setenv("EDITOR_STATE_HOME", str(home))
    return home


@pytest.fixture
def root(tmp_path, state_home):
    return str(tmp_path / "project")


def ledger_file(root):
    return projstore.project_dir(root) / editor.LEDGER_NAME


def test_the_file_is_what_the_hosts_json_dumps_writes(root):
    entries = [
        {"file": "src/ünïcödé.py", "lines": [1, [2, 3]], "meta": {"ok": True, "none": None, "no": False}},
        {"emoji": "😀 beyond the BMP", "ratio": 0.1, "big": 1e300, "tiny": 5e-324, "neg": -0.0},
        {"n": 99, "nested": [{"a": []}, {}, [[]]], "tab\tkey": "quote\" and \\ backslash"},
        {},
    ]
    for number, entry in enumerate(entries, 1):
        assert editor.ledger_append(root, entry) == number
    stored = editor.ledger_load(root)
    expected = [{**entry, "n": i, "ts": stored[i - 1]["ts"]} for i, entry in enumerate(entries, 1)]
    assert stored == expected
    data = ledger_file(root).read_bytes()
    assert data == json.dumps({"steps": expected}, indent=1).encode("ascii")
    assert b"\\ud83d\\ude00" in data and b"\\u00fc" in data


def test_empty_and_flagged_layouts(root):
    editor.ledger_mark_rolled_back(root, 1)
    assert ledger_file(root).read_text() == EMPTY_LEDGER and len(EMPTY_LEDGER) == 16
    editor.ledger_append(root, {})
    editor.ledger_mark_rolled_back(root, 1)
    [entry] = editor.ledger_load(root)
    assert ledger_file(root).read_text() == (
        '{\n "steps": [\n  {\n   "n": 1,\n   "ts": %r,\n   "rolled_back": true\n  }\n ]\n}' % entry["ts"]
    )


def test_the_callers_entry_is_copied_and_n_keeps_its_place(root):
    entry = {"a": 1, "n": 99, "b": 2}
    assert editor.ledger_append(root, entry) == 1
    assert entry == {"a": 1, "n": 99, "b": 2}
    [stored] = editor.ledger_load(root)
    assert list(stored) == ["a", "n", "b", "ts"] and stored["n"] == 1


@pytest.mark.parametrize(
    "content",
    [b"{}", b"{broken", b"\xff\xfe\x00garbage", b"", b'{"other": []}'],
    ids=["no-steps", "malformed", "not-utf8", "empty", "other-key"],
)
def test_unusable_ledgers_read_as_empty_and_numbering_restarts(root, content):
    ledger_file(root).parent.mkdir(parents=True)
    ledger_file(root).write_bytes(content)
    assert editor.ledger_load(root) == []
    assert editor.ledger_append(root, {"x": 1}) == 1
    assert [e["n"] for e in editor.ledger_load(root)] == [1]


def test_a_ledger_that_is_a_directory_reads_as_empty(root):
    ledger_file(root).mkdir(parents=True)
    assert editor.ledger_load(root) == []


@pytest.mark.parametrize(
    "content, call, error",
    [
        (b"[1, 2]", "load", TypeError),
        (b'{"steps": {"a": 1}}', "append", AttributeError),
        (b'{"steps": [1]}', "mark", AttributeError),
    ],
)
def test_other_faults_in_the_file_propagate_and_leave_it_unchanged(root, content, call, error):
    ledger_file(root).parent.mkdir(parents=True)
    ledger_file(root).write_bytes(content)
    with pytest.raises(error):
        {"load": lambda: editor.ledger_load(root),
         "append": lambda: editor.ledger_append(root, {}),
         "mark": lambda: editor.ledger_mark_rolled_back(root, 1)}[call]()
    assert ledger_file(root).read_bytes() == content


@pytest.mark.parametrize("entry, type_name", [([("a", 1)], "list"), (5, "int"), ("ab", "str")])
def test_an_entry_that_is_not_a_mapping_writes_nothing(root, state_home, entry, type_name):
    with pytest.raises(TypeError, match=f"^'{type_name}' object is not a mapping$"):
        editor.ledger_append(root, entry)
    assert not state_home.exists()


def test_an_unencodable_entry_leaves_the_file_as_it_was(root):
    editor.ledger_append(root, {"ok": 1})
    before = ledger_file(root).read_bytes()
    with pytest.raises(TypeError):
        editor.ledger_append(root, {"bad": {1, 2}})
    assert ledger_file(root).read_bytes() == before


@pytest.mark.parametrize("count", [0, -1, -5])
def test_a_count_below_one_flags_nothing(root, count):
    for _ in range(3):
        editor.ledger_append(root, {})
    editor.ledger_mark_rolled_back(root, count)
    assert all("rolled_back" not in e for e in editor.ledger_load(root))


@pytest.mark.parametrize("count", [1.0, "2", None])
def test_a_count_that_is_not_an_integer_raises_and_writes_nothing(root, state_home, count):
    with pytest.raises(TypeError):
        editor.ledger_mark_rolled_back(root, count)
    assert not state_home.exists() or tree_digest(state_home) == {}


class LedgerMachine(RuleBasedStateMachine):
    """Appends and marks against a list model of the entries."""

    roots = 0

    def __init__(self, base):
        super().__init__()
        LedgerMachine.roots += 1
        self.root = str(base / f"project{LedgerMachine.roots}")
        self.model = []

    @rule(entry=st.dictionaries(st.sampled_from(["file", "n", "ts", "why", "rolled_back"]),
                                st.integers() | st.text(max_size=5) | st.booleans(), max_size=4))
    def append(self, entry):
        number = editor.ledger_append(self.root, entry)
        self.model.append({**entry, "n": len(self.model) + 1})
        assert number == len(self.model)
        self._compare()

    @rule(count=st.integers(-2, 6))
    def mark(self, count):
        editor.ledger_mark_rolled_back(self.root, count)
        unflagged = [e for e in self.model if not e.get("rolled_back")]
        for e in unflagged[max(len(unflagged) - count, 0):] if count >= 1 else []:
            e["rolled_back"] = True
        self._compare()

    def _compare(self):
        stored = editor.ledger_load(self.root)
        assert [{k: v for k, v in e.items() if k != "ts"} for e in stored] == [
            {k: v for k, v in e.items() if k != "ts"} for e in self.model
        ]
        stamps = [e["ts"] for e in stored]
        assert all(isinstance(t, float) and math.isfinite(t) for t in stamps) and stamps == sorted(stamps)
        assert ledger_file(self.root).read_text() == json.dumps({"steps": stored}, indent=1)


def test_append_and_mark_sequences_follow_the_model(tmp_path, state_home):
    run_state_machine_as_test(
        lambda: LedgerMachine(tmp_path),
        settings=settings(max_examples=40, stateful_step_count=10, deadline=None,
                          suppress_health_check=[HealthCheck.function_scoped_fixture]),
    )
