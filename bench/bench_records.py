"""Session records: static_diff, the ledger, session_diff and rollback, each beside its floor.

Floors are the host calls an operation cannot avoid, timed on the same input in the same run:
the bare set operations of the map comparison; json.loads + json.dumps(indent=1) of the
ledger (and, as a second floor, the same with the file read, the write and the state-directory
look-ups); the difflib calls of the session diff; the text writes of a rollback.
"""

import difflib
import json
import os
import random
import statistics
import sys
import tempfile
import time
from pathlib import Path

from harness import median_time, row

import editor
import projstore

FILES = [f"src/pkg{d}/mod{f}.py" for d in range(20) for f in range(50)]


# ----------------------------------------------------------------------------------- static_diff

def enriched_map(size, constants, salt=""):
    rnd = random.Random(size)
    edges = [{"caller": f"{rnd.choice(FILES)}::f{rnd.randrange(size)}{salt}",
              "callee": f"{rnd.choice(FILES)}::g{rnd.randrange(size)}", "kind": "call"} for _ in range(size)]
    symbols = {f"{FILES[i % len(FILES)]}::S{i}{salt}": {"kind": "function", "line": i} for i in range(size)}
    defs = {}
    for i in range(constants):
        defs.setdefault(FILES[i % len(FILES)] + "::<module>", {})[f"C{i}"] = [{"rhs": f"{i}{salt}", "line": i}]
        defs.setdefault(f"{FILES[i % len(FILES)]}::f{i}", {})["local"] = [{"rhs": "0"}]
    return {"edges": edges, "symbols": symbols, "defs": defs}


def edited(before):
    """The map after a typical edit: 1% of edges and symbols replaced, 1% of constants changed."""
    after = {"edges": list(before["edges"]), "symbols": dict(before["symbols"]),
             "defs": {scope: dict(names) for scope, names in before["defs"].items()}}
    step = 100
    for i in range(0, len(after["edges"]), step):
        after["edges"][i] = {"caller": f"src/new.py::n{i}", "callee": after["edges"][i]["callee"]}
    for key in list(after["symbols"])[::step]:
        del after["symbols"][key]
        after["symbols"][key + "_renamed"] = {}
    for scope in list(after["defs"])[::step]:
        after["defs"][scope] = {name: [{"rhs": "changed"}] for name in after["defs"][scope]}
    return after


def static_floor(before, after):
    eb = {(e["caller"], e["callee"]) for e in before["edges"]}
    ea = {(e["caller"], e["callee"]) for e in after["edges"]}
    sb, sa = set(before["symbols"]), set(after["symbols"])
    return ea - eb, eb - ea, sa - sb, sb - sa


def value_tables_floor(before, after):
    """The walk of both definition tables, written plainly."""
    tables = []
    for enriched in (before, after):
        table = {}
        for scope, names in enriched["defs"].items():
            is_module = scope.endswith("::<module>")
            if is_module or "::css::" in scope:
                base = scope[:-10] if is_module else scope
                for name, records in names.items():
                    if records:
                        table[f"{base}::{name}"] = records[-1].get("rhs", "")
        tables.append(table)
    return tables


def bench_static_diff():
    for size in (10_000, 100_000):
        before = enriched_map(size, 10_000)
        for label, after in (("edit", edited(before)), ("disjoint", enriched_map(size, 10_000, "x"))):
            median = median_time(lambda: editor.static_diff(before, after))
            floor = median_time(lambda: static_floor(before, after))
            with_values = floor + median_time(lambda: value_tables_floor(before, after))
            row(f"static_diff ({label})", f"{size:,} edges", median, floor)
            row("  beside set + value-table floor", f"{size:,} edges", median, with_values)


# ----------------------------------------------------------------------------------- ledger

def ledger_entry(i):
    return {"op": "apply_block", "file": f"src/pkg/mod{i % 40}.py", "lines": [i, i + 12],
            "replaced": ["    x = compute(a, b)", "    return x + ünïcode"], "inserted": ["    return compute(a, b)"],
            "syntax": "ok", "static": {"edges_removed": [f"mod{i % 40}.py::f -> util.py::g"]}, "ratio": i / 7}


def ledger_json_floor(text):
    steps = json.loads(text)["steps"]
    steps.append({"n": len(steps) + 1})
    return json.dumps({"steps": steps}, indent=1)


