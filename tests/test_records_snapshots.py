import os
from pathlib import Path

import pytest
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, invariant, precondition, rule, run_state_machine_as_test

import editor
from records_helpers import file_text, tree_digest, tree_texts


def write(path, text):
    # Plain writes, line ends kept as given: the session's own write tools are not under test.
    with open(path, "w", encoding="utf-8", newline="") as f:
        f.write(text)


class SnapshotMachine(RuleBasedStateMachine):
    """Writes, each after take_snapshot, then rollbacks of random depth; a model keeps the
    tree as it stood before every write."""

    def __init__(self, root):
        super().__init__()
        self.root = root
        for path in root.iterdir():
            path.unlink()
        self.stack = []
        self.before = []  # (tree texts, raw object) as they were right before each write

    def _step(self, path):
        raw = {"step": len(self.stack)}
        self.before.append((tree_texts(self.root), raw))
        record = editor.take_snapshot(raw, path)
        assert list(record) == ["ts", "path", "text_before", "raw"] and record["raw"] is raw
        self.stack.append(record)

    @rule(name=st.sampled_from("abcde"), text=file_text)
    def write_file(self, name, text):
        path = str(self.root / f"{name}.txt")
        self._step(path)
        write(path, text)

    @rule()
    def step_without_file(self):
        self._step(None)

    @precondition(lambda self: self.stack)
    @rule(data=st.data())
    def roll_back(self, data):
        k = data.draw(st.integers(1, len(self.stack)))
        popped = self.stack[-k:][::-1]
        expected_restored = [
            r["path"] + " (deleted)" if r["text_before"] is None else r["path"]
            for r in popped
            if r["path"] is not None
        ]
        result = editor.rollback_steps(self.stack, k)
        texts, raw = self.before[-k]
        del self.before[-k:]
        assert tree_texts(self.root) == texts
        assert result["raw"] is raw
        assert result == {"restored": expected_restored, "raw": raw}

    @rule(steps=st.one_of(st.integers(max_value=0), st.integers(min_value=1)))
    def refused(self, steps):
        if 1 <= steps <= len(self.stack):
            return
        tree = tree_digest(self.root)
        stack = list(self.stack)
        message = "steps must be >= 1" if steps < 1 else f"only {len(stack)} step(s) on the snapshot stack"
        assert editor.rollback_steps(self.stack, steps) == {"error": message}
        assert tree_digest(self.root) == tree and self.stack == stack

    @invariant()
    def stack_matches_model(self):
        assert len(self.stack) == len(self.before)


def test_rollback_restores_the_tree_before_the_kth_newest_write(tmp_path):
    run_state_machine_as_test(
        lambda: SnapshotMachine(tmp_path),
        settings=settings(max_examples=60, stateful_step_count=12, deadline=None,
                          suppress_health_check=[HealthCheck.function_scoped_fixture]),
    )


def test_snapshot_reads_universal_newlines_and_rollback_writes_them_back(tmp_path):
    path = tmp_path / "crlf.txt"
    path.write_bytes(b"one\r\ntwo\rthree\n")
    stack = [editor.take_snapshot({}, str(path))]
    assert stack[0]["text_before"] == "one\ntwo\nthree\n"
    path.write_bytes(b"changed on disk, never compared")
    editor.rollback_steps(stack, 1)
    assert path.read_bytes() == b"one\ntwo\nthree\n"


def test_snapshot_holds_the_callers_ir_and_no_text_for_a_missing_file(tmp_path):
    raw = {"ir": []}
    record = editor.take_snapshot(raw, str(tmp_path / "absent.py"))
    raw["ir"].append(1)
    assert record["raw"] is raw and record["text_before"] is None
    assert record["path"] == str(tmp_path / "absent.py") and isinstance(record["ts"], float)
    assert editor.take_snapshot(raw, None)["path"] is None


@pytest.mark.parametrize(
    "content, error",
    [(b"\xff\xfe not utf-8", UnicodeDecodeError), (None, IsADirectoryError)],
)
def test_snapshot_of_an_unreadable_path_raises(tmp_path, content, error):
    path = tmp_path / "target"
    if content is None:
        path.mkdir()
    else:
        path.write_bytes(content)
    with pytest.raises(error):
        editor.take_snapshot({}, str(path))


def test_undoing_a_creation_whose_file_is_gone_is_refused_after_earlier_restores(tmp_path):
    edited, created = tmp_path / "edited.txt", tmp_path / "created.txt"
    edited.write_text("old")
    stack = [{"kept": True}, editor.take_snapshot({"r": 0}, str(created))]
    stack.append(editor.take_snapshot({"r": 1}, str(edited)))
    edited.write_text("new")
    result = editor.rollback_steps(stack, 2)
    assert result == {"error": f"could not delete {created}: [Errno 2] No such file or directory: '{created}'"}
    # Both popped records are consumed; the edit popped before the failure stays undone.
    assert stack == [{"kept": True}] and edited.read_text() == "old"


def test_only_the_records_it_reaches_are_consumed_by_a_failing_write(tmp_path):
    blocked = tmp_path / "blocked"
    blocked.mkdir()
    stack = [editor.take_snapshot({}, None), {"ts": 0.0, "path": str(blocked), "text_before": "x", "raw": 1}]
    with pytest.raises(IsADirectoryError):
        editor.rollback_steps(stack, 2)
    assert len(stack) == 1


@pytest.mark.parametrize("steps, error", [(1.0, TypeError), ("1", TypeError), (None, TypeError)])
def test_steps_that_is_not_an_integer_raises_before_anything_is_popped(tmp_path, steps, error):
    path = tmp_path / "f.txt"
    path.write_text("before")
    stack = [editor.take_snapshot({}, str(path))]
    path.write_text("after")
    with pytest.raises(error):
        editor.rollback_steps(stack, steps)
    assert len(stack) == 1 and path.read_text() == "after"


@pytest.mark.parametrize(
    "bad, error",
    [
        ("not a record", TypeError),
        ({"ts": 0.0, "text_before": None, "raw": 1}, KeyError),
        ({"ts": 0.0, "path": None, "text_before": None}, KeyError),
        ({"ts": 0.0, "path": b"/bytes", "text_before": None, "raw": 1}, TypeError),
        ({"ts": 0.0, "path": "/x", "text_before": b"bytes", "raw": 1}, TypeError),
    ],
)
def test_a_malformed_record_raises_with_files_and_stack_untouched(tmp_path, bad, error):
    created, edited = tmp_path / "created.txt", tmp_path / "edited.txt"
    edited.write_text("old")
    stack = [bad, editor.take_snapshot({}, str(created)), editor.take_snapshot({}, str(edited))]
    created.write_text("new file")
    edited.write_text("new text")
    tree, before = tree_digest(tmp_path), list(stack)
    with pytest.raises(error):
        editor.rollback_steps(stack, 3)
    assert tree_digest(tmp_path) == tree and stack == before


def test_snapshots_that_is_not_a_list_raises():
    with pytest.raises(TypeError):
        editor.rollback_steps(({"path": None, "text_before": None, "raw": 1},), 1)


def test_keyword_arguments_and_a_stack_emptied_exactly(tmp_path):
    stack = [editor.take_snapshot(raw_data={"oldest": 1}, abs_path=None), editor.take_snapshot({}, None)]
    assert editor.rollback_steps(snapshots=stack, steps=2) == {"restored": [], "raw": {"oldest": 1}}
    assert stack == []
    assert os.listdir(tmp_path) == []
