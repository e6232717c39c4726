"""The session store: one SQLite file beside the ledger in the project's state directory.

Texts are content-addressed zlib blobs keyed by the sha256 of their bytes, stored once however
many rows point at them. Index records are stored the same way, keyed by the hash of their
marshalled form; a raw IR is a manifest {rel: record hash}, kept as a delta on the raw it was
made from (with a full manifest every `CHECKPOINT_EVERY` deltas), so a step costs the records of
the files it changed, not the project. A file lock serialises whole tool calls between
processes; SQLite's own busy time-out covers readers that do not take it.
"""

from __future__ import annotations

import contextlib
import fcntl
import hashlib
import json
import marshal
import os
import sqlite3
import time
import zlib
from pathlib import Path
from typing import Any, Callable, Iterable, Iterator

SCHEMA_VERSION = 2
STORE_NAME = "session.sqlite3"
LOCK_NAME = "session.lock"
CHECKPOINT_EVERY = 200
DEFAULT_BUSY_TIMEOUT = 30.0
NAMES_OF = "names_of"
RESET_HINT = "run 'editor-session --root {root} reset' to start a new session (project files are not touched)"

# The callable symbols of the live raw by short name, so that a process can resolve calls
# without reading every record; meta "names_of" is the raw id the rows belong to.
_NAMES = """
CREATE TABLE names(grp TEXT NOT NULL, short TEXT NOT NULL, sid TEXT NOT NULL, rel TEXT NOT NULL);
CREATE INDEX names_by_short ON names(grp, short);
CREATE INDEX names_by_rel ON names(rel);
"""
_SCHEMA = _NAMES + """
CREATE TABLE meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE blobs(hash BLOB PRIMARY KEY, data BLOB NOT NULL);
CREATE TABLE records(hash BLOB PRIMARY KEY, data BLOB NOT NULL);
CREATE TABLE raws(id INTEGER PRIMARY KEY, parent INTEGER REFERENCES raws(id), depth INTEGER NOT NULL,
                  schema INTEGER, delta BLOB NOT NULL);
CREATE TABLE touched(seq INTEGER PRIMARY KEY, rel TEXT UNIQUE NOT NULL, text_hash BLOB);
CREATE TABLE steps(id INTEGER PRIMARY KEY, tool TEXT NOT NULL, rel TEXT NOT NULL, ts REAL NOT NULL,
                   text_hash BLOB, raw_id INTEGER NOT NULL REFERENCES raws(id), ledger_n INTEGER,
                   receipt TEXT NOT NULL, rolled_back INTEGER NOT NULL DEFAULT 0);
CREATE INDEX steps_live ON steps(rolled_back, id);
"""


class SessionError(Exception):
    """A session that cannot be used: its message is the one-line refusal."""


def digest(data: bytes) -> bytes:
    return hashlib.sha256(data).digest()


def remove_store(state_dir: Path) -> Path:
    """Deletes the store's files, its write-ahead log first: a removal cut short leaves either
    the whole store or none (a log without its database would be replayed into a new one)."""
    base = state_dir / STORE_NAME
    for path in (base.with_name(STORE_NAME + "-wal"), base.with_name(STORE_NAME + "-shm"), base):
        path.unlink(missing_ok=True)
    return base


