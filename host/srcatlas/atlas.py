"""The enriched map of a raw IR, kept up to date file by file.

"edges" are call edges {"caller", "callee"}; "symbols" are {id: {"kind", "line"}} for functions,
classes, methods and module constants; "defs" are {scope id: {name: [{"line", "rhs"}]}} for module
scopes ("{file}::<module>") and CSS declaration scopes ("{file}::css::{selector}"). Ids are
"{file}::{qualified name}". Symbols and defs of a file come from its record alone; its edges also
depend on other files, through the dependency keys its resolution recorded.

A file is resolved when something needs its edges: a change that may concern it (see
`mentions`), `callers`, or the whole map. Opening an atlas over a large project therefore costs
one pass over the records' symbols, not the resolution of every call; given `names` (the symbols
each short name has in that raw IR, as a store keeps them: `names(group, short, limit)` gives their
count and, when there are no more than `limit` or `limit` is None, their ids), one pass over the
file names, and a record is looked at only when a change or a resolution reaches it.
"""

from collections import Counter
from collections.abc import Callable
from typing import Any

from .mentions import Reexports, key_words, words_of
from .resolve import EMPTY_INFO, DepKey, FileInfo, FileResolver, file_info, module_name

# The ids of a name defined in up to this many places are read from `names`; of one defined in
# more (helpers, `save`, `__init__`), only the count.
_FEW = 4

# (group, short name, limit) -> (count, ids or None when there are more than limit)
Names = Callable[[str, str, int | None], tuple[int, list[str] | None]]


def enrich(raw: dict) -> dict:
    """The enriched map (edges, symbols, defs) of a raw IR, without reading any file."""
    return Atlas(raw).enriched()


