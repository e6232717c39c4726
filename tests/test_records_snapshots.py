import pytest
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, precondition, rule, run_state_machine_as_test

import editor
from helpers import file_text, tree_digest, tree_texts
pytestmark = pytest.mark.leaks


class SnapshotMachine(RuleBasedStateMachine):
    # Plain writes, each after take_snapshot, and rollbacks of random depth, against a model
    # of the tree as it stood before every write.

    def __init__(self, root):
        super().__init__()
        self.root, self.stack, self.before = root, [], []
        for path in root.iterdir():
            path.unlink()

    def _snapshot(self, path):
        raw = {"step": len(self.stack)}
        self.before.append((tree_texts(self.root), raw))
        self.stack.append(editor.take_snapshot(raw, path))
        assert list(self.stack[-1]) == ["ts", "path", "text_before", "raw"] and self.stack[-1]["raw"] is raw

    @rule(name=st.sampled_from("abcde"), text=file_text)
    def write(self, name, text):
        path = str(self.root / name)
        self._snapshot(path)
        with open(path, "w", encoding="utf-8", newline="") as f:
            f.write(text)

    @rule()
    def step_without_file(self):
        self._snapshot(None)

    @precondition(lambda self: self.stack)
    @rule(data=st.data())
    def roll_back(self, data):
        k = data.draw(st.integers(1, len(self.stack)))
        restored = [r["path"] + " (deleted)" * (r["text_before"] is None) for r in self.stack[-k:][::-1] if r["path"]]
        texts, raw = self.before[-k]
        result = editor.rollback_steps(self.stack, k)
        del self.before[-k:]
        assert tree_texts(self.root) == texts and result["raw"] is raw
        assert result == {"restored": restored, "raw": raw} and len(self.stack) == len(self.before)

    @rule(steps=st.integers(-3, 12))
    def refused(self, steps):
        tree, stack = tree_digest(self.root), list(self.stack)
        with pytest.raises(TypeError):  # every record is checked before any file is written
            editor.rollback_steps(["not a record", *self.stack], len(self.stack) + 1)
        if not 1 <= steps <= len(self.stack):
            message = "steps must be >= 1" if steps < 1 else f"only {len(stack)} step(s) on the snapshot stack"
            assert editor.rollback_steps(self.stack, steps) == {"error": message}
        assert tree_digest(self.root) == tree and self.stack == stack


def test_rollback_restores_the_tree_before_the_kth_newest_write(tmp_path):
    run_state_machine_as_test(lambda: SnapshotMachine(tmp_path), settings=settings(
        max_examples=60, stateful_step_count=12, deadline=None, suppress_health_check=list(HealthCheck)))


def test_crlf_comes_back_as_lf_and_a_failing_write_consumes_only_the_records_reached(tmp_path):
    path = tmp_path / "crlf.txt"
    path.write_bytes(b"\xff not utf-8")
    with pytest.raises(UnicodeDecodeError):
        editor.take_snapshot({}, str(path))
    path.write_bytes(b"one\r\ntwo\rthree\n")
    stack = [editor.take_snapshot({}, None), editor.take_snapshot({}, str(path)),
             {"ts": 0.0, "path": str(tmp_path), "text_before": "x", "raw": 1}]
    path.write_bytes(b"changed on disk, never compared")
    with pytest.raises(IsADirectoryError):
        editor.rollback_steps(stack, 3)
    assert len(stack) == 2 and editor.rollback_steps(stack, 1) == {"restored": [str(path)], "raw": {}}
    assert path.read_bytes() == b"one\ntwo\nthree\n"
    with pytest.raises(IsADirectoryError):
        editor.take_snapshot({}, str(tmp_path))


def test_undoing_a_creation_whose_file_is_gone_is_refused_after_earlier_restores(tmp_path):
    edited, created = tmp_path / "edited.txt", tmp_path / "created.txt"
    edited.write_text("old")
    stack = [{"kept": True}, editor.take_snapshot({}, str(created)), editor.take_snapshot({}, str(edited))]
    edited.write_text("new")
    assert editor.rollback_steps(stack, 2) == {
        "error": f"could not delete {created}: [Errno 2] No such file or directory: '{created}'"}
    assert stack == [{"kept": True}] and edited.read_text() == "old"
