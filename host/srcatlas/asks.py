"""Who may look at what: a static over-approximation of the dependency keys of every file,
built from the records alone without resolving anything.

The index does not resolve a file until a change may concern it. For a set of moved keys it
names every file whose resolution could read one of them: the files that import the name from
the module, that reach it through an attribute chain, that re-export it under another name
(followed transitively), or whose calls could fall back to it by name. A file it names is then
resolved exactly; one it does not name keeps whatever it resolved to.
"""

from .resolve import FileInfo, module_name


class Asks:
    def __init__(self):
        self.askers = {}          # (module, name) -> rels importing name from module
        self.module_askers = {}   # module -> rels importing it or from it
        self.reexports = {}       # (module, name) -> (importing module, local name)
        self.module_reexports = {}  # module -> (importing module, local name) of anything from it
        self.star_importers = {}  # module -> modules doing `from module import *`
        self.part_askers = {}     # attribute name -> rels with a chain asking for it
        self.attr_imports = {}    # imported name -> (importing module, local name)
        self.words = {}           # name -> rels that could fall back to a symbol so named

    def add(self, rel: str, record: dict, info: FileInfo) -> None:
        for table, key, value in _entries(rel, record, info):
            getattr(self, table).setdefault(key, set()).add(value)

    def remove(self, rel: str, record: dict, info: FileInfo) -> None:
        for table, key, value in _entries(rel, record, info):
            getattr(self, table)[key].discard(value)

    def candidates(self, moved: set, star_names) -> set:
        """The rels whose resolution may read a key in `moved`. `star_names(rel)` gives the
        names a module's star imports could bring in, before or after the change."""
        exports, wildcard, rels = set(), set(), set()
        for key in moved:
            if key[0] == "mod":
                wildcard.add(key[1])
                parent, _, last = key[1].rpartition(".")
                exports.add((parent, last))
            elif key[0] == "name":
                rels |= self.words.get(key[1], set())
                exports |= self.attr_imports.get(key[1], set())
            else:
                dotted = module_name(key[1])
                if key[0] == "bind":
                    member = key[2].rpartition(".")[2]
                    rels |= self.part_askers.get(member, set())
                    if dotted and "." not in key[2]:
                        exports.add((dotted, key[2]))
                elif dotted:
                    wildcard.add(dotted)
                    exports.update((dotted, name) for name in star_names(key[1]))
        work = list(wildcard)
        while work:
            module = work.pop()
            rels |= self.module_askers.get(module, set())
            exports |= self.module_reexports.get(module, set())
            for importer in self.star_importers.get(module, ()):
                if importer not in wildcard:
                    wildcard.add(importer)
                    work.append(importer)
        work = list(exports)
        while work:
            module, name = work.pop()
            rels |= self.askers.get((module, name), set()) | self.part_askers.get(name, set())
            found = set(self.reexports.get((module, name), ()))
            found.update((importer, name) for importer in self.star_importers.get(module, ()))
            for export in found - exports:
                exports.add(export)
                work.append(export)
        return rels


def _entries(rel: str, record: dict, info: FileInfo):
    dotted = module_name(rel)
    for local, (module, attr) in info.imports.items():
        if module is None:
            continue
        yield "module_askers", module, rel
        if attr is None:
            parent, _, last = module.rpartition(".")
            key = (parent, last)
        else:
            key = (module, attr)
            yield "askers", key, rel
            yield "words", attr, rel
        if dotted:
            yield "reexports", key, (dotted, local)
            yield "module_reexports", key[0], (dotted, local)
            if attr is not None:
                yield "attr_imports", attr, (dotted, local)
    for module in info.stars:
        yield "module_askers", module, rel
        if dotted:
            yield "star_importers", module, dotted
    for targets in (record.get("calls") or {}).values():
        for target in targets:
            parts = target.split(".")
            for part in parts:
                if part:
                    yield "words", part, rel
            head = parts[0]
            if head in ("", "self", "cls") and len(parts) > 1 or head in info.defs:
                continue
            if head not in info.imports:
                for module in info.stars:
                    yield "askers", (module, head), rel
            for part in parts[1:]:
                yield "part_askers", part, rel
