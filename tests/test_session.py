"""An edit end to end: session invariants across processes, the command line."""

import contextlib
import json
import subprocess
import sys
from pathlib import Path

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import srcatlas
from editor_session import cli
from editor_session.session import Session

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "demo"))
import run as demo  # noqa: E402


@pytest.fixture(autouse=True)
def state_home(tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))


def tree(root):
    return {p.relative_to(root).as_posix(): p.read_bytes()
            for p in sorted(Path(root).rglob("*")) if p.is_file() and ".git" not in p.parts}


@pytest.fixture
def opened():
    with contextlib.ExitStack() as stack:  # every session opened is closed at the end of the test
        yield lambda root: stack.enter_context(contextlib.closing(Session.open(str(root))))


TOOL_CALLS = st.lists(
    st.one_of(
        st.tuples(st.just("edit"), st.sampled_from(["models.py", "pricing.py", "style.css", "Stock.java"]),
                  st.integers(0, 14), st.text(st.sampled_from("abc XYZ=():\n{};"), max_size=30),
                  st.sampled_from(["replace", "insert_before", "insert_after"])),
        st.tuples(st.just("create"), st.sampled_from(["new.py", "pkg/new.css", "n/o/t.txt"]),
                  st.text(st.sampled_from("def f(): x\n"), max_size=20)),
        st.tuples(st.just("rollback"), st.integers(1, 3)),
    ),
    max_size=8,
)


@settings(max_examples=25, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(calls=TOOL_CALLS)
def test_full_rollback_restores_tree_and_index(tmp_path_factory, calls):
    # Files are compared byte for byte: the sample's files all end their lines with "\n", which is
    # what a rollback writes back (a "\r\n" file would come back with "\n").
    root = demo.copy_sample(tmp_path_factory.mktemp("s"))
    with contextlib.ExitStack() as stack:
        s = stack.enter_context(contextlib.closing(Session.open(str(root))))
        start_tree, start_index = tree(root), srcatlas.enrich(s._live.raw)
        for call in calls:
            {"edit": lambda: s.edit(call[1], call[2], None, call[3], call[4]), "create": lambda: s.create(call[1], call[2]),
             "rollback": lambda: s.rollback(call[1])}[call[0]]()
        # A second process sees the same stack and undoes it all.
        other, entries = stack.enter_context(contextlib.closing(Session.open(str(root)))), len(s.ledger()["entries"])
        assert other.status()["steps"] == s.status()["steps"]
        depth = other.status()["depth"]
        assert depth == 0 or "error" not in other.rollback(depth)
        assert (tree(root), srcatlas.enrich(other._live.raw)) == (start_tree, start_index)
        assert other.edit("models.py", 1, None, "# changed\n")["step"] == entries + 1
        assert s.rollback(1)["restored"] == ["inventory/models.py"]  # follows the other process's step
        assert (tree(root), srcatlas.enrich(s._live.raw)) == (start_tree, start_index)


def run_cli(root, *args, stdin=""):
    return subprocess.run([str(ROOT / "scripts" / "editor-session"), "--root", str(root), *args],
                          input=stdin, capture_output=True, text=True, timeout=120)


def test_command_line_keeps_the_session_between_calls(tmp_path):
    root = demo.copy_sample(tmp_path)
    refused = run_cli(root, "edit", "util.py", "--start", "1", "--content", "x")
    assert (refused.returncode, refused.stdout, refused.stderr.splitlines()) == (1, "", [
        "editor-session: 'util.py' matches 2 files -- be more specific", "candidates: inventory/util.py, tools/util.py"])
    edited = run_cli(root, "edit", "models.py", "--start", "3", stdin="MAX_ITEMS = 1\n")
    assert edited.stdout.splitlines()[:2] == ["step 1: edit inventory/models.py at line 3", "  - MAX_ITEMS = 500"]
    broken = run_cli(root, "--json", "edit", "models.py", "--start", "3", stdin="MAX_ITEMS = (\n")
    assert broken.returncode == 3 and json.loads(broken.stdout)["syntax"].startswith("SyntaxError")
    assert json.loads(run_cli(root, "--json", "rollback", "2").stdout)["restored"] == ["inventory/models.py"] * 2
    assert "MAX_ITEMS = 500" in (root / "inventory" / "models.py").read_text()
    assert (run_cli(root, "rollback", "1").returncode, run_cli(root, "edit").returncode) == (1, 2)
    status = json.loads(run_cli(root, "--json", "status").stdout)
    assert [step["rolled_back"] for step in status["steps"]] == [True, True] and status["depth"] == 0


def test_command_line_prints_a_note_and_dangling_callers_as_whole_lines():
    # A note was once printed a character per line.
    assert cli._structure({"static_diff": {"note": "no structural change"}, "dangling": [
        {"symbol": "a.py::f", "callers": ["b.py::g"], "caller_count": 3}]}) == [
        "note: no structural change", "dangling: a.py::f is still called by b.py::g and 2 more"]
