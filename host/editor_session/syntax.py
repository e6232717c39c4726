"""Syntax results that blame an edit only for what the edit broke.

The module's Python check is absolute: a file that was already broken reports its old error
after every edit, and a file that starts with a UTF-8 BOM (which the module reads as a U+FEFF
character) reports that character. Both are judged again with the module's own check, on a
scratch copy that keeps the file's name so the same check is chosen.
"""

import os
from collections.abc import Callable
from pathlib import Path

import editor
from editor_session import scratch

_PYTHON_BREAKAGE = "SyntaxError: "
_MARK = "\ufeff"


def scratch_check(name: str, text: str, before_text: str | None = None) -> str | None:
    """The module's syntax check of `text` as a file called `name`, written nowhere else."""
    with scratch.folder("editor-check-") as folder:
        path = os.path.join(folder, name)
        Path(path).write_text(text, encoding="utf-8", newline="")
        return editor.syntax_check(path, before_text=before_text)


def honest(result: str | None, abs_path: str, text_before: Callable[[], str | None]) -> dict:
    """{"syntax": ...} for a write of `abs_path`, plus "syntax_before" when the breakage the
    module reported was already in the text before the write (`text_before()`, asked only
    then; None for a new file)."""
    if not (isinstance(result, str) and result.startswith(_PYTHON_BREAKAGE)):
        return {"syntax": result}
    before_text = text_before()
    name = os.path.basename(abs_path)
    after = Path(abs_path).read_text(encoding="utf-8")
    if after.startswith(_MARK):
        before = None if before_text is None else before_text.removeprefix(_MARK)
        result = scratch_check(name, after[1:], before)
        if not (isinstance(result, str) and result.startswith(_PYTHON_BREAKAGE)):
            return {"syntax": result}
    if before_text is not None and scratch_check(name, before_text.removeprefix(_MARK)) == result:
        return {"syntax": "ok", "syntax_before": result}
    return {"syntax": result}
