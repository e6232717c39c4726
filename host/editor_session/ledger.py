"""The session's guard around the module's ledger: a ledger that exists but cannot be read is
moved aside to a dated backup before the module writes a fresh one; before a call lets the module
rewrite the ledger (in place, not atomically) its bytes are kept beside it, so that recovery can
put back a ledger that a kill cut short; and the counts that recovery compares are read here."""

from __future__ import annotations

import json
import os
import time
from pathlib import Path

import editor
import projstore


def path_of(root: str) -> Path:
    return projstore.project_dir(root) / editor.LEDGER_NAME


def _parse(data: bytes) -> tuple[list | None, str | None]:
    """The ledger's steps, or None and why they cannot be read."""
    try:
        parsed = json.loads(data.decode("utf-8"))
    except UnicodeDecodeError:
        return None, "not UTF-8 text"
    except ValueError as e:
        return None, f"not JSON ({e})"
    if not isinstance(parsed, dict) or not isinstance(parsed.get("steps"), list):
        return None, 'no "steps" list at the top'
    if not all(isinstance(step, dict) for step in parsed["steps"]):
        return None, "a step that is not an object"
    return parsed["steps"], None


def _read(path: Path) -> tuple[bytes | None, list | None, str | None]:
    """The ledger's bytes (None when there is none), its steps, and why they cannot be read."""
    try:
        data = path.read_bytes()
    except FileNotFoundError:
        return None, [], None
    except OSError as e:
        return b"", None, e.strerror or str(e)
    return (data, *_parse(data))


def prepare(root: str) -> tuple[list, str | None]:
    """Before a call that lets the module rewrite the ledger: moves an unreadable ledger aside,
    keeps the bytes of a readable one for `restore_cut`, and returns its steps with the note
    that says what was moved aside (or None)."""
    path = path_of(root)
    journal = _journal_of(path)
    data, steps, reason = _read(path)
    if steps is None:
        backup = path.with_name(f"{path.name}.unreadable-{time.strftime('%Y%m%dT%H%M%SZ', time.gmtime())}")
        counter = 1
        while backup.exists():
            backup = backup.with_name(f"{backup.name.split('~')[0]}~{counter}")
            counter += 1
        os.replace(path, backup)
        journal.unlink(missing_ok=True)
        return [], (f"the ledger {path} could not be read ({reason}); it was moved aside to {backup.name} "
                    "and a fresh one started")
    if data is None:
        journal.unlink(missing_ok=True)
    else:
        _replace_with(journal, data)
    return steps, None


def _journal_of(path: Path) -> Path:
    return path.with_name(path.name + ".journal")


def restore_cut(root: str) -> str | None:
    """Puts back the preserved ledger when the current one cannot be read; returns a note."""
    path = path_of(root)
    if _read(path)[1] is not None:
        return None
    put_back(root)
    return f"the ledger {path.name}, cut short while it was written, was put back as it was before that call"


def put_back(root: str) -> str:
    """Puts back the ledger as `prepare` kept it (none when there was none); returns a note."""
    path = path_of(root)
    try:
        _replace_with(path, _journal_of(path).read_bytes())
    except FileNotFoundError:
        path.unlink(missing_ok=True)
    return f"the ledger {path.name} was put back as it was before the interrupted call"


def _replace_with(path: Path, data: bytes) -> None:
    temporary = path.with_name(path.name + ".tmp")
    with open(temporary, "wb") as handle:
        handle.write(data)
        handle.flush()
    os.replace(temporary, path)


def unflagged(steps: list) -> int:
    return sum(1 for step in steps if not step.get("rolled_back"))