def ledger_io_floor(root):
    """The same JSON work with the state-directory look-ups and the whole-file read and write."""
    path = str(projstore.project_dir(root) / editor.LEDGER_NAME)
    os.path.exists(path)
    text = ledger_json_floor(Path(path).read_text(encoding="utf-8"))
    (projstore.ensure_orvel_dir(root) / editor.LEDGER_NAME).write_text(text, encoding="utf-8")


def bench_ledger(base):
    for size in (100, 1_000, 10_000):
        root = str(base / f"project{size}")
        text = json.dumps({"steps": [{**ledger_entry(i), "n": i + 1, "ts": 1.7e9 + i} for i in range(size)]},
                          indent=1)
        path = projstore.ensure_orvel_dir(root) / editor.LEDGER_NAME
        repeat = 21 if size < 10_000 else 7
        for name, operation in (("ledger_append", lambda: editor.ledger_append(root, ledger_entry(size))),
                                ("ledger_mark_rolled_back", lambda: editor.ledger_mark_rolled_back(root, 1))):
            # A few more entries or flags per run leave the ledger's size as good as unchanged.
            path.write_text(text, encoding="utf-8")
            json_floor = median_time(lambda: ledger_json_floor(text), repeat=repeat)
            io_floor = median_time(lambda: ledger_io_floor(root), repeat=repeat)
            path.write_text(text, encoding="utf-8")
            median = median_time(operation, repeat=repeat)
            row(name, f"{size:,} entries", median, json_floor)
            row("  beside json + file I/O floor", f"{size:,} entries", median, io_floor)


# ----------------------------------------------------------------------------------- session_diff

def source_lines(count, rnd):
    return [f"    value_{i} = compute({rnd.randrange(1000)}, 'text {i}')  # note {rnd.random():.6f}" for i in range(count)]


def bench_session_diff(base):
    rnd = random.Random(3)
    touched = {}
    for i in range(50):
        lines = source_lines(2_000, rnd)
        before = "\n".join(lines) + "\n"
        for j in rnd.sample(range(2_000), 20):
            lines[j] = lines[j].replace("compute", "recompute")
        path = base / f"file{i:02}.py"
        path.write_text("\n".join(lines) + "\n", encoding="utf-8")
        touched[str(path)] = before

    def floor():
        for path, before in sorted(touched.items()):
            after = Path(path).read_text(encoding="utf-8")
            "\n".join(difflib.unified_diff(before.splitlines(), after.splitlines(), "a/x", "b/x", lineterm=""))

    median = median_time(lambda: editor.session_diff(touched), repeat=5)
    row("session_diff", "50 files x 2,000 lines", median, median_time(floor, repeat=5))


# ----------------------------------------------------------------------------------- rollback

def timed_with_setup(setup, fn, repeat=7):
    """Median time of fn(setup()) with the setup left out of the timing."""
    times = []
    for _ in range(repeat + 1):
        argument = setup()
        start = time.perf_counter()
        fn(argument)
        times.append(time.perf_counter() - start)
    return statistics.median(times[1:])


def bench_rollback(base):
    paths = [base / f"r{i:02}.py" for i in range(20)]
    texts = ["\n".join(f"line {i} of {p.name}" for i in range(200)) + "\n" for p in paths]
    for path, text in zip(paths, texts):
        path.write_text(text, encoding="utf-8")

    def stack():
        records = []
        for step in range(100):
            path = paths[step % len(paths)]
            records.append(editor.take_snapshot({"ir": step}, str(path)))
        return records

    def floor(records):
        for record in reversed(records):
            Path(record["path"]).write_text(record["text_before"], encoding="utf-8")

    median = timed_with_setup(stack, lambda records: editor.rollback_steps(records, 100))
    row("rollback_steps", "100 steps", median, timed_with_setup(stack, floor))


def main():
    with tempfile.TemporaryDirectory() as folder:
        base = Path(folder)
        os.environ["EDITOR_STATE_HOME"] = str(base / "state")
        bench_static_diff()
        bench_ledger(base)
        (base / "diff").mkdir()
        bench_session_diff(base / "diff")
        (base / "rollback").mkdir()
        bench_rollback(base / "rollback")


if __name__ == "__main__":
    sys.exit(main())
