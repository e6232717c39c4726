"""The session's guard around the module's ledger: a ledger that exists but cannot be read is
moved aside to a dated backup before the module writes a fresh one, and the counts that
recovery compares are read here."""

from __future__ import annotations

import json
import os
import time
from pathlib import Path

import editor
import projstore


def path_of(root: str) -> Path:
    return projstore.project_dir(root) / editor.LEDGER_NAME


def _unreadable(path: Path) -> str | None:
    """Why the ledger at `path` cannot be read, or None (also when there is none)."""
    try:
        data = json.loads(path.read_bytes().decode("utf-8"))
    except FileNotFoundError:
        return None
    except OSError as e:
        return e.strerror or str(e)
    except UnicodeDecodeError:
        return "not UTF-8 text"
    except ValueError as e:
        return f"not JSON ({e})"
    if not isinstance(data, dict) or not isinstance(data.get("steps"), list):
        return 'no "steps" list at the top'
    if not all(isinstance(step, dict) for step in data["steps"]):
        return "a step that is not an object"
    return None


def ensure_readable(root: str) -> str | None:
    """Moves an unreadable ledger aside; returns the note that says so, or None."""
    path = path_of(root)
    reason = _unreadable(path)
    if reason is None:
        return None
    backup = path.with_name(f"{path.name}.unreadable-{time.strftime('%Y%m%dT%H%M%SZ', time.gmtime())}")
    counter = 1
    while backup.exists():
        backup = backup.with_name(f"{backup.name.split('~')[0]}~{counter}")
        counter += 1
    os.replace(path, backup)
    return f"the ledger {path} could not be read ({reason}); it was moved aside to {backup.name} and a fresh one started"


def length(root: str) -> int:
    return len(editor.ledger_load(root))


def unflagged(root: str) -> int:
    return sum(1 for step in editor.ledger_load(root) if not step.get("rolled_back"))
