"""The project's compilation database: the include directories, defines and standard that the
build really uses for a C or C++ file, read from "compile_commands.json" at the project root and
in its build*/ directories."""

import json
import os
import shlex
from dataclasses import dataclass
from pathlib import Path

DB_NAME = "compile_commands.json"

# Flags that take their value as the next argument when not written joined to it.
_VALUE_FLAGS = ("-I", "-isystem", "-iquote", "-idirafter", "-include", "-imacros", "-D", "-U")


@dataclass(frozen=True)
class Entry:
    """One file's build: its flags (paths as written, relative to `cwd`), `std` ("-std=..." or
    None) and the source file the entry describes."""

    flags: tuple[str, ...]
    cwd: str
    std: str | None
    source: str


def database_paths(root: str) -> list[Path]:
    """The root's database first, then those of build*/ directories in name order."""
    base = Path(root)
    return [p for p in [base / DB_NAME, *sorted(base.glob(f"build*/{DB_NAME}"))] if p.is_file()]


def _argv(item: dict) -> list[str]:
    if isinstance(item.get("arguments"), list):
        return [str(a) for a in item["arguments"]]
    return shlex.split(str(item.get("command", "")))


def _context_flags(argv: list[str]) -> tuple[tuple[str, ...], str | None]:
    """The flags that decide how names resolve, and the last "-std=" seen; the rest (output,
    optimisation, warnings, the source itself) is the build's own business."""
    kept, std = [], None
    args = iter(argv[1:])
    for arg in args:
        if arg.startswith("-std="):
            std = arg
        elif arg in _VALUE_FLAGS:
            value = next(args, None)
            if value is not None:
                kept += [arg, value]
        elif arg.startswith(_VALUE_FLAGS):
            kept.append(arg)
    return tuple(kept), std


def _entry(item: dict) -> Entry | None:
    try:
        cwd = str(item["directory"])
        source = os.path.normpath(os.path.join(cwd, str(item["file"])))
        flags, std = _context_flags(_argv(item))
    except (KeyError, TypeError, ValueError):
        return None
    return Entry(flags, cwd, std, source)


def load(root: str) -> dict[str, Entry]:
    """{real path of a source: its entry}; the first database (and first entry) naming a file
    wins. A database that cannot be read or parsed counts as absent."""
    entries: dict[str, Entry] = {}
    for path in database_paths(root):
        try:
            items = json.loads(path.read_text(encoding="utf-8"))
        except (OSError, ValueError):
            continue
        for item in items if isinstance(items, list) else ():
            entry = _entry(item) if isinstance(item, dict) else None
            if entry is not None:
                entries.setdefault(os.path.realpath(entry.source), entry)
    return entries


def entry_near(entries: dict[str, Entry], header: str) -> Entry | None:
    """The build a header most likely shares: a source of the same stem beside it, else any
    source in its directory."""
    real = Path(os.path.realpath(header))
    beside = [e for key, e in entries.items() if Path(key).parent == real.parent]
    same_stem = [e for e in beside if Path(e.source).stem == real.stem]
    likely = same_stem or beside
    return likely[0] if likely else None
