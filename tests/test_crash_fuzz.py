"""Crash fuzzing: every function of the module, called with random arguments of random types and
shapes in a child process, must answer or raise, never take the interpreter down.

The seeds and the number of calls per seed come from EDITOR_FUZZ_SEEDS (comma-separated) and
EDITOR_FUZZ_CALLS; a failure names its seed and the call that killed the child, and running
the test again with that seed replays the same calls.
"""

import json
import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest

import editor

HERE = Path(__file__).resolve().parent
SEEDS = [int(seed) for seed in os.environ.get("EDITOR_FUZZ_SEEDS", "20261,7").split(",")]
CALLS = int(os.environ.get("EDITOR_FUZZ_CALLS", "2000"))
# Generous: a run of the default budget takes a few seconds, several times that under sanitizers.
TIME_LIMIT = max(300, CALLS // 5)

STUB = """#!/bin/sh
/bin/cat "{tools}/out" 2>/dev/null
code=$(/bin/cat "{tools}/rc" 2>/dev/null)
[ "$code" = segv ] && kill -SEGV $$
exit "${{code:-0}}"
"""
COMPILERS = ["cc", "gcc", "clang", "c++", "g++", "clang++", "javac"]


def stand_in_compilers(tools):
    """Every compiler the module looks for, each printing whatever the child last put in
    tools/out and exiting with tools/rc."""
    bin_dir = tools / "bin"
    bin_dir.mkdir(parents=True)
    for name in COMPILERS:
        path = bin_dir / name
        path.write_text(STUB.format(tools=tools))
        path.chmod(0o755)
    return bin_dir


def run_child(tmp_path, seed, calls):
    tools, sandbox, log = tmp_path / "tools", tmp_path / "sandbox", tmp_path / "calls.log"
    bin_dir = stand_in_compilers(tools)
    import_path = [str(HERE), str(Path(editor.__file__).parent), *sys.path]
    env = dict(os.environ, PATH=str(bin_dir), TMPDIR=str(sandbox / "tmp"), EDITOR_STATE_HOME=str(sandbox / "state"),
               HOME=str(sandbox / "home"), PYTHONHASHSEED="0", PYTHONPATH=os.pathsep.join(import_path))
    env.pop("XDG_STATE_HOME", None)
    command = [sys.executable, str(HERE / "fuzz_child.py"), str(sandbox), str(tools), str(seed), str(calls), str(log)]
    try:
        child = subprocess.run(command, env=env, cwd=tmp_path, capture_output=True, text=True, errors="replace",
                               timeout=TIME_LIMIT)
    except subprocess.TimeoutExpired as expired:
        stderr = expired.stderr.decode(errors="replace") if expired.stderr else ""
        child = subprocess.CompletedProcess(command, None, "", stderr)
    lines = log.read_text(encoding="utf-8", errors="replace").splitlines() if log.exists() else []
    return child, lines


def failure(seed, child, lines, what):
    last = lines[-1] if lines else "(no call started)"
    return (f"{what}\nseed {seed}, {CALLS} calls; last call started: {last}\n"
            f"replay: EDITOR_FUZZ_SEEDS={seed} EDITOR_FUZZ_CALLS={CALLS} "
            f"python -m pytest tests/{Path(__file__).name}\nchild stderr (tail):\n{child.stderr[-3000:]}")


@pytest.mark.parametrize("seed", SEEDS)
def test_random_calls_never_kill_the_interpreter(tmp_path, seed):
    child, lines = run_child(tmp_path, seed, CALLS)
    if child.returncode is None:
        pytest.fail(failure(seed, child, lines, f"child still running after {TIME_LIMIT} s"))
    if child.returncode < 0:
        pytest.fail(failure(seed, child, lines, f"child killed by {signal.Signals(-child.returncode).name}"))
    assert child.returncode == 0, failure(seed, child, lines, f"child exited with {child.returncode}")
    summary = json.loads(child.stdout.splitlines()[-1])
    # A SystemError is the interpreter catching the module breaking its own return contract.
    assert summary["system_errors"] == [], failure(seed, child, lines, "\n".join(summary["system_errors"]))
    # Every function was reached, and reached past its argument checks at least once.
    outcomes = summary["outcomes"]
    assert set(outcomes) >= {"apply_block", "syntax_check", "commit_time_check"}
    silent = [name for name, counts in outcomes.items() if sum(counts.values()) == 0]
    assert not silent, f"never called: {silent}"
