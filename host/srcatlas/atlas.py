"""The enriched map of a raw IR, kept up to date file by file.

"edges" are call edges {"caller", "callee"}; "symbols" are {id: {"kind", "line"}} for functions,
classes, methods and module constants; "defs" are {scope id: {name: [{"line", "rhs"}]}} for module
scopes ("{file}::<module>") and CSS declaration scopes ("{file}::css::{selector}"). Ids are
"{file}::{qualified name}". Symbols and defs of a file come from its record alone; its edges also
depend on other files, through the dependency keys its resolution recorded.
"""

from collections import Counter

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
        self._namespaces = Counter()  # dotted module or package prefix -> modules below it
        self._by_name = {}          # (group, short name) -> set of symbol ids
        self._edges = {}            # rel -> [(caller id, callee id)]
        self._deps = {}             # rel -> dependency keys its resolution looked at
        self._dependents = {}       # dependency key -> rels
        self._callers = {}          # callee id -> set of caller ids
        self._whole = None
        for rel, record in self._files.items():
            self._add_file(rel, record, self.info(rel))
        for rel in self._files:
            self._resolve(rel)

    # --- what the resolver asks ------------------------------------------------------

    def info(self, rel: str):
        return self._info_of(rel, self._files.get(rel))

    def _info_of(self, rel, record):
        cached = self._infos.get(rel)
        if cached is None or cached[0] is not record:
            cached = (record, file_info(record) if record is not None else EMPTY_INFO)
            self._infos[rel] = cached
        return cached[1]

    def module_file(self, dotted: str) -> str | None:
        rels = self._modules.get(dotted)
        if not rels:
            return None
        # A package shadows a module of the same name, as on import.
        return min(rels, key=lambda rel: (not rel.endswith("/__init__.py"), rel))

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
        # Only a name whose unique owner changes can change what the fallback resolves to.
        named = {(group, short) for old, new in infos.values() for group, short, _ in old.names ^ new.names}
        owners = {pair: self.unique(*pair) for pair in named}
        moved = set()
        for rel, (old_info, new_info) in infos.items():
            self._remove_file(rel, old_files.get(rel), old_info)
            self._add_file(rel, new_files.get(rel), new_info)
            moved |= _moved_keys(rel, old_files.get(rel), new_files.get(rel), old_info, new_info)
        moved.update(("name", short) for (group, short), owner in owners.items() if self.unique(group, short) != owner)
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
                whole["edges"] += _edge_maps(self._edges[rel])
                _add_symbols_and_defs(whole, rel, record)
            self._whole = whole
        return self._whole

    def callers(self, symbol_ids) -> dict:
        """{symbol id: [ids of callers in other files that call it]}."""
        result = {}
        for sid in symbol_ids:
            home = sid.partition("::")[0] + "::"
            result[sid] = sorted(c for c in self._callers.get(sid, ()) if not c.startswith(home))
        return result

    # --- bookkeeping -------------------------------------------------------------------

    def _add_file(self, rel, record, info):
        if record is None:
            return
        dotted = module_name(rel)
        if dotted:
            self._modules.setdefault(dotted, set()).add(rel)
            for prefix in _prefixes(dotted):
                self._namespaces[prefix] += 1
        for group, short, qual in info.names:
            self._by_name.setdefault((group, short), set()).add(f"{rel}::{qual}")

    def _remove_file(self, rel, record, info):
        if record is None:
            return
        dotted = module_name(rel)
        if dotted:
            self._modules[dotted].discard(rel)
            for prefix in _prefixes(dotted):
                self._namespaces[prefix] -= 1
        for group, short, qual in info.names:
            self._by_name[(group, short)].discard(f"{rel}::{qual}")

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
