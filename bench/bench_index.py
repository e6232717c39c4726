"""The incremental index on a generated project of 3,000 Python files and 300,000 lines.

- One edit: `update` + `Atlas.switch` + `editor.static_diff` beside its floor, re-indexing the
  edited file (`_index_file`), at the first steps and again after 500 edits.
- The first edit of a process (a command-line call): a fresh `Atlas` over the raw IR, then
  the edit as above, beside the same floor.
- Opening: `build(root, reuse=...)` with every record reusable, plus the `Atlas` over it, beside
  the floor of one `os.stat` per file.
"""

import os
import random
import tempfile
from pathlib import Path

from harness import interleaved, row

import editor
import srcatlas

PACKAGES, MODULES = 30, 100
STEPS, SAMPLES = 500, 25


def module_text(p: int, m: int, rnd: random.Random) -> str:
    """About a hundred lines: imports of other modules, constants, functions, classes, calls."""
    lines = ['"""Generated module."""', "import os", ""]
    for i in range(4):
        q, n = rnd.randrange(PACKAGES), rnd.randrange(MODULES)
        if i % 2:
            lines.append(f"from pkg{q}.mod{n} import helper{i}, Model{q}_{n}")
        else:
            lines.append(f"import pkg{q}.mod{n} as dep{i}")
    lines += ["from . import mod0", "", f"LIMIT = {rnd.randrange(1000)}", f"NAME = 'pkg{p}.mod{m}'", ""]
    for f in range(6):
        lines += [f"def helper{f}(value, items=None):", "    value = value or 0",
                  f"    total = helper{(f + 1) % 6}(value) if value > LIMIT else value",
                  "    for item in items or ():",
                  f"        total += dep0.helper{f}(item) + helper1(item)",
                  "        item.refresh()",
                  "    path = os.path.join(NAME, str(total))",
                  f"    return mod0.helper{f % 3}(path)", ""]
    for c in range(2):
        name = f"Model{p}_{m}" if c == 0 else f"Form{p}_{m}_{c}"
        lines += [f"class {name}:", f"    size = {rnd.randrange(100)}", "",
                  "    def __init__(self, value):", "        self.value = helper0(value)", "",
                  "    def save(self):", "        self.clean()", f"        return dep2.helper{c}(self.value)", "",
                  "    def clean(self):", "        self.value = self.value or LIMIT", "        return self.value", "",
                  f"    def handle_{p}_{m}_{c}(self, other):", "        other.save()",
                  f"        return Model{p}_{m}(self.value)", ""]
    return "\n".join(lines) + "\n"


def generate(root: Path) -> list[Path]:
    rnd = random.Random(16)
    paths = []
    for p in range(PACKAGES):
        (root / f"pkg{p}").mkdir()
        (root / f"pkg{p}" / "__init__.py").write_text("from .mod1 import helper2\n")
        for m in range(MODULES - 1):
            path = root / f"pkg{p}" / f"mod{m}.py"
            path.write_text(module_text(p, m, rnd))
            paths.append(path)
    return paths


def edit(path: Path, step: int, rnd: random.Random) -> None:
    """A typical small edit: a constant's value, a new function, or a body changed."""
    text = path.read_text()
    kind = step % 3
    if kind == 0:
        text = text.replace("LIMIT = ", f"LIMIT = {step} + ", 1)
    elif kind == 1:
        text += f"\ndef added_{step}(value):\n    return helper{rnd.randrange(6)}(value)\n"
    else:
        text = text.replace("        item.refresh()", f"        item.refresh({step})", 1)
    path.write_text(text)


def main():
    with tempfile.TemporaryDirectory(prefix="editor_bench_index_") as scratch:
        root = Path(scratch)
        paths = generate(root)
        raw = srcatlas.build(root)
        lines = sum(p.read_text().count("\n") for p in root.rglob("*.py"))
        size = f"{len(raw['files'])} files, {lines} lines"
        atlas = srcatlas.Atlas(raw)
        rnd = random.Random(5)
        state = {"raw": raw, "step": 0}

        def write():
            state["step"] += 1
            state["path"] = paths[rnd.randrange(len(paths))]
            edit(state["path"], state["step"], rnd)
            # The first read after a write pays the file system's own cost; both sides of the
            # comparison should time the indexer's work.
            state["path"].read_bytes()

        def one_edit():
            path = state["path"]
            state["raw"] = srcatlas.update(state["raw"], str(root), str(path))
            editor.static_diff(*atlas.switch(state["raw"]))

        def reindex_floor():
            srcatlas._index_file(state["path"])

        row("edit: update+switch+static_diff, step 1", size,
            *interleaved([one_edit, reindex_floor], SAMPLES, warmup=0, each_round=write))
        for _ in range(STEPS - 2 * SAMPLES):
            write()
            one_edit()
        row(f"edit: update+switch+static_diff, step {STEPS}", size,
            *interleaved([one_edit, reindex_floor], SAMPLES, warmup=0, each_round=write))

        def fresh_edit():
            path = state["path"]
            fresh = srcatlas.Atlas(state["raw"])
            state["raw"] = srcatlas.update(state["raw"], str(root), str(path))
            editor.static_diff(*fresh.switch(state["raw"]))

        row("first edit of a process: Atlas+update+switch", size,
            *interleaved([fresh_edit, reindex_floor], 9, warmup=0, each_round=write))

        records = state["raw"]["files"]

        def reuse(rel, size_, mtime_ns):
            record = records.get(rel)
            return record if record and (record["size"], record["mtime_ns"]) == (size_, mtime_ns) else None

        def stat_floor():
            for rel in records:
                os.stat(os.path.join(root, rel))

        row("open: build(reuse) all reusable", size,
            *interleaved([lambda: srcatlas.build(root, reuse=reuse), stat_floor], 7, warmup=0))
        row("open: build(reuse) + Atlas", size,
            *interleaved([lambda: srcatlas.Atlas(srcatlas.build(root, reuse=reuse)), stat_floor], 5, warmup=0))


if __name__ == "__main__":
    main()
