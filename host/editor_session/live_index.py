"""The live index of a session: the indexer's raw IR, its enriched map, and their persistence as
raw states in the store.

Raws are rebuilt from manifests with the record objects of the live raw wherever the content hash
matches, so a rolled-back raw shares structure with the one it replaces and the indexer can tell
the changed files apart by identity.
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


class LiveIndex:
    def __init__(self, root: str, raw: dict | None, raw_id: int | None, manifest: dict[str, bytes],
                 extras: dict, loader: Callable[[], dict] | None = None):
        self.root = root
        self._raw = raw
        self._loader = loader  # reads the records when the raw is first needed
        self.raw_id = raw_id  # None until the current raw is saved
        self.manifest = manifest
        self.extras = extras
        self._atlas: srcatlas.Atlas | None = None
        self._unsaved: tuple[int | None, dict[str, Any]] | None = None

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
        manifest = {rel: store.put_record(record) for rel, record in raw["files"].items()}
        raw_id = store.add_raw(None, _extras(raw), {}, full=manifest)
        return cls(root, raw, raw_id, manifest, _extras(raw))

    @classmethod
    def load(cls, store: Store, root: str, raw_id: int, like: "LiveIndex | None" = None) -> "LiveIndex":
        """A saved raw; its records are read on first use, sharing the objects of `like` (a saved
        index) wherever the content hash is the same."""
        extras, manifest = store.manifest(raw_id)
        shared = like.manifest if like is not None and like._raw is not None else {}
        files_of_like = like._raw["files"] if like is not None and like._raw is not None else {}

        def loader() -> dict:
            loaded = store.get_records({key for rel, key in manifest.items() if shared.get(rel) != key})
            files = {rel: files_of_like[rel] if shared.get(rel) == key else loaded[key]
                     for rel, key in manifest.items()}
            return {**extras, "files": files}
        return cls(root, None, raw_id, manifest, extras, loader)

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
            self._atlas = srcatlas.Atlas(self.raw)
        return self._atlas

    def switch(self, new_raw: dict) -> tuple[dict, dict]:
        """Makes `new_raw` current (unsaved); returns the enriched maps of what changed, before
        and after."""
        changes = changed_files(self.raw["files"], new_raw["files"])
        parent = self.raw_id if self._unsaved is None else self._unsaved[0]
        pending = dict(self._unsaved[1]) if self._unsaved is not None else {}
        pending.update(changes)
        self._unsaved = (parent, pending)
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
        before, after = self.atlas().switch(raw)
        self._raw, self.raw_id, self.manifest, self._unsaved, self.extras = raw, raw_id, manifest, None, _extras(raw)
        return before, after

    def save(self, store: Store) -> int:
        """Writes the current raw as a state in the store's open transaction; returns its id."""
        if self._unsaved is None:
            assert self.raw_id is not None
            return self.raw_id
        parent, changes = self._unsaved
        delta = {rel: None if record is None else store.put_record(record) for rel, record in changes.items()}
        manifest = dict(self.manifest)
        for rel, key in delta.items():
            if key is None:
                manifest.pop(rel, None)
            else:
                manifest[rel] = key
        self.raw_id = store.add_raw(parent, _extras(self.raw), delta, full=manifest)
        self.manifest, self._unsaved = manifest, None
        return self.raw_id

    def drop_missing(self, rels: list[str]) -> None:
        """Drops from the live raw the given files that are no longer on disk."""
        gone = [os.path.join(self.root, rel) for rel in rels if not os.path.isfile(os.path.join(self.root, rel))]
        if gone:
            self.reindex(gone)
