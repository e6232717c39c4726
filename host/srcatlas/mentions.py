"""Which files a change may concern, judged by the names they mention, without resolving them.

A file's resolution only looks up names that it mentions itself (the parts of its call
targets, its imports, the packages around it) or that a module it reaches re-exports under a
name it mentions. So a moved dependency key gives a word (the name it is about); the words
close over re-exports (an import that mentions a moved word moves the name it binds); and any
file mentioning a word of the closure may be concerned. The test is coarse on purpose: a file
it names is then resolved exactly, and one it does not name keeps what it resolved to.
"""

from collections import Counter

from .resolve import module_name


def words_of(rel: str, record: dict) -> frozenset:
    calls = record.get("calls") or {}
    words = set(".".join(target for targets in calls.values() for target in targets).split("."))
    for local, (module, attr) in (record.get("imports") or {}).items():
        words.add(local)
        words.update(_import_words(rel, module, attr))
    for module in record.get("stars") or ():
        words.update(_import_words(rel, module, None))
    words.discard("")
    return frozenset(words)


def key_words(key, star_names) -> set:
    """The names a dependency key is about; `star_names(rel)` gives those a change of the
    star imports of `rel` could bind."""
    if key[0] == "mod":
        return {key[1].rpartition(".")[2]}
    if key[0] == "name":
        return {key[1]}
    if key[0] == "bind":
        return {key[2].rpartition(".")[2]}
    return set(star_names(key[1])) | {(module_name(key[1]) or "").rpartition(".")[2]}


class Reexports:
    """word -> the local names that imports mentioning the word bind, over all files."""

    def __init__(self):
        self._locals = {}

    def add(self, rel: str, record: dict, sign: int = 1) -> None:
        locals_ = self._locals
        for local, (module, attr) in (record.get("imports") or {}).items():
            for word in _import_words(rel, module, attr):
                counts = locals_.get(word)
                if counts is None:
                    counts = locals_[word] = Counter()
                counts[local] += sign

    def remove(self, rel: str, record: dict) -> None:
        self.add(rel, record, -1)

    def closure(self, words: set) -> set:
        words, work = set(words), list(words)
        while work:
            for local, count in self._locals.get(work.pop(), {}).items():
                if count > 0 and local not in words:
                    words.add(local)
                    work.append(local)
        return words


def _import_words(rel: str, module: str, attr: str | None) -> set:
    words = set(module.split("."))
    if module.startswith("."):
        # A relative import names the packages around the file without spelling them.
        words.update(rel.split("/")[:-1])
    if attr:
        words.add(attr)
    return words
