"""resolve_target over 100,000 known paths, beside its floor and the plain-Python loop.

The floor is the bare scan of the entries: each str's UTF-8 buffer and length read in C
(scan_floor.c, built here with the system C compiler; a helper of the benchmark alone).
The plain-Python loop does the same matching with str.replace and str.lower per entry. All three
are timed in turns on the same list. Targets: at most 1.5x the floor, at least 10x faster than
the loop.
"""

import importlib.util
import os
import subprocess
import sys
import sysconfig
import tempfile
from pathlib import Path

from harness import interleaved, row

import editor

HERE = Path(__file__).resolve().parent
ROOT = "/work/project"
COUNT = 100_000
NEEDLE = "Pkg7/sub3/Module_42.py"


def known_paths():
    """An index's ids: nested packages, a few capitals and backslashes, and mixed suffixes."""
    suffixes = (".py", ".c", ".hpp", ".js", ".css", ".java")
    return [f"src/{'Pkg' if d % 3 == 0 else 'pkg'}{d}/sub{s}{'\\' if d % 50 == 0 else '/'}module_{f}{suffixes[f % 6]}"
            for d in range(100) for s in range(10) for f in range(COUNT // 1000)]


def plain_loop(path_str, known):
    needle = path_str.replace("\\", "/").lower()
    suffix = "/" + needle
    hits = []
    for entry in known:
        form = entry.replace("\\", "/").lower()
        if form == needle or form.endswith(suffix):
            hits.append(entry)
    return hits


def build_scan_floor(directory):
    include = sysconfig.get_path("include")
    target = Path(directory) / f"scan_floor{sysconfig.get_config_var('EXT_SUFFIX')}"
    subprocess.run([os.environ.get("CC", "cc"), "-O2", "-shared", "-fPIC", f"-I{include}",
                    "-idirafter", os.path.dirname(include), str(HERE / "scan_floor.c"), "-o", str(target)],
                   check=True)
    spec = importlib.util.spec_from_file_location("scan_floor", target)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module.scan


def main():
    known = known_paths()
    expected = os.path.abspath(os.path.join(ROOT, plain_loop(NEEDLE, known)[0]))
    assert editor.resolve_target(ROOT, NEEDLE, known) == expected
    with tempfile.TemporaryDirectory() as directory:
        scan = build_scan_floor(directory)
        floor, operation, loop = interleaved(
            [lambda: scan(known), lambda: editor.resolve_target(ROOT, NEEDLE, known),
             lambda: plain_loop(NEEDLE, known)], rounds=41)
    size = f"{len(known):,} paths"
    row("resolve_target", size, operation, floor, summary="resolve_target")
    row("  beside the plain-Python loop", size, operation, loop,
        summary="resolve_target beside a plain-Python loop (not a floor)")


if __name__ == "__main__":
    sys.exit(main())
