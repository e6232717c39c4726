"""The session layer on a generated project of 3,000 Python files and 300,000 lines, plus a few C
and Java files.

- Overhead of one tool call in a long-lived process: `Session.edit` beside the module's own
  `apply_block` on the same file, both with the syntax check replaced by a stub answering "ok"
  (so neither the host compiler nor a grammar is timed), at step 1 and after 500 steps; then
  where the session's part of that time goes.
- One command-line edit end to end beside `python -c "import editor"`, at step 1 and step 200,
  both with their bytecode cached (in a scratch folder), as an installed product has it.
- Opening a session that holds 1,000 steps, beside opening its SQLite file.
- Store growth per edit beside its budget: the compressed size of the edited file's text + 4 KiB.
"""

import collections
import os
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
import zlib
from pathlib import Path

from bench_index import generate, interleaved
from harness import ROOT, row

import editor
from editor_session import live_index, session as session_module
from editor_session.session import Session
from editor_session.store import Store

SAMPLES = 15
C_FILE = "#include <stdint.h>\n\nuint32_t mix(uint32_t a, uint32_t b) {\n    return (a << 5) ^ b;\n}\n"
JAVA_FILE = "package app;\n\npublic class Main {\n    public static int twice(int x) { return 2 * x; }\n}\n"


def make_project(root: Path) -> list[Path]:
    paths = generate(root)
    (root / "native").mkdir()
    (root / ".git").mkdir()
    for i in range(3):
        (root / "native" / f"mix{i}.c").write_text(C_FILE)
        Path(root / "java" / "app").mkdir(parents=True, exist_ok=True)
        (root / "java" / "app" / f"Main{i}.java").write_text(JAVA_FILE.replace("Main", f"Main{i}"))
    return paths


def stub_syntax(result="ok"):
    editor.syntax_check = lambda *args, **kwargs: result


class Breakdown:
    """Wall time per call of the session's parts, gathered while the overhead is measured."""

    def __init__(self):
        self.times = collections.defaultdict(list)
        self.wrapped = []

    def wrap(self, owner, name, label):
        original = getattr(owner, name)

        def timed(*args, **kwargs):
            start = time.perf_counter()
            try:
                return original(*args, **kwargs)
            finally:
                self.times[label].append(time.perf_counter() - start)
        setattr(owner, name, timed)
        self.wrapped.append((owner, name, original))

    def undo(self):
        for owner, name, original in reversed(self.wrapped):
            setattr(owner, name, original)


def edit_content(step):
    return f"LIMIT = {step}\n"


def overhead(session, paths, label, first_step):
    """Session.edit beside apply_block, alternating, each round on a fresh file."""
    def operation(i):
        path = paths[(first_step + i) % len(paths)]
        result = session.edit(str(path.relative_to(session.root)), 6, None, edit_content(i))
        assert "error" not in result, result

    def floor(i):
        path = paths[(first_step + i) % len(paths)]
        editor.apply_block(session.root, str(path), 6, None, edit_content(i))

    median, floor_median = interleaved(operation, floor, SAMPLES)
    row(f"session edit, {label}", f"{len(paths)} files", median, floor_median)
    return median - floor_median


def breakdown(session, paths, first_step):
    parts = Breakdown()
    parts.wrap(editor, "resolve_target", "module: resolve_target")
    parts.wrap(editor, "take_snapshot", "module: take_snapshot")
    parts.wrap(editor, "ledger_append", "module: ledger_append")
    parts.wrap(editor, "static_diff", "module: static_diff")
    parts.wrap(live_index.LiveIndex, "reindex", "index: update + Atlas.switch")
    parts.wrap(Store, "locked", "store: lock")
    parts.wrap(session_module.Session, "_sync", "store: follow other processes")
    parts.wrap(session_module.Session, "_commit", "store: record (inside the transaction)")
    try:
        for i in range(SAMPLES):
            path = paths[(first_step + i) % len(paths)]
            session.edit(str(path.relative_to(session.root)), 6, None, edit_content(i + 7))
    finally:
        parts.undo()
    for label, times in parts.times.items():
        row(f"  part: {label}", "per edit", statistics.median(times), None)