class Store:
    def __init__(self, conn: sqlite3.Connection, root: str, state_dir: Path, busy_timeout: float):
        self.conn = conn
        self.root = root
        self.state_dir = state_dir
        self.path = state_dir / STORE_NAME
        self.busy_timeout = busy_timeout
        self._lock_file: int | None = None

    # --- opening -----------------------------------------------------------------------

    @classmethod
    def open(cls, root: str, state_dir: Path, busy_timeout: float = DEFAULT_BUSY_TIMEOUT,
             lock_held: bool = False) -> "Store":
        """Opens or creates the store; `lock_held` when the caller already holds the session lock."""
        path = state_dir / STORE_NAME
        hint = RESET_HINT.format(root=root)
        try:
            conn = sqlite3.connect(path, timeout=busy_timeout, isolation_level="IMMEDIATE",
                                   check_same_thread=False)
        except sqlite3.Error as e:
            raise SessionError(f"session store {path} cannot be opened: {e} -- is {state_dir} writable?")
        store = cls(conn, root, state_dir, busy_timeout)
        try:
            conn.execute("PRAGMA journal_mode=WAL")
            conn.execute("PRAGMA synchronous=NORMAL")
            conn.execute("PRAGMA foreign_keys=ON")
            if conn.execute("PRAGMA user_version").fetchone()[0] == 0:
                with contextlib.nullcontext() if lock_held else store.locked():
                    if conn.execute("PRAGMA user_version").fetchone()[0] == 0:
                        conn.executescript(f"BEGIN IMMEDIATE;{_SCHEMA}PRAGMA user_version={SCHEMA_VERSION};COMMIT;")
            version = conn.execute("PRAGMA user_version").fetchone()[0]
            if version == 1:  # a store from before the names table: the next save fills it
                with contextlib.nullcontext() if lock_held else store.locked():
                    if conn.execute("PRAGMA user_version").fetchone()[0] == 1:
                        conn.executescript(f"BEGIN IMMEDIATE;{_NAMES}PRAGMA user_version={SCHEMA_VERSION};COMMIT;")
                version = conn.execute("PRAGMA user_version").fetchone()[0]
            if version != SCHEMA_VERSION:
                raise SessionError(f"session store {path} has schema version {version}, this editor-session "
                                   f"reads version {SCHEMA_VERSION} -- {hint}")
            conn.execute("SELECT count(*) FROM meta").fetchone()
        except sqlite3.OperationalError as e:
            conn.close()
            if "readonly" in str(e) or "unable to open" in str(e) or "disk I/O" in str(e):
                raise SessionError(f"session store {path} cannot be written: {e} -- is {state_dir} writable?")
            raise SessionError(f"session store {path} is damaged: {e} -- {hint}")
        except sqlite3.DatabaseError as e:
            conn.close()
            raise SessionError(f"session store {path} is damaged: {e} -- {hint}")
        except SessionError:
            conn.close()
            raise
        return store

    def close(self) -> None:
        self.conn.close()

    def checkpoint(self) -> None:
        """Moves everything committed into the database file and empties the log."""
        self.conn.execute("PRAGMA wal_checkpoint(TRUNCATE)")

    @contextlib.contextmanager
    def locked(self) -> Iterator[None]:
        """Holds the session's write lock for a whole tool call (file writes and ledger included)."""
        if self._lock_file is not None:  # re-entered by the same call
            yield
            return
        try:
            fd = os.open(self.state_dir / LOCK_NAME, os.O_RDWR | os.O_CREAT, 0o644)
        except OSError as e:
            raise SessionError(f"session lock {self.state_dir / LOCK_NAME} cannot be created: {e.strerror} "
                               f"-- is {self.state_dir} writable?")
        deadline = time.monotonic() + self.busy_timeout
        try:
            while True:
                try:
                    fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    break
                except BlockingIOError:
                    if time.monotonic() >= deadline:
                        raise SessionError(f"session busy: another call has held {self.path} for over "
                                           f"{self.busy_timeout:g} s -- try again when it has finished")
                    time.sleep(0.01)
            self._lock_file = fd
            yield
        finally:
            self._lock_file = None
            os.close(fd)  # closing releases the lock

    # --- meta --------------------------------------------------------------------------

    def get_meta(self, key: str, default: Any = None) -> Any:
        row = self.conn.execute("SELECT value FROM meta WHERE key=?", (key,)).fetchone()
        return default if row is None else json.loads(row[0])

    def set_meta(self, key: str, value: Any) -> None:
        if value is None:
            self.conn.execute("DELETE FROM meta WHERE key=?", (key,))
        else:
            self.conn.execute("INSERT OR REPLACE INTO meta VALUES(?, ?)", (key, json.dumps(value)))

    # --- blobs -------------------------------------------------------------------------

    def put_blob(self, data: bytes) -> bytes:
        key = digest(data)
        if self.conn.execute("SELECT 1 FROM blobs WHERE hash=?", (key,)).fetchone() is None:
            self.conn.execute("INSERT INTO blobs VALUES(?, ?)", (key, zlib.compress(data, 6)))
        return key

    def _stored(self, table: str, key: bytes, what: str) -> bytes:
        """The decompressed bytes under `key`; a missing row means the store lost what it names."""
        row = self.conn.execute(f"SELECT data FROM {table} WHERE hash=?", (key,)).fetchone()
        if row is None:
            raise SessionError(f"session store {self.path} lacks {what} it refers to -- "
                               + RESET_HINT.format(root=self.root))
        return zlib.decompress(row[0])

    def get_blob(self, key: bytes) -> bytes:
        return self._stored("blobs", key, "a text")

    def drop_unreferenced_blobs(self, keys: list[bytes]) -> None:
        """Forgets journal-only blobs (texts a finished call no longer needs). Images of deleted
        files (in step receipts) and of undone steps (the redo stack in meta) name their blobs
        by hex key."""
        for key in keys:
            self.conn.execute("DELETE FROM blobs WHERE hash=? AND NOT EXISTS (SELECT 1 FROM steps WHERE "
                              "text_hash=?) AND NOT EXISTS (SELECT 1 FROM touched WHERE text_hash=?) "
                              "AND NOT EXISTS (SELECT 1 FROM steps WHERE instr(receipt, ?) > 0) "
                              "AND NOT EXISTS (SELECT 1 FROM meta WHERE instr(value, ?) > 0)",
                              (key, key, key, key.hex(), key.hex()))

    def step(self, step_id: int) -> sqlite3.Row:
        self.conn.row_factory = sqlite3.Row
        try:
            return self.conn.execute("SELECT * FROM steps WHERE id=?", (step_id,)).fetchone()
        finally:
            self.conn.row_factory = None

    # --- index records and raw manifests ---------------------------------------------

    def put_record(self, record: dict) -> bytes:
        data = marshal.dumps(record)
        key = digest(data)
        self.conn.execute("INSERT OR IGNORE INTO records VALUES(?, ?)", (key, zlib.compress(data, 1)))
        return key

    def get_record(self, key: bytes) -> dict:
        return marshal.loads(self._stored("records", key, "an index record"))

    # --- the names of the live raw -----------------------------------------------------

    def names_of(self) -> int | None:
        """The raw id the names table holds the symbols of."""
        return self.get_meta(NAMES_OF)

    def symbol_ids(self, group: str, short: str, limit: int | None) -> tuple[int, list[str] | None]:
        """How many symbols of the live raw have that short name, and their ids unless there
        are more than `limit`."""
        query = "FROM names WHERE grp=? AND short=?"
        count = self.conn.execute(f"SELECT count(*) {query}", (group, short)).fetchone()[0]
        if limit is not None and count > limit:
            return count, None
        return count, [sid for sid, in self.conn.execute(f"SELECT sid {query}", (group, short))]

    def replace_names(self, raw_id: int, files: dict[str, Any], rows: Callable[[str, Any], Iterable[tuple]],
                      whole: bool) -> None:
        """Makes the table hold the names of raw `raw_id`: `files` ({rel: record, or None when
        gone}) replaces what the table holds for those files, or, when `whole`, everything."""
        if whole:
            self.conn.execute("DELETE FROM names")
        else:
            self.conn.executemany("DELETE FROM names WHERE rel=?", [(rel,) for rel in files])
        self.conn.executemany("INSERT INTO names VALUES(?, ?, ?, ?)",
                              [(group, short, sid, rel) for rel, record in files.items() if record is not None
                               for group, short, sid in rows(rel, record)])
        self.set_meta(NAMES_OF, raw_id)

    def add_raw(self, parent: int | None, schema: Any, changes: dict[str, bytes | None],
                full: dict[str, bytes] | None = None) -> int:
        """A raw state: `changes` on top of `parent`, or `full` (a whole manifest) when the chain
        has grown long or there is no parent."""
        depth = 0
        if parent is not None:
            depth = self.conn.execute("SELECT depth FROM raws WHERE id=?", (parent,)).fetchone()[0] + 1
        if parent is None or depth >= CHECKPOINT_EVERY:
            if full is None:
                raise ValueError("a checkpoint needs the whole manifest")
            parent, depth, changes = None, 0, dict(full)
        cursor = self.conn.execute("INSERT INTO raws(parent, depth, schema, delta) VALUES(?, ?, ?, ?)",
                                   (parent, depth, json.dumps(schema), zlib.compress(marshal.dumps(changes), 1)))
        return int(cursor.lastrowid or 0)

    def manifest(self, raw_id: int) -> tuple[Any, dict[str, bytes]]:
        rows = self.conn.execute(
            "WITH RECURSIVE chain(id, parent, schema, delta, k) AS ("
            " SELECT id, parent, schema, delta, 0 FROM raws WHERE id=?"
            " UNION ALL SELECT r.id, r.parent, r.schema, r.delta, c.k + 1 FROM raws r JOIN chain c ON r.id=c.parent)"
            " SELECT schema, delta FROM chain ORDER BY k DESC", (raw_id,)).fetchall()
        manifest: dict[str, bytes] = {}
        for _, delta in rows:
            for rel, key in marshal.loads(zlib.decompress(delta)).items():
                if key is None:
                    manifest.pop(rel, None)
                else:
                    manifest[rel] = key
        return json.loads(rows[0][0]), manifest

    # --- steps and touched -------------------------------------------------------------

    def add_step(self, tool: str, rel: str, ts: float, text_hash: bytes | None, raw_id: int,
                 ledger_n: int | None, receipt: dict) -> int:
        cursor = self.conn.execute(
            "INSERT INTO steps(tool, rel, ts, text_hash, raw_id, ledger_n, receipt) VALUES(?, ?, ?, ?, ?, ?, ?)",
            (tool, rel, ts, text_hash, raw_id, ledger_n, json.dumps(receipt, ensure_ascii=False)))
        return int(cursor.lastrowid or 0)

    def live_steps(self, count: int) -> list[sqlite3.Row]:
        """The newest `count` steps still on the snapshot stack, newest first."""
        self.conn.row_factory = sqlite3.Row
        try:
            return self.conn.execute("SELECT * FROM steps WHERE rolled_back=0 ORDER BY id DESC LIMIT ?",
                                     (count,)).fetchall()
        finally:
            self.conn.row_factory = None

    def depth(self) -> int:
        return self.conn.execute("SELECT count(*) FROM steps WHERE rolled_back=0").fetchone()[0]

    def mark_rolled_back(self, step_ids: list[int]) -> None:
        self.conn.executemany("UPDATE steps SET rolled_back=1 WHERE id=?", [(i,) for i in step_ids])

    def add_touched(self, rel: str, text_hash: bytes | None) -> None:
        self.conn.execute("INSERT OR IGNORE INTO touched(rel, text_hash) VALUES(?, ?)", (rel, text_hash))

    def touched(self) -> list[tuple[str, bytes | None]]:
        return self.conn.execute("SELECT rel, text_hash FROM touched ORDER BY seq").fetchall()

    def first_step(self, rel: str) -> tuple[str, str]:
        """The tool and receipt of the session's first step on `rel`, rolled back or not."""
        return self.conn.execute("SELECT tool, receipt FROM steps WHERE rel=? ORDER BY id LIMIT 1", (rel,)).fetchone()

    def is_touched(self, rel: str) -> bool:
        return self.conn.execute("SELECT 1 FROM touched WHERE rel=?", (rel,)).fetchone() is not None

    def step_summaries(self) -> list[tuple]:
        return self.conn.execute("SELECT id, tool, rel, ledger_n, rolled_back FROM steps ORDER BY id").fetchall()
