"""Checks made before the module is called, for what the module itself cannot see: where a
rollback or the commit check would write (they receive no root), files with other hard links,
and special files that would block a read.

Every check uses `os.stat`/`os.lstat` only, so no check can itself block on a named pipe.
"""

from __future__ import annotations

import os
import stat

import editor

_SPECIAL_KINDS = {stat.S_IFIFO: "named pipe", stat.S_IFSOCK: "socket", stat.S_IFCHR: "character device",
                  stat.S_IFBLK: "block device"}


def rel_of(root: str, abs_path: str) -> str:
    return os.path.relpath(abs_path, root).replace(os.sep, "/")


def file_problem(root: str, abs_path: str, allow_hard_links: bool) -> str | None:
    """Why the session must not read or write `abs_path`, or None. A missing path is no problem."""
    try:
        info = os.stat(abs_path)
    except FileNotFoundError:
        return None
    except OSError as e:
        return f"{rel_of(root, abs_path)}: {e.strerror}"
    kind = _SPECIAL_KINDS.get(stat.S_IFMT(info.st_mode))
    if kind is not None:
        return f"{rel_of(root, abs_path)} is a {kind}, not a regular file -- the session reads and writes only regular files"
    if stat.S_ISREG(info.st_mode) and info.st_nlink > 1 and not allow_hard_links:
        return (f"{rel_of(root, abs_path)} has {info.st_nlink} hard links; editing it would change the other "
                "copies too")
    return None


def outside_root(root: str, abs_path: str) -> str | None:
    if editor._within_root(root, abs_path):
        return None
    return f"{rel_of(root, abs_path)} no longer lies under the project root (a link on its path leads outside)"


def rollback_problem(root: str, abs_paths: list[str], allow_hard_links: bool) -> str | None:
    """The first reason not to restore any of `abs_paths`, as a refusal line, or None."""
    for abs_path in abs_paths:
        problem = outside_root(root, abs_path) or file_problem(root, abs_path, allow_hard_links)
        if problem is not None:
            return f"rollback refused, nothing was restored: {problem}"
    return None


def split_checkable(root: str, touched: dict, allow_hard_links: bool, confine: bool = True) -> tuple[dict, list[str]]:
    """The entries of `touched` that may be read (and, with `confine`, briefly rewritten), and
    one line for each entry left out."""
    kept, skipped = {}, []
    for abs_path, text in touched.items():
        problem = (outside_root(root, abs_path) if confine else None) or file_problem(
            root, abs_path, allow_hard_links or not confine)
        if problem is None:
            kept[abs_path] = text
        else:
            skipped.append(problem)
    return kept, skipped
