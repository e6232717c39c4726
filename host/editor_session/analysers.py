"""What the module's gate sees for C, C++ and Java files during a wider check.

The gate picks each file's analyser through `editor._semantic_errfn`, looked up at every call.
While a check runs that name points at `_gate_errfn`, which answers for the threads that carry a
file of the check and passes every other call through unchanged. It gives C and C++ files the
build's own flags from the compilation database, checks headers through a one-line translation
unit that includes them, runs javac on about one core, and makes every compile take its family's
`SwapLock`.
"""

import itertools
import os
import threading
from collections.abc import Callable
from contextlib import contextmanager
from pathlib import Path

import editor

from . import compile_db
from .swap_lock import SwapLock

_local = threading.local()
_install_lock = threading.Lock()
_installs = 0
_original: Callable[[str, str], object] | None = None  # the module's own analyser while a check runs

# Languages whose files can see each other's text, by the lock they share.
_FAMILY = {"c": "c", "cpp": "c", "java": "java"}
# Left to itself javac's virtual machine spreads its compiler and collector threads over every
# core, so two javac runs side by side take as long as one after the other. These keep each run
# near one core (and cheaper); a virtual machine that does not know them ignores them.
JAVAC_ONE_CORE = ("-J-XX:+IgnoreUnrecognizedVMOptions", "-J-XX:+UseSerialGC", "-J-XX:TieredStopAtLevel=1")
# A header is judged in the context the module gives a source in its place.
_STAND_IN_SUFFIX = {"c": ".c", "cpp": ".cpp"}


def is_header(abs_path: str, lang: str) -> bool:
    return lang in _STAND_IN_SUFFIX and Path(abs_path).suffix.lower() not in editor._CPP_SRC_EXT


class Scope:
    """One check: its compilation database, a scratch directory for header units, the locks."""

    def __init__(self, root: str, scratch: str) -> None:
        self.entries = compile_db.load(root)
        self.scratch = scratch
        self.locks = {family: SwapLock() for family in set(_FAMILY.values())}
        self._units = itertools.count()
        self._units_lock = threading.Lock()

    def unit(self, header: str, lang: str) -> str | None:
        """A translation unit that includes `header` by its absolute path; None for a path that
        cannot be written inside quotes."""
        if '"' in header or "\n" in header:
            return None
        with self._units_lock:
            number = next(self._units)
        path = os.path.join(self.scratch, f"unit_{number}{_STAND_IN_SUFFIX[lang]}")
        Path(path).write_text(f'#include "{header}"\n', encoding="utf-8")
        return path

    @contextmanager
    def file_run(self):
        """Marks the calling thread as checking one file of this scope until the block ends."""
        run = _FileRun(self)
        _local.run = run
        try:
            yield run
        finally:
            _local.run = None
            run.release()


class _FileRun:
    def __init__(self, scope: Scope) -> None:
        self.scope = scope
        self.held: SwapLock | None = None

    def release(self) -> None:
        if self.held is not None:
            self.held.release()
            self.held = None

    def guarded(self, errfn, lock: SwapLock, seen_by_others: bool):
        def run(p):
            if self.held is not None:
                # The earlier text is in place: this is the gate's second run, already alone.
                return errfn(p)
            with lock.reading():
                found = errfn(p)
            # Errors now mean the gate puts the earlier text in place next.
            if found and seen_by_others:
                lock.hold()
                self.held = lock
            return found

        return run


def _compiler(lang: str, cfg: dict, ctx, unit: str | None = None):
    """The module's compile of a file in the given build context; of `unit` instead when set."""
    exe = editor._find_exe(cfg["exe"])
    if exe is None or ctx is None:
        return None

    def errfn(p):
        return editor._compile_errors(exe, lang, cfg, unit or p, ctx)

    return cfg["label"], errfn


def _c_analyser(scope: Scope, abs_path: str, lang: str):
    header = is_header(abs_path, lang)
    entries = scope.entries
    entry = compile_db.entry_near(entries, abs_path) if header else entries.get(os.path.realpath(abs_path))
    if entry is None and not header:
        return _passed_on(abs_path, lang)
    if entry is not None:
        if header and lang == "c":
            # ".h" serves C++ projects too: the build that includes it knows which.
            lang = editor._native_language(Path(entry.source).suffix.lower()) or lang
        cfg = dict(editor._COMPILER_LANGS[lang])
        cfg["std"] = entry.std or cfg["std"]
        ctx = (list(entry.flags), entry.cwd)
    else:
        cfg = editor._COMPILER_LANGS[lang]
        ctx = cfg["context"](str(Path(abs_path).with_suffix(_STAND_IN_SUFFIX[lang])))
    if not header:
        return _compiler(lang, cfg, ctx)
    unit = scope.unit(abs_path, lang)
    return _compiler(lang, cfg, ctx, unit) if unit else None


def _java_analyser(abs_path: str):
    cfg = editor._COMPILER_LANGS["java"]
    ctx = cfg["context"](abs_path)
    if ctx is None:
        return None
    args, cwd = ctx
    return _compiler("java", cfg, ([*JAVAC_ONE_CORE, *args], cwd))


def _passed_on(abs_path: str, lang: str) -> object:
    """The module's own analyser's answer; only asked for while installed."""
    assert _original is not None
    return _original(abs_path, lang)


def _gate_errfn(abs_path, lang):
    run = getattr(_local, "run", None)
    if run is None or lang not in _FAMILY:
        return _passed_on(abs_path, lang)
    if lang in _STAND_IN_SUFFIX:
        resolved = _c_analyser(run.scope, abs_path, lang)
    else:
        resolved = _java_analyser(abs_path)
    if resolved is None:
        return None
    label, errfn = resolved
    # A source's own text is seen by no other compile; a header's and a Java class's are.
    seen = lang == "java" or is_header(abs_path, lang)
    return label, run.guarded(errfn, run.scope.locks[_FAMILY[lang]], seen)


@contextmanager
def installed():
    """`_gate_errfn` in the module's namespace while any check runs; the module's own after."""
    global _installs, _original
    with _install_lock:
        if _installs == 0:
            _original = editor._semantic_errfn
            editor._semantic_errfn = _gate_errfn
        _installs += 1
    try:
        yield
    finally:
        with _install_lock:
            _installs -= 1
            if _installs == 0:
                editor._semantic_errfn = _original
