"""Parse checks against their floors, each timed in turns with its floor on the same file.

Floors: without a baseline, the host's bare `compile` of the text for Python and a bare
`parser.parse` of the encoded text (parser made beforehand) for C and JavaScript. With a baseline,
Python adds the embedded-region scan of the new text (`embedscan._embedded_regions`), and of the
earlier text too when the new one has embedded errors; C and JavaScript parse the earlier text as
well when the new one has errors. Texts are encoded for tree-sitter beforehand. Files are
generated clean, then with one error per thousand lines.

Run: python bench/bench_parse.py
"""

import sys
import tempfile
from pathlib import Path

from harness import interleaved, row

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


def parser_of(ext):
    if ext == ".py":
        return lambda text: compile(text, "bench.py", "exec")
    parse = get_parser({".c": "c", ".js": "javascript"}[ext]).parse
    return lambda data: parse(data)


def floors(ext, text, before, broken):
    """The work of a check, without and with a baseline, that no implementation can skip."""
    parse = parser_of(ext)
    new, old = (text, before) if ext == ".py" else (text.encode("utf-8"), before.encode("utf-8"))

    def with_baseline():
        parse(new)
        if ext == ".py":
            embedscan._embedded_regions(text)
            if broken:
                embedscan._embedded_regions(before)
        elif broken:
            parse(old)

    return (lambda: parse(new)), with_baseline


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
            floor, floor_with_baseline = floors(ext, text, before, broken)
            absolute_floor, absolute, delta_floor, delta = interleaved(
                [floor, lambda: editor.syntax_check(str(path)),
                 floor_with_baseline, lambda: editor.syntax_check(str(path), before_text=before)],
                rounds=5 if lines == 100_000 else 21)
            size = f"{text.count(chr(10))} lines"
            headline = broken and lines == SIZES[-1] and ext != ".js"
            row(f"syntax_check {ext} {state}", size, absolute, absolute_floor)
            row(f"syntax_check {ext} {state} +baseline", size, delta, delta_floor,
                summary=f"syntax_check {ext}, baseline, file with errors" if headline else None)


def main():
    print(f"{'operation':<40} {'size':>14} {'median':>13}  {'floor':>16}  {'ratio':>7}", file=sys.stderr)
    with tempfile.TemporaryDirectory() as scratch:
        bench_checks(Path(scratch), broken=False)
        bench_checks(Path(scratch), broken=True)


if __name__ == "__main__":
    main()
