"""Session records: static_diff, the ledger, session_diff and rollback, each timed in turns
with its floor on the same input.

Floors are the work an operation cannot avoid: for static_diff, the set operations on the edges
and symbols plus one walk over both definition tables reading every bound value; for the ledger calls, the state-directory
look-ups, the whole-file read, json.loads, json.dumps(indent=1) and the write, on a ledger reset
before every call; the file reads and difflib calls of the session diff; the text writes of a
rollback, on a fresh snapshot stack for every call.
"""

import difflib
import json
import os
import random
import sys
import tempfile
from pathlib import Path

from harness import interleaved, row

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


def defs_walk(before, after):
    """One walk over every binding of both definition tables, reading each value it binds (no
    comparison can skip a value: equal ids may hold different texts)."""
    for enriched in (before, after):
        for names in enriched["defs"].values():
            for records in names.values():
                if records:
                    records[-1].get("rhs", "")


def static_floor(before, after):
    """The set operations of edges and symbols, and one walk over both definition tables."""
    eb = {(e["caller"], e["callee"]) for e in before["edges"]}
    ea = {(e["caller"], e["callee"]) for e in after["edges"]}
    sb, sa = set(before["symbols"]), set(after["symbols"])
    defs_walk(before, after)
    return ea - eb, eb - ea, sa - sb, sb - sa


def bench_static_diff():
    for size in (10_000, 100_000):
        before = enriched_map(size, 10_000)
        for label, after in (("edit", edited(before)), ("disjoint", enriched_map(size, 10_000, "x"))):
            floor, median = interleaved([lambda: static_floor(before, after),
                                         lambda: editor.static_diff(before, after)], rounds=15)
            headline = label == "edit" and size == 100_000
            row(f"static_diff ({label})", f"{size:,} edges", median, floor,
                summary="static_diff (1% edited)" if headline else None)
    # The value table alone: maps holding only their definition tables, the after one made of
    # fresh objects, as a re-index makes it.
    full = enriched_map(0, 100_000)
    before = {"defs": full["defs"]}
    after = json.loads(json.dumps({"defs": edited(full)["defs"]}))
    floor, median = interleaved([lambda: defs_walk(before, after), lambda: editor.static_diff(before, after)],
                                rounds=15)
    row("static_diff, definition tables only (edit)", "100,000 constants", median, floor,
        summary="static_diff value table (1% edited)")


# ----------------------------------------------------------------------------------- ledger

def ledger_entry(i):
    return {"op": "apply_block", "file": f"src/pkg/mod{i % 40}.py", "lines": [i, i + 12],
            "replaced": ["    x = compute(a, b)", "    return x + ünïcode"], "inserted": ["    return compute(a, b)"],
            "syntax": "ok", "static": {"edges_removed": [f"mod{i % 40}.py::f -> util.py::g"]}, "ratio": i / 7}


def ledger_floor(root):
    """The state-directory look-ups, the whole-file read and write, and the JSON work between."""
    path = str(projstore.project_dir(root) / editor.LEDGER_NAME)
    os.path.exists(path)
    steps = json.loads(Path(path).read_text(encoding="utf-8"))["steps"]
    steps.append({"n": len(steps) + 1})
    text = json.dumps({"steps": steps}, indent=1)
    (projstore.ensure_orvel_dir(root) / editor.LEDGER_NAME).write_text(text, encoding="utf-8")


def bench_ledger(base):
    for size in (100, 1_000, 10_000):
        root = str(base / f"project{size}")
        text = json.dumps({"steps": [{**ledger_entry(i), "n": i + 1, "ts": 1.7e9 + i} for i in range(size)]},
                          indent=1)
        path = projstore.ensure_orvel_dir(root) / editor.LEDGER_NAME
        for name, operation in (("ledger_append", lambda _: editor.ledger_append(root, ledger_entry(size))),
                                ("ledger_mark_rolled_back", lambda _: editor.ledger_mark_rolled_back(root, 1))):
            floor, median = interleaved([lambda _: ledger_floor(root), operation],
                                        rounds=21 if size < 10_000 else 9,
                                        setup=lambda: path.write_text(text, encoding="utf-8"))
            row(name, f"{size:,} entries", median, floor, summary=name if size == 10_000 else None)


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

    floor_time, median = interleaved([floor, lambda: editor.session_diff(touched)], rounds=7)
    row("session_diff", "50 files x 2,000 lines", median, floor_time, summary="session_diff")


# ----------------------------------------------------------------------------------- rollback

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

    floor_time, median = interleaved([floor, lambda records: editor.rollback_steps(records, 100)], rounds=9,
                                     setup=stack)
    row("rollback_steps", "100 steps", median, floor_time, summary="rollback_steps")


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
