"""The live index of a session: the indexer's raw IR, its enriched map, and their persistence as
raw states in the store.

Raws are rebuilt from manifests with the record objects of the live raw wherever the content hash
matches, so a rolled-back raw shares structure with the one it replaces and the indexer can tell
the changed files apart by identity. A record read back from the store is read when first looked
into, and the store's names table answers the indexer's lookups by name, so a process making one
edit reads the records that edit reaches, not the project's.
"""

from __future__ import annotations

import os
from typing import Any, Callable

import srcatlas

from .store import Store


def _extras(raw: dict) -> dict:
    return {key: value for key, value in raw.items() if key != "files"}


def changed_files(old: dict, new: dict) -> dict[str, Any]:
    """{rel: new record, or None when gone} for every file whose record object differs."""
    changes: dict[str, Any] = {rel: None for rel in old if rel not in new}
    for rel, record in new.items():
        if old.get(rel) is not record:
            changes[rel] = record
    return changes


class StoredRecord(dict):
    """A record of the store that reads itself on first look (any of the ways below into a
    dict); until then it holds its key."""

    __slots__ = ("key", "_fetch")

    def __init__(self, key: bytes, fetch: Callable[[bytes], dict]):
        super().__init__()
        self.key = key
        self._fetch: Callable[[bytes], dict] | None = fetch

    def _filled(self) -> "StoredRecord":
        fetch = self._fetch
        if fetch is not None:
            dict.update(self, fetch(self.key))
            self._fetch = None
        return self

    def __getitem__(self, key): return dict.__getitem__(self._filled(), key)
    def __contains__(self, key): return dict.__contains__(self._filled(), key)
    def __iter__(self): return dict.__iter__(self._filled())
    def __len__(self): return dict.__len__(self._filled())
    def __eq__(self, other): return dict.__eq__(self._filled(), other)
    def __ne__(self, other): return dict.__ne__(self._filled(), other)
    def __repr__(self): return dict.__repr__(self._filled())
    def get(self, key, default=None): return dict.get(self._filled(), key, default)
    def keys(self): return dict.keys(self._filled())
    def values(self): return dict.values(self._filled())
    def items(self): return dict.items(self._filled())
    def copy(self): return dict(self.items())
    __hash__ = None  # type: ignore[assignment]


def plain(record: dict) -> dict:
    """The record as a plain dict, as marshal takes it."""
    return record.copy() if isinstance(record, StoredRecord) else record


