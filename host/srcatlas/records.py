"""The raw IR: one record per file of the project, each a function of the file's bytes.

Every record is a plain JSON-serialisable dict stamped with the file's "hash" (sha256 of its
bytes), "size" and "mtime_ns", so a store can keep records by content hash and hand them back
through `reuse` when a file's stamp has not moved.
"""

import hashlib
import os
from collections.abc import Callable
from pathlib import Path

from .css import css_scopes
from .python_source import index_python

SCHEMA = 4
_SKIP_DIRS = {".git", ".venv", "__pycache__", "node_modules", "build"}

Reuse = Callable[[str, int, int], dict | None]


def build(root, reuse: Reuse | None = None) -> dict:
    """The raw IR of the files under `root`. A record that `reuse(rel, size, mtime_ns)` returns
    stands for the file as it is, which is then neither read nor parsed."""
    files = {}
    for rel, path, stat in _walk(os.fspath(root), ""):
        record = reuse(rel, stat.st_size, stat.st_mtime_ns) if reuse else None
        files[rel] = record if record is not None else _index_file(path)
    return {"schema": SCHEMA, "files": files}


def update(raw: dict, root, abs_path) -> dict:
    """A new raw IR with the file at `abs_path` re-indexed, or with it (and, for a directory,
    everything below it) dropped when it is gone; the given IR and its records are untouched."""
    rel = Path(os.path.relpath(abs_path, root)).as_posix()
    files = dict(raw["files"])
    if os.path.isfile(abs_path):
        files[rel] = _index_file(abs_path)
    else:
        files = {k: v for k, v in files.items() if k != rel and not k.startswith(rel + "/")}
        if os.path.isdir(abs_path):
            files.update((sub, _index_file(path)) for sub, path, _ in _walk(os.fspath(abs_path), rel + "/"))
    return {"schema": SCHEMA, "files": files}


def _walk(directory, prefix):
    try:
        entries = sorted(os.scandir(directory), key=lambda entry: entry.name)
    except OSError:
        return
    for entry in entries:
        if entry.is_dir(follow_symlinks=False):
            if entry.name not in _SKIP_DIRS:
                yield from _walk(entry.path, f"{prefix}{entry.name}/")
        elif entry.is_file():
            try:
                yield f"{prefix}{entry.name}", entry.path, entry.stat()
            except OSError:
                continue


def _index_file(path) -> dict:
    """The record of one file: symbols and definitions for Python and CSS, presence for the
    rest. The stamp is taken after the read, so a write racing it leaves a stamp that no longer
    matches rather than one that vouches for older bytes."""
    try:
        with open(path, "rb") as handle:
            data = handle.read()
            stat = os.fstat(handle.fileno())
    except OSError:
        return {"kind": "file", "hash": None, "size": None, "mtime_ns": None}
    record = _content_record(os.fspath(path), data)
    record.update(hash=hashlib.sha256(data).hexdigest(), size=stat.st_size, mtime_ns=stat.st_mtime_ns)
    return record


def _content_record(path: str, data: bytes) -> dict:
    suffix = os.path.splitext(path)[1].lower()
    if suffix not in (".py", ".css"):
        return {"kind": "file"}
    try:
        text = data.decode("utf-8")
    except UnicodeDecodeError:
        return {"kind": "file"}
    if suffix == ".py":
        return index_python(text)
    return {"kind": "css", "defs": css_scopes(text)}
