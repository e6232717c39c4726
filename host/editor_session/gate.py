"""The wider commit check: the module's `commit_time_check`, one file at a time on a pool of
workers, over new files too, with the build's flags for C and C++, headers, deep expressions,
progress, cancellation, and findings both as the module's strings and structured."""

import os
import re
import shutil
import sys
import tempfile
import threading
from collections.abc import Callable, Iterable
from concurrent.futures import ThreadPoolExecutor, as_completed
from dataclasses import dataclass, field
from pathlib import Path

import deeprun
import editor

from . import analysers, journal

# pyflakes walks an expression recursively, a few frames per term: a thousand chained terms
# need a few thousand frames, and the large stack has room for far more.
DEEP_RECURSION_LIMIT = 200_000

CANCELLED = "not checked: the check was cancelled"
NOT_TEXT = "not checked: not UTF-8 text"

# Slowest analysers first, so the long runs start at once and the short ones fill the gaps
# (a JVM start costs more than a C++ front end, which costs more than cc or pyflakes).
_START_ORDER = ("java", "cpp", "c")

Progress = Callable[[int, int, str], object]
Cancel = threading.Event | Callable[[], bool] | None

_FINDING = re.compile(r"(?P<analyser>\S+) error: (?P<message>.*) \(line (?P<line>\d+)\)", re.S)


@dataclass
class _Outcome:
    findings: list[str] = field(default_factory=list)
    skipped: str | None = None


def _pyflakes_on_large_stack(one: dict) -> list[str]:
    previous = sys.getrecursionlimit()
    sys.setrecursionlimit(max(previous, DEEP_RECURSION_LIMIT))
    try:
        return editor.commit_time_check(one)
    finally:
        sys.setrecursionlimit(previous)


_deep_check = deeprun.run_deep(_pyflakes_on_large_stack)


def _is_set(cancel: Cancel) -> bool:
    if cancel is None:
        return False
    return bool(cancel.is_set() if hasattr(cancel, "is_set") else cancel())


def relative(root: str, abs_path: str) -> str:
    return os.path.relpath(abs_path, root).replace(os.sep, "/")


def structured(rel: str, abs_path: str, finding: str) -> dict:
    """One of the module's strings ("name: label error: message (line n)") as its parts."""
    display = abs_path.replace("\\", "/").rsplit("/", 1)[-1]
    body = finding.removeprefix(f"{display}: ")
    parts = _FINDING.fullmatch(body)
    if parts is None:
        return {"path": rel, "line": None, "analyser": None, "message": body}
    return {"path": rel, "line": int(parts["line"]), "analyser": parts["analyser"],
            "message": parts["message"]}


def _check_one(scope: analysers.Scope, abs_path: str, baseline: str | None, stop) -> _Outcome:
    if _is_set(stop):
        return _Outcome(skipped=CANCELLED)
    try:
        original = Path(abs_path).read_bytes()
    except OSError:
        original = None  # gone or unreadable: the module skips or refuses it alike
    one = {abs_path: baseline}
    python = editor._native_language(Path(abs_path).suffix.lower()) == "python"
    try:
        with scope.file_run():
            try:
                found = _deep_check(one) if python else editor.commit_time_check(one)
            finally:
                # The module puts back the text it read; these are the bytes (line ends, BOM).
                if original is not None:
                    journal.restore_exact({abs_path: original})
    except UnicodeDecodeError:
        return _Outcome(skipped=NOT_TEXT)
    return _Outcome(findings=list(found))


def _start_rank(abs_path: str) -> int:
    lang = editor._native_language(Path(abs_path).suffix.lower())
    return _START_ORDER.index(lang) if lang in _START_ORDER else len(_START_ORDER)


def _in_order(touched: dict, created: Iterable[str]) -> dict[str, str | None]:
    """{path: text to judge it against}, in order of first touch; a created file is judged
    against nothing, so every error in it counts."""
    created = set(created)
    order = list(touched) + sorted(created.difference(touched))
    return {p: "" if p in created or touched.get(p) is None else touched[p] for p in order}


def check(root: str, touched: dict, created: Iterable[str] = (), *, progress: Progress | None = None,
          cancel: Cancel = None, workers: int | None = None) -> dict:
    """Checks every touched file; `cancel` (a callable or an Event) is honoured between files,
    `progress(done, total, rel)` is called on this thread as each file finishes."""
    root = os.path.abspath(root)
    files = _in_order(touched, created)
    outcomes: dict[str, _Outcome] = {}
    stop = threading.Event()
    scratch = tempfile.mkdtemp(prefix="gate_units_")

    def stopping():
        return stop.is_set() or _is_set(cancel)

    try:
        with analysers.installed(), ThreadPoolExecutor(workers or os.cpu_count() or 1) as pool:
            scope = analysers.Scope(root, scratch)
            try:
                pending = {pool.submit(_check_one, scope, p, files[p], stopping): p
                           for p in sorted(files, key=_start_rank)}
                for done, future in enumerate(as_completed(pending), 1):
                    path = pending[future]
                    outcomes[path] = future.result()
                    if progress is not None:
                        progress(done, len(files), relative(root, path))
            finally:
                stop.set()
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
    findings, parts, skipped = [], [], []
    for path in files:
        rel = relative(root, path)
        outcome = outcomes[path]
        if outcome.skipped:
            skipped.append({"path": rel, "reason": outcome.skipped})
        findings += outcome.findings
        parts += [structured(rel, path, f) for f in outcome.findings]
    return {"findings": findings, "structured": parts, "skipped": skipped,
            "cancelled": any(s["reason"] == CANCELLED for s in skipped)}
