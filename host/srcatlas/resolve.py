"""Call resolution: what a call target in one file names, through the file's own definitions
and imports, the modules they lead to, and last a name that is unique in the whole project.

Every fact a resolution looks at outside its own file is recorded as a dependency key, so the
index can re-resolve exactly the files that looked at something a change moved:
("mod", dotted) whether a module exists, ("bind", rel, name) what a name means at the top of a
module, ("stars", rel) a lookup that fell through to that module's star imports, and ("name",
short) the project-wide symbols with that short name.
"""

from typing import NamedTuple

_MAX_HOPS = 8
EXTERNAL = ("external",)

# A fact outside a file that its resolution looked at: ("mod", dotted), ("bind", rel, name),
# ("stars", rel) or ("name", short).
DepKey = tuple[str, ...]
# What a name leads to: ("sym", id), ("mod", dotted), ("def" or "method", short name) or EXTERNAL.
Meaning = tuple[str, ...]


class FileInfo(NamedTuple):
    """What the resolver needs of one file, with its imports made absolute for its place."""
    defs: frozenset        # top-level functions and classes, and "Class.method"
    imports: dict          # name -> (dotted module or None when it climbs above the root, attr or None)
    stars: tuple           # dotted modules of `from m import *`
    names: frozenset       # (group, short name, qual) of every callable symbol


EMPTY_INFO = FileInfo(frozenset(), {}, (), frozenset())


def file_info(record: dict, rel: str) -> FileInfo:
    symbols = record.get("symbols")
    if not symbols and not record.get("imports") and not record.get("stars"):
        return EMPTY_INFO
    callable_ = [(qual, kind) for qual, kind, _ in symbols or () if kind != "constant"]
    absolute: dict[str, str | None] = {}
    imports = {name: (absolute[module] if module in absolute else
                      absolute.setdefault(module, absolute_module(module, rel)), attr)
               for name, (module, attr) in (record.get("imports") or {}).items()}
    stars = tuple(dotted for dotted in (absolute_module(m, rel) for m in record.get("stars") or ()) if dotted)
    return FileInfo(frozenset(qual for qual, _ in callable_), imports, stars,
                    frozenset(("method" if kind == "method" else "def", qual.rpartition(".")[2], qual)
                              for qual, kind in callable_))


def module_name(rel: str) -> str | None:
    if not rel.endswith(".py"):
        return None
    parts = rel[:-3].split("/")
    if parts[-1] == "__init__":
        parts.pop()
    return ".".join(parts) or None


def absolute_module(module: str, rel: str) -> str | None:
    """The dotted module an import in file `rel` names; None when it climbs above the root."""
    level = len(module) - len(module.lstrip("."))
    if not level:
        return module
    package = (module_name(rel) or "").split(".")
    if not rel.endswith("__init__.py"):
        package.pop()
    if level - 1 > len(package) or (level - 1 == len(package) and not module[level:]):
        return None
    base = package[:len(package) - (level - 1)]
    return ".".join(base + ([module[level:]] if module[level:] else [])) or None


class FileResolver:
    """Resolves the calls of one file against an `Atlas`, collecting the keys
    of everything it looked at in other files."""

    def __init__(self, names, rel: str):
        self.names, self.rel = names, rel
        self.deps: set[DepKey] = set()
        self.info = names.info(rel)

    def edges(self, record: dict) -> list:
        found: dict[tuple[str, str], None] = {}
        memo: dict[str | tuple[str, str | None], str | None] = {}
        prefix = self.rel + "::"
        for caller, targets in (record.get("calls") or {}).items():
            cls = caller.partition(".")[0] if "." in caller else None
            for target in targets:
                key = (target, cls) if target.startswith(("self.", "cls.")) else target
                if key not in memo:
                    memo[key] = self._callee(target, cls)
                callee = memo[key]
                if callee:
                    found[(prefix + caller, callee)] = None
        return list(found)

    def _callee(self, target: str, cls: str | None) -> str | None:
        parts = target.split(".")
        if len(parts) > 1 and parts[0] in ("", "self", "cls"):
            member = f"{cls}.{parts[1]}"
            if len(parts) == 2 and parts[0] and cls and member in self.info.defs:
                return f"{self.rel}::{member}"
            meaning: Meaning | None = ("method", parts[-1])
        else:
            meaning = self._binding(self.rel, parts[0], 0)
            if meaning is None:
                meaning = ("method", parts[-1]) if len(parts) > 1 else None
            else:
                for part in parts[1:]:
                    meaning = self._attribute(meaning, part, 0)
        if meaning is None:
            return None
        if meaning[0] == "sym":
            return meaning[1]
        if meaning[0] in ("method", "def"):
            self.deps.add(("name", meaning[1]))
            return self.names.unique(meaning[0], meaning[1])
        return None

    def _binding(self, mrel: str, name: str, hops: int):
        """What `name` means at the top of module file `mrel`, or None when nothing binds it."""
        own = mrel == self.rel
        if not own:
            self.deps.add(("bind", mrel, name))
        info = self.info if own else self.names.info(mrel)
        if name in info.defs:
            return ("sym", f"{mrel}::{name}")
        imported = info.imports.get(name)
        if imported is not None:
            return self._follow(imported, hops + 1)
        if not own:
            self.deps.add(("stars", mrel))
        if hops < _MAX_HOPS:
            for dotted in info.stars:
                source = self._module_file(dotted)
                meaning = source and self._binding(source, name, hops + 1)
                if meaning:
                    return meaning
        return None

    def _follow(self, imported: tuple, hops: int):
        dotted, attr = imported
        if dotted is None:
            return EXTERNAL
        if attr is None:
            return ("mod", dotted)
        return self._attribute(("mod", dotted), attr, hops)

    def _attribute(self, meaning, name: str, hops: int):
        if meaning[0] == "mod":
            source = self._module_file(meaning[1])
            if source and hops < _MAX_HOPS:
                found = self._binding(source, name, hops)
                if found:
                    return found
            child = f"{meaning[1]}.{name}"
            if self._module_exists(child):
                return ("mod", child)
            # A module of the project that does not show the name may still re-export it in a
            # way not followed here; one outside the project never leads back into it.
            return ("def", name) if source or self._module_exists(meaning[1]) else EXTERNAL
        if meaning[0] == "sym":
            mrel, _, qual = meaning[1].partition("::")
            if "." not in qual:
                member = f"{qual}.{name}"
                if mrel != self.rel:
                    self.deps.add(("bind", mrel, member))
                if member in self.names.info(mrel).defs:
                    return ("sym", f"{mrel}::{member}")
            return ("method", name)
        return ("method", name) if meaning[0] in ("def", "method") else EXTERNAL

    def _module_file(self, dotted: str) -> str | None:
        self.deps.add(("mod", dotted))
        return self.names.module_file(dotted)

    def _module_exists(self, dotted: str) -> bool:
        self.deps.add(("mod", dotted))
        return self.names.module_exists(dotted)
