"""The live index of a session: the indexer's raw IR, its enriched map, and their persistence as
raw states in the store.

Raws are rebuilt from manifests with the record objects of the live raw wherever the content hash
matches, so a rolled-back raw shares structure with the one it replaces and the indexer can tell
the changed files apart by identity.
"""

from __future__ import annotations

import os
from typing import Any

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
    def __init__(self, root: str, raw: dict, raw_id: int | None, manifest: dict[str, bytes]):
        self.root = root
        self.raw = raw
        self.raw_id = raw_id  # None until the current raw is saved
        self.manifest = manifest
        self._maps: dict | None = None
        self._unsaved: tuple[int | None, dict[str, Any]] | None = None

    @classmethod
    def build(cls, store: Store, root: str) -> "LiveIndex":
        raw = srcatlas.build(root)
        manifest = {rel: store.put_record(record) for rel, record in raw["files"].items()}
        raw_id = store.add_raw(None, _extras(raw), {}, full=manifest)
        return cls(root, raw, raw_id, manifest)

    @classmethod
    def load(cls, store: Store, root: str, raw_id: int, like: "LiveIndex | None" = None) -> "LiveIndex":
        extras, manifest = store.manifest(raw_id)
        shared = like.manifest if like is not None else {}
        files_of_like = like.raw["files"] if like is not None else {}
        loaded = store.get_records({key for rel, key in manifest.items() if shared.get(rel) != key})
        files = {rel: files_of_like[rel] if shared.get(rel) == key else loaded[key] for rel, key in manifest.items()}
        return cls(root, {**extras, "files": files}, raw_id, manifest)

    def known_paths(self) -> list[str]:
        return list(self.raw["files"])

    def maps(self) -> dict:
        if self._maps is None:
            self._maps = srcatlas.enrich(self.raw)
        return self._maps

    def switch(self, new_raw: dict) -> tuple[dict, dict]:
        """Makes `new_raw` current (unsaved); returns the enriched maps before and after."""
        before = self.maps()
        changes = changed_files(self.raw["files"], new_raw["files"])
        parent = self.raw_id if self._unsaved is None else self._unsaved[0]
        pending = dict(self._unsaved[1]) if self._unsaved is not None else {}
        pending.update(changes)
        self._unsaved = (parent, pending)
        self.raw, self.raw_id, self._maps = new_raw, None, None
        return before, self.maps()

    def reindex(self, abs_paths: list[str]) -> tuple[dict, dict]:
        raw = self.raw
        for abs_path in abs_paths:
            raw = srcatlas.update(raw, self.root, abs_path)
        return self.switch(raw)

    def adopt(self, raw: dict, raw_id: int, manifest: dict[str, bytes]) -> tuple[dict, dict]:
        """Makes an already saved raw current (a rollback's target)."""
        before = self.maps()
        self.raw, self.raw_id, self.manifest, self._maps, self._unsaved = raw, raw_id, manifest, None, None
        return before, self.maps()

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