class Atlas:
    """Incremental state over one raw IR; `switch` moves it to another raw IR."""

    def __init__(self, raw: dict, names: Names | None = None):
        self.raw = raw
        self._lookup = names
        self._files = raw["files"]
        self._infos: dict[str, tuple[dict | None, FileInfo]] = {}   # rel -> (record, its info)
        self._words: dict[str, tuple[dict, frozenset]] = {}          # rel -> (record, names it mentions)
        self._modules: dict[str, set[str]] = {}                      # dotted -> rels
        self._module_files: dict[str, str] = {}                      # dotted -> the rel an import of it loads
        self._namespaces: Counter[str] = Counter()                   # dotted module or prefix -> modules below it
        self._by_name: dict[tuple[str, str], set[str] | _Crowd] = {}  # (group, short name) -> symbol ids
        self._edges: dict[str, list[tuple[str, str]]] = {}          # rel -> (caller id, callee id), for resolved files
        self._deps: dict[str, set[DepKey]] = {}                      # rel -> dependency keys its resolution looked at
        self._dependents: dict[DepKey, set[str]] = {}                # dependency key -> rels
        self._callers: dict[str, set[str]] = {}                      # callee id -> caller ids
        self._reexports: Reexports | None = None                     # built on the first change that moves a name
        self._whole: dict[str, Any] | None = None
        for rel in self._files:
            dotted = module_name(rel)
            if dotted:
                self._modules.setdefault(dotted, set()).add(rel)
        for dotted, rels in self._modules.items():
            self._module_files[dotted] = _module_file_of(rels)
        self._namespaces.update(prefix for dotted, rels in self._modules.items()
                                for prefix in _prefixes(dotted) for _ in rels)
        if names is None:
            for rel, record in self._files.items():
                self._index_names(rel, record, True)

    # --- what the resolver asks ------------------------------------------------------

    def info(self, rel: str):
        return self._info_of(rel, self._files.get(rel))

    def module_file(self, dotted: str) -> str | None:
        return self._module_files.get(dotted)

    def module_exists(self, dotted: str) -> bool:
        return self._namespaces[dotted] > 0

    def unique(self, group: str, name: str) -> str | None:
        ids = self._ids((group, name))
        return next(iter(ids)) if len(ids) == 1 else None

    # --- the public surface ------------------------------------------------------------

    def switch(self, new_raw: dict) -> tuple[dict, dict]:
        """Makes `new_raw` current; returns the enriched maps of old and new restricted to
        what can differ: symbols and defs of the files whose record changed, and the edges of
        those files and of every file whose resolution looked at something they moved."""
        old_files, new_files = self._files, new_raw["files"]
        changed = [rel for rel, record in old_files.items() if new_files.get(rel) is not record]
        changed += [rel for rel in new_files if rel not in old_files]
        infos = {rel: (self._info_of(rel, old_files.get(rel)), self._info_of(rel, new_files.get(rel)))
                 for rel in changed}
        moved = self._moved_keys(changed, old_files, new_files, infos)
        # Files not resolved yet that the change may concern are resolved against the old
        # state first, so that their old edges are known and their dependencies exact.
        words = {word for key in moved for word in key_words(key, lambda rel: self._star_names(rel, infos))}
        if words:
            words = self._reexport_index().closure(words)
        for rel in [*changed, *self._mentioning(words)]:
            if rel in old_files and rel not in self._edges:
                self._resolve(rel)
        for rel in changed:
            if self._reexports is not None:
                self._reexports.remove(rel, old_files.get(rel) or {})
                self._reexports.add(rel, new_files.get(rel) or {})
            self._index(rel, old_files.get(rel), False)
            self._index(rel, new_files.get(rel), True)
        self.raw, self._files, self._whole = new_raw, new_files, None
        affected = dict.fromkeys(changed)
        for key in moved:
            affected.update(dict.fromkeys(self._dependents.get(key, ())))
        before: dict[str, Any] = {"edges": [], "symbols": {}, "defs": {}}
        after: dict[str, Any] = {"edges": [], "symbols": {}, "defs": {}}
        for rel in affected:
            before["edges"] += _edge_maps(self._edges.get(rel, ()))
            self._unresolve(rel)
            if rel in new_files:
                self._resolve(rel)
                after["edges"] += _edge_maps(self._edges[rel])
        for rel in changed:
            _add_symbols_and_defs(before, rel, old_files.get(rel))
            _add_symbols_and_defs(after, rel, new_files.get(rel))
        return before, after

    def enriched(self) -> dict:
        """The whole enriched map of the current raw IR."""
        if self._whole is None:
            whole: dict[str, Any] = {"edges": [], "symbols": {}, "defs": {}}
            for rel, record in self._files.items():
                if rel not in self._edges:
                    self._resolve(rel)
                whole["edges"] += _edge_maps(self._edges[rel])
                _add_symbols_and_defs(whole, rel, record)
            self._whole = whole
        return self._whole

    def callers(self, symbol_ids) -> dict:
        """{symbol id: [ids of callers in other files that call it]}."""
        symbol_ids = list(symbol_ids)
        words = set()
        for sid in symbol_ids:
            words.add(sid.rpartition("::")[2].rpartition(".")[2])
        for rel in self._mentioning(self._reexport_index().closure(words)):
            self._resolve(rel)
        result = {}
        for sid in symbol_ids:
            home = sid.partition("::")[0] + "::"
            result[sid] = sorted(c for c in self._callers.get(sid, ()) if not c.startswith(home))
        return result

    # --- what a change moves -----------------------------------------------------------

    def _moved_keys(self, changed, old_files, new_files, infos) -> set[DepKey]:
        """The dependency keys whose answer the change alters. Names and modules are judged by
        the answers the resolver gets, before and after, so that a name defined in many places
        gaining one more moves nothing."""
        moved: set[DepKey] = set()
        pairs: set[tuple[str, str]] = set()
        modules: set[str] = set()
        for rel, (old_info, new_info) in infos.items():
            moved.update(("bind", rel, name) for name in old_info.defs ^ new_info.defs)
            moved.update(("bind", rel, name) for name in old_info.imports.keys() | new_info.imports.keys()
                         if old_info.imports.get(name) != new_info.imports.get(name))
            if old_info.stars != new_info.stars:
                moved.add(("stars", rel))
            pairs.update((group, short) for group, short, _ in old_info.names ^ new_info.names)
            if (rel in old_files) != (rel in new_files) and module_name(rel):
                modules.update(_prefixes(module_name(rel)))

        def answers():
            return ({pair: self.unique(*pair) for pair in pairs},
                    {dotted: (self.module_exists(dotted), self.module_file(dotted)) for dotted in modules})

        names_before, modules_before = answers()
        for rel in changed:
            self._index(rel, old_files.get(rel), False)
            self._index(rel, new_files.get(rel), True)
        names_after, modules_after = answers()
        for rel in changed:
            self._index(rel, new_files.get(rel), False)
            self._index(rel, old_files.get(rel), True)
        moved.update(("name", short) for (group, short), owner in names_before.items()
                     if names_after[(group, short)] != owner)
        moved.update(("mod", dotted) for dotted, answer in modules_before.items() if modules_after[dotted] != answer)
        return moved

    def _star_names(self, rel, infos) -> set:
        """The names that the star imports of `rel`, before or after the change, could bind."""
        names, seen = set(), set()
        work = [module for info in infos[rel] for module in info.stars]
        while work:
            module = work.pop()
            if module in seen:
                continue
            seen.add(module)
            source = self._module_files.get(module)
            sources = [self.info(source)] if source else []
            sources += [info for other, pair in infos.items() if module_name(other) == module for info in pair]
            for info in sources:
                names |= info.defs | info.imports.keys()
                work += info.stars
        return names

    def _mentioning(self, words: set) -> list:
        """The unresolved files that mention one of `words`."""
        found: list[str] = []
        if not words:
            return found
        for rel, record in self._files.items():
            if rel in self._edges:
                continue
            cached = self._words.get(rel)
            if cached is None or cached[0] is not record:
                cached = self._words[rel] = (record, words_of(rel, record))
            if not words.isdisjoint(cached[1]):
                found.append(rel)
        return found

    def _reexport_index(self) -> Reexports:
        if self._reexports is None:
            self._reexports = Reexports()
            for rel, record in self._files.items():
                self._reexports.add(rel, record)
        return self._reexports

    # --- bookkeeping -------------------------------------------------------------------

    def _info_of(self, rel, record):
        cached = self._infos.get(rel)
        if cached is None or cached[0] is not record:
            cached = (record, file_info(record, rel) if record is not None else EMPTY_INFO)
            self._infos[rel] = cached
        return cached[1]

    def _index(self, rel, record, add):
        """Adds a record's modules and callable symbols to the name indexes, or takes them out."""
        if record is not None:
            self._index_module(rel, add)
            self._index_names(rel, record, add)

    def _index_module(self, rel, add):
        dotted = module_name(rel)
        if dotted:
            rels = self._modules.setdefault(dotted, set())
            (rels.add if add else rels.discard)(rel)
            if rels:
                self._module_files[dotted] = _module_file_of(rels)
            else:
                self._module_files.pop(dotted, None)
            for prefix in _prefixes(dotted):
                self._namespaces[prefix] += 1 if add else -1

    def _index_names(self, rel, record, add):
        for group, short, sid in callable_names(rel, record):
            ids = self._ids((group, short))
            (ids.add if add else ids.discard)(sid)

    def _ids(self, key):
        """The symbol ids a short name has now. A name is read from `names` when first asked
        for; every name a switch moves is read before it is moved, so the ones never read still
        answer as `names` does."""
        ids = self._by_name.get(key)
        if ids is None:
            if self._lookup is None:
                ids = set()
            else:
                count, found = self._lookup(*key, _FEW)
                ids = set(found) if found is not None else _Crowd(count, lambda: self._lookup(*key, None)[1])
            self._by_name[key] = ids
        return ids

    def _resolve(self, rel):
        self._unresolve(rel)
        resolver = FileResolver(self, rel)
        edges = resolver.edges(self._files[rel])
        self._edges[rel], self._deps[rel] = edges, resolver.deps
        for key in resolver.deps:
            self._dependents.setdefault(key, set()).add(rel)
        for caller, callee in edges:
            self._callers.setdefault(callee, set()).add(caller)

    def _unresolve(self, rel):
        for key in self._deps.pop(rel, ()):
            self._dependents[key].discard(rel)
        for caller, callee in self._edges.pop(rel, ()):
            self._callers[callee].discard(caller)