def cached_bytecode_env(cache):
    env = {key: value for key, value in os.environ.items() if key != "PYTHONDONTWRITEBYTECODE"}
    return dict(env, PYTHONPYCACHEPREFIX=cache)


def cli_edit(root, step, env):
    return subprocess.run([str(ROOT / "scripts" / "editor-session"), "--root", str(root), "edit",
                           "pkg1/mod1.py", "--start", "6", "--content", edit_content(step)],
                          capture_output=True, text=True, check=True, env=env)


def import_editor(env):
    env = dict(env, PYTHONPATH=f"{ROOT / 'build'}:{ROOT / 'host'}")
    subprocess.run([sys.executable, "-c", "import editor"], env=env, check=True)


def cli_row(root, label):
    env = cached_bytecode_env(os.path.join(os.environ["EDITOR_STATE_HOME"], "pycache"))
    median, floor_median = interleaved(lambda i: cli_edit(root, i, env), lambda i: import_editor(env), 7)
    row(f"command-line edit, {label}", "end to end", median, floor_median)


def store_used_bytes(path):
    with sqlite3.connect(path) as conn:
        conn.execute("PRAGMA wal_checkpoint(TRUNCATE)")
        pages = conn.execute("PRAGMA page_count").fetchone()[0] - conn.execute("PRAGMA freelist_count").fetchone()[0]
        return pages * conn.execute("PRAGMA page_size").fetchone()[0]


def advance(session, paths, start, count):
    """`count` more steps, each on the next file."""
    budget = []
    for i in range(start, start + count):
        path = paths[i % len(paths)]
        budget.append(len(zlib.compress(path.read_bytes())) + 4096)
        result = session.edit(str(path.relative_to(session.root)), 6, None, edit_content(i))
        assert "error" not in result, result
    return budget


def main():
    with tempfile.TemporaryDirectory(prefix="editor_bench_session_") as scratch:
        os.environ["EDITOR_STATE_HOME"] = os.path.join(scratch, "state")
        root = Path(scratch) / "proj"
        root.mkdir()
        paths = make_project(root)
        lines = sum(p.read_text().count("\n") for p in root.rglob("*.py"))
        print(f"generated project: {len(paths)} Python modules, {lines} lines")
        real_check = editor.syntax_check
        start = time.perf_counter()
        session = Session.open(str(root))
        print(f"first open (indexes the project): {time.perf_counter() - start:.2f} s")

        stub_syntax()
        print(f"overhead at step 1: {overhead(session, paths, 'step 1', 0) * 1e3:.1f} ms")
        breakdown(session, paths, 100)
        steps = session.status()["depth"]
        advance(session, paths, 200, 500 - steps)
        print(f"overhead at step 500: {overhead(session, paths, 'step 500', 700) * 1e3:.1f} ms")
        breakdown(session, paths, 800)

        # Store growth: 200 edits of the files measured against their own budget.
        before = store_used_bytes(session.store.path)
        budget = advance(session, paths, 1000, 200)
        growth = (store_used_bytes(session.store.path) - before) / len(budget)
        print(f"store growth per edit: {growth:.0f} bytes, budget {statistics.mean(budget):.0f} bytes")
        row("store growth per edit, KiB (floor: budget)", "200 edits", growth / 1024 / 1e3,
            statistics.mean(budget) / 1024 / 1e3)

        steps = session.status()["depth"]
        advance(session, paths, 1300, 1000 - steps)
        session.close()

        def open_session(_):
            Session.open(str(root)).close()

        def open_sqlite(_):
            conn = sqlite3.connect(Store.open(str(root), session.state_dir).path)
            conn.execute("SELECT count(*) FROM steps").fetchone()
            conn.close()
        median, floor_median = interleaved(open_session, open_sqlite, 7)
        row("open a session of 1,000 steps", f"{len(paths)} files", median, floor_median)

        editor.syntax_check = real_check
        with tempfile.TemporaryDirectory(prefix="editor_bench_cli_") as cli_scratch:
            os.environ["EDITOR_STATE_HOME"] = os.path.join(cli_scratch, "state")
            Session.open(str(root)).close()
            cli_row(root, "step 1")
            fresh = Session.open(str(root))
            advance(fresh, paths, 2000, 200 - fresh.status()["depth"])
            fresh.close()
            cli_row(root, "step 200")


if __name__ == "__main__":
    main()