class LiveIndex:
    def __init__(self, root: str, raw: dict | None, raw_id: int | None, manifest: dict[str, bytes],
                 extras: dict, loader: Callable[[], dict] | None = None, names_of: int | None = None,
                 lookup: Callable[[str, str, int | None], tuple[int, list[str] | None]] | None = None):
        self.root = root
        self._raw = raw
        self._loader = loader  # reads the records when the raw is first needed
        self.raw_id = raw_id  # None until the current raw is saved
        self.manifest = manifest
        self.extras = extras
        self._atlas: srcatlas.Atlas | None = None
        self._unsaved: tuple[int | None, dict[str, Any]] | None = None
        # Files whose names the store's table does not hold yet; None: the table is of another raw.
        self._names_pending: dict[str, Any] | None = {} if raw_id is not None and raw_id == names_of else None
        self._lookup = lookup if self._names_pending is not None else None

    @classmethod
    def build(cls, store: Store, root: str, like: "LiveIndex | None" = None) -> "LiveIndex":
        """Indexes the project; files whose size and mtime match a record of `like` are taken
        from it without being read."""
        known = like.raw["files"] if like is not None else {}

        def reuse(rel: str, size: int, mtime_ns: int) -> dict | None:
            record = known.get(rel)
            if record is not None and record.get("size") == size and record.get("mtime_ns") == mtime_ns:
                return record
            return None
        raw = srcatlas.build(root, reuse=reuse)
        manifest = {rel: store.put_record(plain(record)) for rel, record in raw["files"].items()}
        raw_id = store.add_raw(None, _extras(raw), {}, full=manifest)
        store.replace_names(raw_id, raw["files"], srcatlas.callable_names, whole=True)
        return cls(root, raw, raw_id, manifest, _extras(raw), names_of=raw_id, lookup=store.symbol_ids)

    @classmethod
    def load(cls, store: Store, root: str, raw_id: int, like: "LiveIndex | None" = None) -> "LiveIndex":
        """A saved raw; its records are read when first looked into, sharing the objects of
        `like` (a saved index) wherever the content hash is the same."""
        extras, manifest = store.manifest(raw_id)
        shared = like.manifest if like is not None and like._raw is not None else {}
        files_of_like = like._raw["files"] if like is not None and like._raw is not None else {}

        def loader() -> dict:
            fetch = store.get_record
            files = {rel: files_of_like[rel] if shared.get(rel) == key else StoredRecord(key, fetch)
                     for rel, key in manifest.items()}
            return {**extras, "files": files}
        return cls(root, None, raw_id, manifest, extras, loader, store.names_of(), store.symbol_ids)

    @property
    def raw(self) -> dict:
        if self._raw is None:
            assert self._loader is not None
            self._raw, self._loader = self._loader(), None
        return self._raw

    @property
    def current(self) -> bool:
        """Whether the raw was made by this version of the indexer."""
        return self.extras.get("schema") == srcatlas.SCHEMA

    def known_paths(self) -> list[str]:
        return list(self.raw["files"] if self._raw is not None else self.manifest)

    def atlas(self) -> srcatlas.Atlas:
        if self._atlas is None:
            self._atlas = srcatlas.Atlas(self.raw, self._lookup)
        return self._atlas

    def materialise(self) -> None:
        """Reads every record not read yet: before the store they come from goes away."""
        for record in self.raw["files"].values():
            if isinstance(record, StoredRecord):
                record._filled()

    def _names_changed(self, changes: dict[str, Any]) -> None:
        if self._names_pending is not None:
            self._names_pending.update(changes)

    def switch(self, new_raw: dict) -> tuple[dict, dict]:
        """Makes `new_raw` current (unsaved); returns the enriched maps of what changed, before
        and after."""
        changes = changed_files(self.raw["files"], new_raw["files"])
        parent = self.raw_id if self._unsaved is None else self._unsaved[0]
        pending = dict(self._unsaved[1]) if self._unsaved is not None else {}
        pending.update(changes)
        self._unsaved = (parent, pending)
        self._names_changed(changes)
        before, after = self.atlas().switch(new_raw)
        self._raw, self.raw_id, self.extras = new_raw, None, _extras(new_raw)
        return before, after

    def reindex(self, abs_paths: list[str]) -> tuple[dict, dict]:
        raw = self.raw
        for abs_path in abs_paths:
            raw = srcatlas.update(raw, self.root, abs_path)
        return self.switch(raw)

    def adopt(self, raw: dict, raw_id: int, manifest: dict[str, bytes]) -> tuple[dict, dict]:
        """Makes an already saved raw current (a rollback's target)."""
        self._names_changed(changed_files(self.raw["files"], raw["files"]))
        before, after = self.atlas().switch(raw)
        self._raw, self.raw_id, self.manifest, self._unsaved, self.extras = raw, raw_id, manifest, None, _extras(raw)
        return before, after

    def save(self, store: Store) -> int:
        """Writes the current raw as a state in the store's open transaction; returns its id."""
        if self._unsaved is None:
            assert self.raw_id is not None
            self._save_names(store)
            return self.raw_id
        parent, changes = self._unsaved
        delta = {rel: None if record is None else store.put_record(plain(record)) for rel, record in changes.items()}
        manifest = dict(self.manifest)
        for rel, key in delta.items():
            if key is None:
                manifest.pop(rel, None)
            else:
                manifest[rel] = key
        self.raw_id = store.add_raw(parent, _extras(self.raw), delta, full=manifest)
        self.manifest, self._unsaved = manifest, None
        self._save_names(store)
        return self.raw_id

    def _save_names(self, store: Store) -> None:
        """Brings the store's names table to the current raw, in the same transaction as the raw."""
        assert self.raw_id is not None
        pending = self._names_pending  # None: the table was of another raw, written whole once
        store.replace_names(self.raw_id, self.raw["files"] if pending is None else pending,
                            srcatlas.callable_names, whole=pending is None)
        self._names_pending = {}

    def drop_missing(self, rels: list[str]) -> None:
        """Drops from the live raw the given files that are no longer on disk."""
        gone = [os.path.join(self.root, rel) for rel in rels if not os.path.isfile(os.path.join(self.root, rel))]
        if gone:
            self.reindex(gone)
