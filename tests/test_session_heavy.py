"""The session store under kills and several processes at once (real child processes)."""

import contextlib
import itertools
import os
import random
import select
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

from editor_session.session import Session

pytestmark = pytest.mark.heavy
ROOT = Path(__file__).resolve().parent.parent
KILL_TRIALS = int(os.environ.get("EDITOR_KILL_TRIALS", "80"))
BIG = "".join(f"line {i} of a file of several megabytes\n" for i in range(55_000))  # ~2 MiB


@pytest.fixture(autouse=True)
def state_home(tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))


def python(code, *args, **options):
    env = dict(os.environ, PYTHONPATH=f"{ROOT / 'build'}:{ROOT / 'host'}")
    return subprocess.Popen([sys.executable, "-c", code, *map(str, args)], env=env, stderr=subprocess.PIPE,
                            text=True, **options)


# Each file takes one of two texts (None: absent); which one is fixed by whether a live step of
# the session names it.
VARIANTS = {"big1.txt": (BIG, "alpha\n" + BIG.split("\n", 1)[1]), "big2.txt": (BIG, BIG.replace("line 1 of", "beta of", 1)),
            "new.txt": (None, BIG[: len(BIG) * 2 // 3]),
            "small.py": ("import os\n\nX = os.sep\n", "import os\n\nX = undefined_name\n")}
CYCLE = [("edit", lambda s: s.edit("big1.txt", 1, None, "alpha\n")),
         ("create", lambda s: s.create("new.txt", VARIANTS["new.txt"][1])),
         ("edit", lambda s: s.edit("big2.txt", 2, None, "beta of a file of several megabytes\n")),
         ("rollback", lambda s: s.rollback(2)), ("edit", lambda s: s.edit("small.py", 3, None, "X = undefined_name\n")),
         ("check", lambda s: s.check()), ("rollback", lambda s: s.rollback(max(1, s.status()["depth"])))]


def child_loop(root, announce):
    try:
        session = Session.open(root)
        for kind, call in itertools.cycle(CYCLE):
            os.write(announce, kind.encode() + b"\n")
            call(session)
    finally:
        os._exit(3)


def consistent_state(root):
    with contextlib.closing(Session.open(root)) as session:
        status = session.status()
        live = {(st["step"], st["file"]) for st in status["steps"] if "rolled_back" not in st}
        assert live == {(e["n"], e["file"]) for e in session.ledger()["entries"] if not e.get("rolled_back")}
        assert len(live) == status["depth"]
    named = {name for _, name in live}
    for name, texts in VARIANTS.items():
        assert (Path(root, name).read_text() if Path(root, name).exists() else None) == texts[name in named], (name, status)


def wait_for(stream, kind, deadline):
    # True once the call the child announces it is starting is `kind`.
    pending = b""
    while time.monotonic() < deadline and select.select([stream], [], [], max(0, deadline - time.monotonic()))[0]:
        if not (chunk := os.read(stream, 4096)):
            break
        pending += chunk
        if pending.endswith(b"\n") and pending.rstrip(b"\n").rsplit(b"\n", 1)[-1] == kind.encode():
            return True
    return False


# Forked children run only code already imported; one that deadlocked at the fork would never
# announce a call, and the trial's time limit would fail the test instead of hanging it.
@pytest.mark.filterwarnings("ignore:This process .* is multi-threaded:DeprecationWarning")
def test_kills_at_random_moments_lose_nothing(project):
    initial = {name: texts[0] for name, texts in VARIANTS.items() if texts[0] is not None}
    for name, text in initial.items():
        (project / name).write_text(text)
    rng, kinds = random.Random(1234), ["edit", "create", "rollback", "check"]
    killed_in = {kind: 0 for kind in kinds}
    for trial in range(KILL_TRIALS):
        target = kinds[trial % len(kinds)]
        read_end, write_end = os.pipe()
        pid = os.fork()
        if pid == 0:
            os.close(read_end)
            child_loop(str(project), write_end)
        os.close(write_end)
        try:
            if wait_for(read_end, target, time.monotonic() + 30):
                time.sleep(rng.uniform(0, 0.05))
                killed_in[target] += 1
        finally:
            os.kill(pid, signal.SIGKILL)
            _, status = os.waitpid(pid, 0)
            os.close(read_end)
        assert os.WIFSIGNALED(status), f"the child ended on its own (status {status}) in trial {trial}"
        consistent_state(str(project))
    assert min(killed_in.values()) >= KILL_TRIALS // len(kinds) - 1, killed_in
    with contextlib.closing(Session.open(str(project))) as session:
        depth = session.status()["depth"]
        assert depth == 0 or "error" not in session.rollback(depth)
    assert {p.name: p.read_text() for p in project.iterdir()} == initial


EDITOR_PROCESS = """
import sys
from editor_session.session import Session
root, me, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
s = Session.open(root)
for j in range(count):
    result = s.edit(f"f{me}.py", 1, None, f"V{me} = {j}\\n")
    assert "error" not in result, result
"""


def test_processes_editing_at_once_stay_one_to_one_and_a_locked_out_call_is_refused_as_busy(project):
    processes, edits = 8, 20
    for i in range(processes):
        (project / f"f{i}.py").write_text(f"V{i} = None\n")
    with contextlib.closing(Session.open(str(project))) as session, session.store.locked():
        refused = subprocess.run([str(ROOT / "scripts" / "editor-session"), "--root", str(project),
                                  "--busy-timeout", "0.5", "edit", "f0.py", "--start", "1", "--content", "V0 = 2\n"],
                                 capture_output=True, text=True, timeout=60)
    assert refused.returncode == 1 and refused.stderr.startswith("editor-session: session busy")
    children = [python(EDITOR_PROCESS, project, i, edits) for i in range(processes)]
    assert [(child.communicate(timeout=240)[1], child.returncode) for child in children] == [("", 0)] * processes
    texts = lambda: [(project / f"f{i}.py").read_text() for i in range(processes)]  # noqa: E731
    with contextlib.closing(Session.open(str(project))) as session:
        steps, entries = session.status()["steps"], session.ledger()["entries"]
        assert [(st["step"], st["file"]) for st in steps] == [(e["n"], e["file"]) for e in entries]
        assert [e["n"] for e in entries] == list(range(1, processes * edits + 1))
        assert texts() == [f"V{i} = {edits - 1}\n" for i in range(processes)]
        assert session.rollback(processes * edits)["restored"]
        assert texts() == [f"V{i} = None\n" for i in range(processes)]

