"""The module's diff hunks rewritten on the real bytes, in the lines `git apply` sees.

The module diffs texts read with universal newlines, so its hunks carry neither "\\r" nor a BOM,
and its lines are `str.splitlines` lines, while git splits only at "\\n" (a lone "\\r" or a form
feed is inside a git line). Each hunk's old and new line ranges are widened to whole git lines
(and one git line more on each side, so a hunk away from the file's ends keeps context on both
sides), overlapping ones merged, and their lines taken from the first-touch and current texts as
they are. The result is checked by replaying it on the old text; a mismatch yields None.
"""

import re

NO_FINAL_NEWLINE = "\\ No newline at end of file"
_HEADER = re.compile(r"@@ -(\d+)(?:,(\d+))? \+(\d+)(?:,(\d+))? @@")

# A stretch in git lines: (old start, old end, new start, new end), ends exclusive.
Stretch = tuple[int, int, int, int]


def _ranges(hunks: list[str]) -> list[tuple[int, int, int, int]]:
    """Each hunk's old and new module-line ranges, 0-based and end-exclusive."""
    out = []
    for line in hunks:
        if found := _HEADER.match(line):
            old_start, old_len, new_start, new_len = (int(g) if g is not None else 1 for g in found.groups())
            a = old_start - 1 if old_len else old_start
            c = new_start - 1 if new_len else new_start
            out.append((a, a + old_len, c, c + new_len))
    return out


def _git_bounds(lines: list[str]) -> list[int]:
    """For every module-line boundary, the git lines wholly above it."""
    bounds = [0]
    for line in lines:
        bounds.append(bounds[-1] + line.endswith("\n"))
    return bounds


def _widen(start: int, end: int, lines: list[str], bounds: list[int], total: int) -> tuple[int, int]:
    """Module lines [start, end) as whole git lines, one more each side; an empty range inside
    a git line covers that line."""
    git_end = bounds[end] + (end > 0 and not lines[end - 1].endswith("\n"))
    return max(bounds[start] - 1, 0), min(git_end + 1, total)


def _git_lines(text: str) -> list[str]:
    parts = text.split("\n")
    return [part + "\n" for part in parts[:-1]] + ([parts[-1]] if parts[-1] else [])


def _stretches(hunks: list[str], old: str, new: str, old_git: int, new_git: int) -> list[Stretch]:
    old_lines, new_lines = old.splitlines(keepends=True), new.splitlines(keepends=True)
    old_bounds, new_bounds = _git_bounds(old_lines), _git_bounds(new_lines)
    merged: list[list[int]] = []
    for a, b, c, d in _ranges(hunks):
        if b > len(old_lines) or d > len(new_lines):
            raise ValueError("hunk beyond the text")
        stretch = [*_widen(a, b, old_lines, old_bounds, old_git), *_widen(c, d, new_lines, new_bounds, new_git)]
        if merged and stretch[0] <= merged[-1][1]:
            merged[-1][1], merged[-1][3] = max(merged[-1][1], stretch[1]), max(merged[-1][3], stretch[3])
        else:
            merged.append(stretch)
    return [(s[0], s[1], s[2], s[3]) for s in merged]


def _emit(kind: str, line: str) -> list[str]:
    return [kind + line] if line.endswith("\n") else [kind + line + "\n", NO_FINAL_NEWLINE + "\n"]


def exact(hunks: list[str], old: str, new: str) -> str | None:
    """The hunk lines (each with its own end) that turn `old` into `new` byte for byte, or None
    when the module's hunks cannot be mapped onto them exactly."""
    old_git, new_git = _git_lines(old), _git_lines(new)
    try:
        stretches = _stretches(hunks, old, new, len(old_git), len(new_git))
    except ValueError:
        return None
    out: list[str] = []
    replayed: list[str] = []
    at = 0
    for a, b, c, d in stretches:
        replayed += old_git[at:a]
        if len(replayed) != c:
            return None
        replayed += new_git[c:d]
        at = b
        before, after = old_git[a:b], new_git[c:d]
        lead = 0
        while lead < min(len(before), len(after)) and before[lead] == after[lead]:
            lead += 1
        trail = 0
        while trail < min(len(before), len(after)) - lead and before[-1 - trail] == after[-1 - trail]:
            trail += 1
        out.append(f"@@ -{a + (b > a)},{b - a} +{c + (d > c)},{d - c} @@\n")
        for line in before[:lead]:
            out += _emit(" ", line)
        for line in before[lead:len(before) - trail]:
            out += _emit("-", line)
        for line in after[lead:len(after) - trail]:
            out += _emit("+", line)
        for line in before[len(before) - trail:]:
            out += _emit(" ", line)
    replayed += old_git[at:]
    return "".join(out) if "".join(replayed) == new else None