class _Crowd:
    """The ids of a short name that many files define, as the count `names` gave and what moved
    since: such a name is only ever asked whether it is unique, which the count answers. A
    switch only takes out ids that are there and only adds ids that are not. The ids are read
    only for the one left, from `names` as it is then (possibly already holding `added`)."""

    __slots__ = ("count", "added", "removed", "fetch")

    def __init__(self, count, fetch):
        self.count, self.added, self.removed, self.fetch = count, set(), set(), fetch

    def add(self, sid):
        if sid in self.removed:
            self.removed.discard(sid)
        else:
            self.added.add(sid)

    def discard(self, sid):
        if sid in self.added:
            self.added.discard(sid)
        else:
            self.removed.add(sid)

    def __len__(self):
        return self.count - len(self.removed) + len(self.added)

    def __iter__(self):
        yield from self.added
        if self.count > len(self.removed):
            yield from (sid for sid in self.fetch() if sid not in self.removed)


def callable_names(rel, record):
    """(group, short name, symbol id) of each function, class and method of a record, once
    each however often the file defines it: what call resolution looks up by short name."""
    return dict.fromkeys(("method" if kind == "method" else "def", qual.rpartition(".")[2], f"{rel}::{qual}")
                         for qual, kind, _ in record.get("symbols") or () if kind != "constant")


def _module_file_of(rels):
    """The file an import of a module loads: a package shadows a module of the same name."""
    if len(rels) == 1:
        return next(iter(rels))
    return min(rels, key=lambda r: (not r.endswith("/__init__.py"), r))


def _prefixes(dotted):
    parts = dotted.split(".")
    return [".".join(parts[:i]) for i in range(1, len(parts) + 1)]


def _edge_maps(edges):
    return [{"caller": caller, "callee": callee} for caller, callee in edges]


def _add_symbols_and_defs(maps, rel, record):
    if record is None:
        return
    symbols = maps["symbols"]
    for qual, kind, line in record.get("symbols", ()):
        symbols[f"{rel}::{qual}"] = {"kind": kind, "line": line}
    defs = maps["defs"]
    for scope, names in record.get("defs", {}).items():
        defs[f"{rel}::{scope}"] = {name: [dict(d) for d in entries] for name, entries in names.items()}
