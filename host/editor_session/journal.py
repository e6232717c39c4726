"""Write-ahead marks for tool calls that write project files, and their recovery.

Before a call writes, it commits a mark naming each file it may write with the hash of the
file's bytes now ("pre", its pre-image stored as a blob; None when the file is absent) and, when
known, of the bytes it will leave ("post"; None when the call removes the file, UNKNOWN when only
the module knows). The transaction that records the call's outcome clears the mark. A mark found
on open means the process died in between: each file is brought back to its pre-image unless its
hash proves the call finished. A tree (a directory or link that a call takes away or puts back)
is marked by its images instead of hashes ("tree" set): recovery compares and restores it whole.
"""

from __future__ import annotations

import contextlib
import os
import signal
import threading
from typing import Iterator

from . import guards, images
from .store import Store, digest

PENDING = "pending"
UNKNOWN = "?"
DIRECTORY = "dir"
_SIGNALS = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)


def read_bytes(abs_path: str) -> bytes | None:
    try:
        with open(abs_path, "rb") as handle:
            return handle.read()
    except FileNotFoundError:
        return None


def state_of(abs_path: str) -> str | None:
    """Hex hash of the file's bytes, DIRECTORY, or None when nothing is there."""
    if os.path.isdir(abs_path) and not os.path.islink(abs_path):
        return DIRECTORY
    data = read_bytes(abs_path)
    return None if data is None else digest(data).hex()


def file_entry(store: Store, rel: str, pre: bytes | None, post: str | None) -> dict:
    """A mark's entry for one file, storing its pre-image."""
    return {"rel": rel, "pre": None if pre is None else store.put_blob(pre).hex(), "post": post}


def tree_entry(rel: str, pre: images.Image, post: images.Image | str) -> dict:
    """A mark's entry for a tree; `pre` names its blobs, which the caller has stored."""
    return {"rel": rel, "tree": True, "pre": pre, "post": post}


def _state(path: str, entry: dict) -> object:
    return images.capture(path, digest) if entry.get("tree") else state_of(path)


def _put_back(store: Store, path: str, entry: dict) -> None:
    if entry.get("tree"):
        pre = entry["pre"]
        if not (pre is not None and pre["kind"] == "file" and state_of(path) not in (None, DIRECTORY)
                and not os.path.islink(path)):  # a file stays in place, keeping its inode and mode
            images.remove(path)
        images.restore(path, pre, store.get_blob)
    else:
        write_back(path, None if entry["pre"] is None else store.get_blob(bytes.fromhex(entry["pre"])))


def journal_blobs(entry: dict) -> list[bytes]:
    """The keys of the pre-image blobs an entry stored."""
    if entry.get("tree"):
        return [bytes.fromhex(key) for key in images.blobs(entry["pre"])]
    return [] if entry["pre"] in (None, DIRECTORY) else [bytes.fromhex(entry["pre"])]


def write_back(abs_path: str, data: bytes | None) -> None:
    """Puts `data` at `abs_path` in place (keeping the file's inode and mode), or removes the file."""
    if data is None:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(abs_path)
        return
    with open(abs_path, "wb") as handle:
        handle.write(data)


class Settlement:
    """What recovery found: whether the interrupted call counts as finished, and its notes."""

    def __init__(self, kind: str, finished: bool, consumed: int = 0, notes: list[str] | None = None,
                 paths: list[str] | None = None):
        self.kind, self.finished, self.consumed = kind, finished, consumed
        self.notes: list[str] = [] if notes is None else notes
        self.paths: list[str] = [] if paths is None else paths


def settle(store: Store, root: str, intent: dict, unflagged_now: int) -> Settlement:
    """Brings the files of an interrupted call to a consistent state; decides how it ended."""
    kind = intent["kind"]
    entries = intent["files"]
    paths = [os.path.join(root, entry["rel"]) for entry in entries]
    states = [_state(path, entry) for path, entry in zip(paths, entries)]
    result = Settlement(kind, False, paths=paths)
    if kind == "rollback":
        marked = intent["unflagged"] - unflagged_now
        if marked > 0 or all(state == entry["post"] for state, entry in zip(states, entries)):
            result.finished, result.consumed = True, marked if marked > 0 else len(intent["steps"])
            result.notes.append(f"an interrupted rollback had finished: {result.consumed} step(s) undone")
            return result
    elif kind in ("edit", "create", "delete"):
        entry, state = entries[0], states[0]
        if entry["post"] != UNKNOWN and state == entry["post"]:
            result.finished = True
            result.notes.append(f"an interrupted {kind} of {entry['rel']} had finished; it is kept as a step")
            return result
    restored = []
    for path, state, entry in zip(paths, states, entries):
        if state == entry["pre"] or entry["pre"] == DIRECTORY:
            continue
        problem = guards.outside_root(root, path)
        if problem is not None:
            result.notes.append(f"not restored: {problem}")
            continue
        _put_back(store, path, entry)
        restored.append(entry["rel"])
    what = "commit check" if kind == "check" else kind
    if restored:
        result.notes.append(f"an interrupted {what} was undone: restored {', '.join(restored)}")
    elif kind != "check":
        result.notes.append(f"an interrupted {what} had not changed any file")
    return result


@contextlib.contextmanager
def restoring_on_signal(texts: dict[str, bytes]) -> Iterator[None]:
    """While the body runs, SIGTERM/SIGINT/SIGHUP put `texts` back on disk before the process
    ends with the signal's default action. Handlers exist only on the main thread; elsewhere the
    mark alone protects the files."""
    if threading.current_thread() is not threading.main_thread():
        yield
        return

    def handler(signum: int, frame: object) -> None:
        for path, data in texts.items():
            with contextlib.suppress(OSError):
                write_back(path, data)
        signal.signal(signum, signal.SIG_DFL)
        os.kill(os.getpid(), signum)

    previous = {sig: signal.signal(sig, handler) for sig in _SIGNALS}
    try:
        yield
    finally:
        for sig, old in previous.items():
            signal.signal(sig, old)


def restore_exact(texts: dict[str, bytes]) -> None:
    """Puts back the exact bytes of files a check rewrote through text mode (line ends included)."""
    for path, data in texts.items():
        if read_bytes(path) != data:
            write_back(path, data)

