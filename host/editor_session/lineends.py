"""Keeps a file's own line ends and byte-order mark across a write of the editor module.

The module reads with universal newlines and writes every line it keeps with "\\n", and a line
that replaces line 1 drops a UTF-8 BOM. Given the bytes from before the write, the bytes the
module wrote and which old lines the write replaced, `kept_bytes` rebuilds the file so that every
old line outside the replaced ones is byte for byte what it was, and every new line ends in the
file's dominant style. Lines are the module's lines: `str.splitlines` of the text, which splits
the untranslated text exactly where it splits the translated one ("\\r\\n" is one break).
"""

from collections.abc import Sequence
from pathlib import Path

BOM = b"\xef\xbb\xbf"
_NEWLINES = ("\r\n", "\r", "\n")

# One replaced stretch of old lines: (old lines above it, old lines it removed, new lines it put
# in, or None when the write was the only one and the count follows from the line totals).
Span = tuple[int, int, int | None]


def _styles(body: bytes) -> tuple[str, bool]:
    """The style most "\n"-family line ends of `body` have ("\n" on a tie or none), and whether
    they all have it. Worked on bytes ("\r" and "\n" never occur inside a UTF-8 sequence);
    membership tests settle the common files at memory speed before anything is counted."""
    if b"\r" not in body:
        return "\n", True
    if b"\n" not in body:
        return "\r", True
    crlf, cr, lf = body.count(b"\r\n"), body.count(b"\r"), body.count(b"\n")
    if cr == lf == crlf:
        return "\r\n", True
    counts = {"\n": lf - crlf, "\r\n": crlf, "\r": cr - crlf}
    return max(("\n", "\r\n", "\r"), key=lambda style: counts[style]), False


def dominant(text: str) -> str:
    return _styles(text.encode("utf-8"))[0]


def _translated(body: bytes, style: str) -> bytes:
    if b"\r" in body:
        body = body.replace(b"\r\n", b"\n").replace(b"\r", b"\n")
    return body if style == "\n" else body.replace(b"\n", style.encode())


def _restyle(line: str, style: str) -> str:
    for end in _NEWLINES:
        if line.endswith(end):
            return line[: -len(end)] + style
    return line


def _strip_bom(text: str) -> str:
    return text[1:] if text.startswith("\ufeff") else text


def kept_bytes(before: bytes, after: bytes, spans: Sequence[Span], ends: "Profile") -> bytes:
    """The bytes the file should hold: `after` (what the module wrote) with the untouched old
    lines of `before` (whose `profile` is `ends`) restored and the new lines in the dominant
    style. `spans` are in file order and do not overlap."""
    bom = before.startswith(BOM)
    style = "\n" if ends is None else ends["style"]
    if (ends is None or "each" not in ends) and (not bom or (bool(spans) and spans[0][0] > 0)):
        # Every old line ends alike, so restyling the whole new text restores them all.
        return (BOM if bom else b"") + _translated(after.removeprefix(BOM) if bom else after, style)
    old = before.removeprefix(BOM).decode("utf-8")
    text = _realign(old, after.decode("utf-8"), spans, style, bom)
    return (BOM if bom else b"") + text.encode("utf-8")


def _realign(old: str, new: str, spans: Sequence[Span], style: str, bom: bool) -> str:
    old_lines, new_lines = old.splitlines(keepends=True), new.splitlines(keepends=True)
    out: list[str] = []
    i = j = 0

    def keep_until(stop: int) -> None:
        nonlocal i, j
        for k in range(stop - i):
            line, now = old_lines[i + k], new_lines[j + k]
            if bom and i + k == 0:
                now = _strip_bom(now)
            # An old last line without an end that now has lines below it gains one.
            out.append(line if _restyle(line, "\n") == _restyle(now, "\n") else _restyle(now, style))
        j += stop - i
        i = stop

    for above, removed, inserted in spans:
        keep_until(above)
        if inserted is None:
            inserted = len(new_lines) - len(old_lines) + removed
        added = [_restyle(line, style) for line in new_lines[j:j + inserted]]
        if bom and not out and added:
            # A block that put the mark back itself (copied from the text) must not double it.
            added[0] = _strip_bom(added[0])
        out.extend(added)
        i, j = i + removed, j + inserted
    keep_until(len(old_lines))
    return "".join(out)


def single_span(at: int, replaced: int, mode: str) -> Span:
    """The span of one module edit from its receipt's "at", its count of replaced lines and
    its mode."""
    return (at if mode == "insert_after" else at - 1, replaced, None)


def restore(path: str, before: bytes, spans: Sequence[Span], ends: "Profile", after: bytes | None = None) -> bytes:
    """Rewrites `path` (just written by the module, holding `after` if given) with its kept line
    ends; returns the bytes it now holds. The file is written in place, only when that changes it."""
    target = Path(path)
    after = target.read_bytes() if after is None else after
    kept = kept_bytes(before, after, spans, ends)
    if kept != after:
        target.write_bytes(kept)
    return kept


_CODES = {"\r\n": "c", "\r": "r", "\n": "n"}
_ENDS = {code: end for end, code in _CODES.items()}

# How a file ends its lines: None when the module's "\n" is all there is, else the dominant
# "style" and, when not every line has it, "each" line's end as one letter (c, r, n; - for
# another break or none). A BOM needs no record: to the module it is text, written back with it.
Profile = dict | None


def profile(data: bytes | None) -> Profile:
    if data is None or b"\r" not in data:
        return None
    style, uniform = _styles(data)
    if uniform:
        return {"style": style}
    ends = (next((code for end, code in _CODES.items() if line.endswith(end)), "-")
            for line in data.decode("utf-8").splitlines(keepends=True))
    return {"style": style, "each": "".join(ends)}


def encoded(text: str, ends: Profile) -> bytes:
    """The module's text of a file (as a snapshot holds it) with the line ends `ends` records."""
    if ends is None or "each" not in ends:
        return _translated(text.encode("utf-8"), "\n" if ends is None else ends["style"])
    lines = text.splitlines(keepends=True)
    codes = ends["each"].ljust(len(lines), "-")
    return "".join(line[:-1] + _ENDS[code] if code != "-" and line.endswith("\n") else line
                   for line, code in zip(lines, codes)).encode("utf-8")
