"""Parse checks against their floors.

For Python the floor is the host's bare `compile` of the text; for C and JavaScript it is a bare
`parser.parse` of the encoded text with a parser made beforehand. `syntax_check` adds the file
read, the hop onto the deep-stack thread, the grammar lookup and, with a baseline, the
embedded-region scan of Python source. Files are generated clean (target: at most 1.2x the
floor), then with one error per thousand lines (no target: the error scans and the baseline
parse are the work being measured). Last, the region finder beside `compile` on 10k lines.

Run: python bench/bench_parse.py
"""

import statistics
import sys
import tempfile
import time
from pathlib import Path

from harness import row

import editor
import embedscan
from tree_sitter_language_pack import get_parser

SIZES = (1_000, 10_000, 100_000)

PY_UNIT = '''\
class Record{n}:
    """A stored row; {{id: int}} braces in prose are fine."""

    def __init__(self, key, values=None):
        self.key = key  # primary key
        self.values = dict(values or {{}})

    def render(self, width=80):
        label = f"{{self.key!r:>{{width}}}} -> {{len(self.values)}}"
        return label + ", ".join(str(v) for v in sorted(self.values))


def score_{n}(items, weight=0.5):
    total = 0
    for index, item in enumerate(items):
        if item is None:
            continue
        total += weight * index
    return {{"total": total, "count": len(items)}}


STYLE_{n} = "table.r{n} {{ border: 1px solid #ccc; }}"
'''

C_UNIT = '''\
struct record_{n} {{
    int key;
    double values[8];
}};

static double score_{n}(const struct record_{n} *r, int count)
{{
    double total = 0.0;
    for (int i = 0; i < count; ++i) {{
        if (r[i].key < 0)
            continue;
        total += r[i].values[i % 8] * 0.5;
    }}
    return total;
}}

'''

JS_UNIT = '''\
class Record{n} {{
  constructor(key, values = {{}}) {{
    this.key = key;
    this.values = Object.assign({{}}, values);
  }}

  render(width = 80) {{
    return `${{this.key}}`.padStart(width) + " -> " + Object.keys(this.values).length;
  }}
}}

function score{n}(items, weight = 0.5) {{
  let total = 0;
  items.forEach((item, index) => {{
    if (item == null) return;
    total += weight * index;
  }});
  return {{ total, count: items.length }};
}}

'''

BREAKAGE = {".py": "STYLE_BROKEN = 'a {{ color: red; }}}}'\n", ".c": "int broken_{n} = 1 2;\n",
            ".js": "let broken{n} = @;\n"}


def source(unit, lines, broken=None):
    per_unit = unit.count("\n")
    parts = []
    for n in range(lines // per_unit):
        parts.append(unit.format(n=n))
        if broken and n % (1000 // per_unit) == 0:
            parts.append(broken.format(n=n))
    return "".join(parts)


def medians(functions, repeat):
    """Median wall time of each function, measured in turns (one run of each per round) so that
    load from other processes falls on the operation and its floor alike."""
    for function in functions:
        function()
    times = [[] for _ in functions]
    for _ in range(repeat):
        for function, spent in zip(functions, times):
            start = time.perf_counter()
            function()
            spent.append(time.perf_counter() - start)
    return [statistics.median(spent) for spent in times]


def floor_of(ext, text):
    if ext == ".py":
        return lambda: compile(text, "bench.py", "exec")
    parser = get_parser({".c": "c", ".js": "javascript"}[ext])
    data = text.encode("utf-8")
    return lambda: parser.parse(data)


def bench_checks(directory, broken):
    state = "with errors" if broken else "clean"
    for ext, unit in ((".py", PY_UNIT), (".c", C_UNIT), (".js", JS_UNIT)):
        for lines in SIZES:
            text = source(unit, lines, BREAKAGE[ext] if broken else None)
            before = text.replace("weight * index", "weight + index", 1)
            path = directory / f"bench{ext}"
            path.write_text(text, encoding="utf-8")
            expected = editor.syntax_check(str(path))
            assert (expected == "ok") is (not broken or ext == ".py"), expected
            floor, absolute, delta = medians(
                [floor_of(ext, text), lambda: editor.syntax_check(str(path)),
                 lambda: editor.syntax_check(str(path), before_text=before)],
                repeat=5 if lines == 100_000 else 21)
            size = f"{text.count(chr(10))} lines"
            row(f"syntax_check {ext} {state}", size, absolute, floor)
            row(f"syntax_check {ext} {state} +baseline", size, delta, floor)


def bench_region_finder():
    text = source(PY_UNIT, 10_000)
    floor, scan = medians([lambda: compile(text, "bench.py", "exec"), lambda: embedscan._embedded_regions(text)],
                          repeat=21)
    row("embedscan._embedded_regions", f"{text.count(chr(10))} lines", scan, floor)


def main():
    print(f"{'operation':<40} {'size':>14} {'median':>13}  {'floor':>16}  {'ratio':>7}", file=sys.stderr)
    with tempfile.TemporaryDirectory() as scratch:
        bench_checks(Path(scratch), broken=False)
        bench_checks(Path(scratch), broken=True)
    bench_region_finder()


if __name__ == "__main__":
    main()
