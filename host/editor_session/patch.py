"""Project-relative paths in what the session shows, and the session diff as a patch.

The module's session diff names each file by its base name; the patch form names it by its
path in the project ("a/REL", "b/REL", "/dev/null" for a side where the file does not exist)
and marks a last line without an end, so `git apply` can take it as it is.
"""

import os
from collections.abc import Callable
from pathlib import Path
from typing import Literal

import editor

NO_FINAL_NEWLINE = "\\ No newline at end of file"


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
        return Path(abs_path).read_text(encoding="utf-8")
    except OSError:
        return None


def _unterminated(text: str | None) -> bool:
    return text is not None and text != "" and not text.endswith(("\n", "\r"))


def _mark_last_lines(hunks: list[str], before: str | None, after: str | None) -> list[str]:
    """Adds the no-newline marker behind the last line of a side that has no final newline; a
    context line that ends one side only is split into its removal and its addition."""
    old_open, new_open = _unterminated(before), _unterminated(after)
    if not (old_open or new_open):
        return hunks
    old_total = len((before or "").splitlines())
    new_total = len((after or "").splitlines())
    out: list[str] = []
    old_line = new_line = 0
    for line in hunks:
        if line.startswith("@@"):
            old_range, new_range = line.split()[1:3]
            old_line = max(int(old_range[1:].split(",")[0]) - 1, 0)
            new_line = max(int(new_range[1:].split(",")[0]) - 1, 0)
            out.append(line)
            continue
        kind, body = line[:1], line[1:]
        old_last = kind in " -" and old_line + 1 == old_total and old_open
        new_last = kind in " +" and new_line + 1 == new_total and new_open
        old_line += kind in " -"
        new_line += kind in " +"
        if kind == " " and old_last != new_last:
            out += ["-" + body] + [NO_FINAL_NEWLINE] * old_last + ["+" + body] + [NO_FINAL_NEWLINE] * new_last
            continue
        out.append(line)
        if old_last or new_last:
            out.append(NO_FINAL_NEWLINE)
    return out


def labelled_diff(abs_path: str, before: str | None, rel: str) -> str:
    """The module's unified diff of one file, its headers naming the file by `rel`."""
    body = editor.session_diff({abs_path: before})
    if not body:
        return ""
    _, _, hunks = body.split("\n", 2)
    return f"--- a/{rel}\n+++ b/{rel}\n{hunks}"


def unified(root: str, touched: dict) -> str:
    """The module's session diff with each file named by its path in the project."""
    chunks = (labelled_diff(abs_path, before, os.path.relpath(abs_path, root).replace(os.sep, "/"))
              for abs_path, before in sorted(touched.items()))
    return "\n\n".join(chunk for chunk in chunks if chunk)


def patch(root: str, touched: dict) -> str:
    """The session's changes as one patch `git apply` accepts (in the project root)."""
    chunks = []
    for abs_path, before in sorted(touched.items()):
        rel = os.path.relpath(abs_path, root).replace(os.sep, "/")
        body = labelled_diff(abs_path, before, rel)
        if not body:
            continue
        after = _current(abs_path)
        old_name = "/dev/null" if before is None else "a/" + rel
        new_name = "/dev/null" if after is None else "b/" + rel
        hunks = _mark_last_lines(body.split("\n")[2:], before, after)
        chunks.append("\n".join(["--- " + old_name, "+++ " + new_name, *hunks]))
    return "".join(chunk + "\n" for chunk in chunks)


Form = Literal["unified", "patch"]
FORMS: dict[Form, Callable[[str, dict], str]] = {"unified": unified, "patch": patch}
