"""Project-relative paths in what the session shows, and the session diff as a patch.

The module's session diff names each file by its base name; the patch form names it by its
path in the project ("a/REL", "b/REL", "/dev/null" for a side where the file does not exist)
and carries each line's real end, so `git apply` can take it as it is.
"""

import os
from collections.abc import Callable
from pathlib import Path
from typing import Literal

import editor

from . import git_hunks


def relative(value, root: str):
    """`value` with every absolute path under `root` in its strings made project-relative."""
    prefix = root.rstrip(os.sep) + os.sep
    if isinstance(value, str):
        return value.replace(prefix, "")
    if isinstance(value, dict):
        return {key: relative(item, root) for key, item in value.items()}
    if isinstance(value, (list, tuple)):
        return type(value)(relative(item, root) for item in value)
    return value


def _current(abs_path: str) -> str | None:
    try:
        return Path(abs_path).read_bytes().decode("utf-8")
    except OSError:
        return None


def labelled_diff(abs_path: str, before: str | None, rel: str) -> str:
    """The module's unified diff of one file, its headers naming the file by `rel`."""
    body = editor.session_diff({abs_path: before})
    if not body:
        return ""
    _, _, hunks = body.split("\n", 2)
    return f"--- a/{rel}\n+++ b/{rel}\n{hunks}"


def unified(root: str, touched: dict, notes: list[str]) -> str:
    """The module's session diff with each file named by its path in the project."""
    chunks = (labelled_diff(abs_path, before, os.path.relpath(abs_path, root).replace(os.sep, "/"))
              for abs_path, before in sorted(touched.items()))
    return "\n\n".join(chunk for chunk in chunks if chunk)


def patch(root: str, touched: dict, notes: list[str]) -> str:
    """The session's changes as one patch `git apply` accepts (in the project root), each line
    with its real line end; a file whose changes it cannot carry exactly is left out and named
    in `notes`."""
    chunks = []
    for abs_path, before in sorted(touched.items()):
        rel = os.path.relpath(abs_path, root).replace(os.sep, "/")
        after = _current(abs_path)
        body = labelled_diff(abs_path, before, rel)
        hunks = git_hunks.exact(body.split("\n")[2:], before or "", after or "") if body else ""
        if hunks is None or (not body and before is not None and after is not None and before != after):
            notes.append(f"{rel}: left out of the patch, its line breaks cannot be carried exactly")
            continue
        if hunks:
            old_name = "/dev/null" if before is None else "a/" + rel
            new_name = "/dev/null" if after is None else "b/" + rel
            chunks.append(f"--- {old_name}\n+++ {new_name}\n{hunks}")
    return "".join(chunks)


Form = Literal["unified", "patch"]
FORMS: dict[Form, Callable[[str, dict, list[str]], str]] = {"unified": unified, "patch": patch}
