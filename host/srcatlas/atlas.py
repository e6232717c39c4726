"""The enriched map of a raw IR, kept up to date file by file.

"edges" are call edges {"caller", "callee"}; "symbols" are {id: {"kind", "line"}} for functions,
classes, methods and module constants; "defs" are {scope id: {name: [{"line", "rhs"}]}} for module
scopes ("{file}::<module>") and CSS declaration scopes ("{file}::css::{selector}"). Ids are
"{file}::{qualified name}". Symbols and defs of a file come from its record alone; its edges also
depend on other files, through the dependency keys its resolution recorded.

A file is resolved when something needs its edges: a change that may concern it (see `asks`),
`callers`, or the whole map. Opening an atlas over a large project therefore costs a pass over
the records' names, not the resolution of every call.
"""

from collections import Counter

from .asks import Asks
from .resolve import EMPTY_INFO, FileResolver, file_info, module_name


def enrich(raw: dict) -> dict:
    """The enriched map (edges, symbols, defs) of a raw IR, without reading any file."""
    return Atlas(raw).enriched()


class Atlas:
    """Incremental state over one raw IR; `switch` moves it to another raw IR."""

    def __init__(self, raw: dict):
        self.raw = raw
        self._files = raw["files"]
        self._infos = {}            # rel -> (record, FileInfo)
        self._modules = {}          # dotted -> set of rels
        self._module_files = {}     # dotted -> the rel an import of it loads
        self._namespaces = Counter()  # dotted module or package prefix -> modules below it
        self._by_name = {}          # (group, short name) -> set of symbol ids
        self._edges = {}            # rel -> [(caller id, callee id)]
        self._deps = {}             # rel -> dependency keys its resolution looked at
        self._dependents = {}       # dependency key -> rels
        self._callers = {}          # callee id -> set of caller ids
        self._asks = None           # built on the first change
        self._whole = None
        for rel, record in self._files.items():
            self._add_file(rel, record, self.info(rel))

    # --- what the resolver asks ------------------------------------------------------

    def info(self, rel: str):
        return self._info_of(rel, self._files.get(rel))

    def _info_of(self, rel, record):
        cached = self._infos.get(rel)
        if cached is None or cached[0] is not record:
            cached = (record, file_info(record, rel) if record is not None else EMPTY_INFO)
            self._infos[rel] = cached
        return cached[1]

    def module_file(self, dotted: str) -> str | None:
        return self._module_files.get(dotted)

    def module_exists(self, dotted: str) -> bool:
        return self._namespaces[dotted] > 0

    def unique(self, group: str, name: str) -> str | None:
        ids = self._by_name.get((group, name))
        return next(iter(ids)) if ids and len(ids) == 1 else None

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
        moved = set()
        for rel, (old_info, new_info) in infos.items():
            moved |= _moved_keys(rel, old_files.get(rel), new_files.get(rel), old_info, new_info)
        moved |= self._moved_owners(infos)
        asks = self._asks_index()
        # Files not resolved yet that the change may concern are resolved against the old
        # state first, so their old edges are known and their dependencies exact.
        for rel in [*changed, *asks.candidates(moved, lambda rel: self._star_names(rel, infos))]:
            if rel in old_files and rel not in self._edges:
                self._resolve(rel)
        for rel, (old_info, new_info) in infos.items():
            self._remove_file(rel, old_files.get(rel), old_info)
            self._add_file(rel, new_files.get(rel), new_info)
        self.raw, self._files, self._whole = new_raw, new_files, None
        affected = dict.fromkeys(changed)
        for key in moved:
            affected.update(dict.fromkeys(self._dependents.get(key, ())))
        before = {"edges": [], "symbols": {}, "defs": {}}
        after = {"edges": [], "symbols": {}, "defs": {}}
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
            whole = {"edges": [], "symbols": {}, "defs": {}}
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
        keys = set()
        for sid in symbol_ids:
            rel, _, qual = sid.partition("::")
            keys.update({("bind", rel, qual), ("name", qual.rpartition(".")[2])})
        for rel in self._asks_index().candidates(keys, lambda rel: ()):
            if rel not in self._edges:
                self._resolve(rel)
        result = {}
        for sid in symbol_ids:
            home = sid.partition("::")[0] + "::"
            result[sid] = sorted(c for c in self._callers.get(sid, ()) if not c.startswith(home))
        return result

    def _moved_owners(self, infos) -> set:
        """("name", short) for each name whose unique owner a change moves: only then can the
        project-wide fallback resolve differently."""
        gone, came = {}, {}
        for rel, (old_info, new_info) in infos.items():
            for group, short, qual in old_info.names - new_info.names:
                gone.setdefault((group, short), set()).add(f"{rel}::{qual}")
            for group, short, qual in new_info.names - old_info.names:
                came.setdefault((group, short), set()).add(f"{rel}::{qual}")
        moved = set()
        for pair in gone.keys() | came.keys():
            ids = self._by_name.get(pair, set())
            after = (ids - gone.get(pair, set())) | came.get(pair, set())
            if _only(ids) != _only(after):
                moved.add(("name", pair[1]))
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
            sources = [self._info_of(src, self._files[src]) for src in [self._module_files.get(module)] if src]
            sources += [info for changed, pair in infos.items() if module_name(changed) == module for info in pair]
            for info in sources:
                names |= info.defs | info.imports.keys()
                work += info.stars
        return names

    def _asks_index(self) -> Asks:
        if self._asks is None:
            self._asks = Asks()
            for rel, record in self._files.items():
                self._asks.add(rel, record, self.info(rel))
        return self._asks

    # --- bookkeeping -------------------------------------------------------------------

    def _add_file(self, rel, record, info):
        if record is None:
            return
        dotted = module_name(rel)
        if dotted:
            self._modules.setdefault(dotted, set()).add(rel)
            self._choose_module_file(dotted)
            for prefix in _prefixes(dotted):
                self._namespaces[prefix] += 1
        for group, short, qual in info.names:
            self._by_name.setdefault((group, short), set()).add(f"{rel}::{qual}")
        if self._asks is not None:
            self._asks.add(rel, record, info)

    def _remove_file(self, rel, record, info):
        if record is None:
            return
        dotted = module_name(rel)
        if dotted:
            self._modules[dotted].discard(rel)
            self._choose_module_file(dotted)
            for prefix in _prefixes(dotted):
                self._namespaces[prefix] -= 1
        for group, short, qual in info.names:
            self._by_name[(group, short)].discard(f"{rel}::{qual}")
        if self._asks is not None:
            self._asks.remove(rel, record, info)

    def _choose_module_file(self, dotted):
        rels = self._modules[dotted]
        if rels:
            # A package shadows a module of the same name, as on import.
            self._module_files[dotted] = min(rels, key=lambda rel: (not rel.endswith("/__init__.py"), rel))
        else:
            del self._module_files[dotted]

    def _resolve(self, rel):
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


def _moved_keys(rel, old, new, old_info, new_info) -> set:
    """The dependency keys whose answer a change of `rel` from `old` to `new` may alter."""
    keys = set()
    if (old is None) != (new is None) and module_name(rel):
        keys.update(("mod", prefix) for prefix in _prefixes(module_name(rel)))
    keys.update(("bind", rel, name) for name in old_info.defs ^ new_info.defs)
    keys.update(("bind", rel, name) for name in old_info.imports.keys() | new_info.imports.keys()
                if old_info.imports.get(name) != new_info.imports.get(name))
    if old_info.stars != new_info.stars:
        keys.add(("stars", rel))
    return keys


def _only(ids):
    return next(iter(ids)) if len(ids) == 1 else None


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
