"""Stand-in for the host's per-project state store.

Each project root gets its own state directory outside the project tree, under
`$EDITOR_STATE_HOME` or else the user's state directory (`$XDG_STATE_HOME/editor`,
`~/.local/state/editor`). The directory name pairs the root's base name, for people, with a
hash of its resolved path, so two projects with the same name never share a ledger.
"""

import hashlib
import os
from pathlib import Path


def _base_dir():
    explicit = os.environ.get("EDITOR_STATE_HOME")
    if explicit:
        return Path(explicit)
    xdg = os.environ.get("XDG_STATE_HOME")
    return (Path(xdg) if xdg else Path.home() / ".local" / "state") / "editor"


def project_dir(root):
    resolved = os.path.realpath(os.fspath(root))
    digest = hashlib.sha256(resolved.encode("utf-8", "surrogateescape")).hexdigest()[:16]
    name = os.path.basename(resolved.rstrip(os.sep)) or "root"
    return _base_dir() / f"{name}-{digest}"


def ensure_orvel_dir(root):
    path = project_dir(root)
    path.mkdir(parents=True, exist_ok=True)
    return path
