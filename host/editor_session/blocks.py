"""Several blocks in one edit: all addressed against the same text, all or nothing.

Each block is put in by the module's own `apply_block`, on a scratch file of the same name that
holds only the lines the block addresses (an edit is a concatenation of whole lines, so the
module does on those lines exactly what it would do in the whole file). The pieces are then put
together and written to the real file by one more `apply_block` over the stretch from the first
to the last addressed line, which also gives the one syntax result against the text before. Any
refusal comes before that write, so the real file is untouched. During the scratch applications
the module's syntax check is swapped, through the module namespace, for one that judges nothing:
fragments are not files, and fifty checks would cost fifty parses.
"""

import contextlib
import os
from pathlib import Path
from typing import NamedTuple

import editor
from editor_session import anchors, lineends, patch, scratch, syntax
from editor_session.reading import module_text, tag_of, view_lines

MAX_BLOCKS = 100
MODES = ("replace", "insert_before", "insert_after")


class Block(NamedTuple):
    """One block resolved to lines of the current text. `first`..`last` are the old lines the
    scratch file holds: the replaced lines, or for an insert the line it goes next to."""
    number: int
    mode: str
    start: int
    end: int
    content: str

    def reach(self) -> tuple[int, int]:
        """Where the block sits, in half-lines: line k is 2k; the gap above it is 2k - 1."""
        if self.mode == "replace":
            return 2 * self.start, 2 * self.end
        point = 2 * self.start + (1 if self.mode == "insert_after" else -1)
        return point, point

    def described(self) -> str:
        if self.mode == "replace":
            lines = f"line {self.start}" if self.start == self.end else f"lines {self.start}-{self.end}"
            return f"block {self.number} ({lines})"
        return f"block {self.number} ({self.mode} line {self.start})"


def _refusal(number: int, refusal: dict) -> dict:
    return {**refusal, "error": f"block {number}: {refusal['error']}", "block": number}


def _resolve(number: int, spec: object, lines: list[str]) -> Block | dict:
    """The block `spec` placed on `lines` (the text as read), or its refusal."""
    if not isinstance(spec, dict):
        return {"error": "a block is an object with start_line/end_line or anchor, mode and content"}
    mode, content, anchor = spec.get("mode", "replace"), spec.get("content", ""), spec.get("anchor")
    if mode not in MODES:
        return {"error": f"unknown mode '{mode}' (replace | insert_before | insert_after)"}
    if not isinstance(content, str):
        return {"error": "content must be text"}
    n = len(lines)
    if anchor:
        found = anchors.locate(lines, anchor, mode)
        if isinstance(found, dict):
            return found
        first, last = found
        at = last if mode == "insert_after" else first
        return Block(number, mode, at, last if mode == "replace" else at, content)
    start, end = spec.get("start_line"), spec.get("end_line")
    if not isinstance(start, int):
        return {"error": "give either start_line or anchor"}
    highest = n + 1 if mode == "insert_before" else n
    if not 1 <= start <= highest:
        return {"error": f"start_line {start} is out of range (file has {n} lines)"}
    if mode != "replace":
        return Block(number, mode, start, start, content)
    end = start if end is None else end
    if not isinstance(end, int) or not start <= end <= n:
        return {"error": f"end_line {end} is out of range (start {start}, file has {n} lines)"}
    return Block(number, mode, start, end, content)


def plan(lines: list[str], specs: object) -> list[Block] | dict:
    """The blocks resolved against `lines` (the text as read), in file order, or the refusal
    for an empty, too long or overlapping list or for the first block that cannot be placed."""
    if not isinstance(specs, list) or not specs:
        return {"error": "blocks is empty -- give at least one block"}
    if len(specs) > MAX_BLOCKS:
        return {"error": f"{len(specs)} blocks are too many (at most {MAX_BLOCKS}) -- split the edit"}
    resolved = [_resolve(number, spec, lines) for number, spec in enumerate(specs, 1)]
    for number, block in enumerate(resolved, 1):
        if isinstance(block, dict):
            return _refusal(number, block)
    ordered = sorted((block for block in resolved if isinstance(block, Block)), key=Block.reach)
    for upper, lower in zip(ordered, ordered[1:]):
        if lower.reach()[0] <= upper.reach()[1]:
            return {"error": f"{upper.described()} and {lower.described()} overlap -- merge them "
                             "into one block or address lines that do not overlap",
                    "blocks": [upper.number, lower.number]}
    return ordered


def _judges_nothing(abs_path, before_text=None):
    return None


@contextlib.contextmanager
def _unchecked():
    real = editor.syntax_check
    editor.syntax_check = _judges_nothing
    try:
        yield
    finally:
        editor.syntax_check = real


class Piece(NamedTuple):
    """What one block made of the old lines `first`..`last` (inclusive; `last` = `first` - 1
    for none: the block goes in above line `first`)."""
    block: Block
    first: int
    last: int
    text: str
    receipt: dict
    above: int

    def span(self) -> lineends.Span:
        removed = len(self.receipt["replaced"])
        return self.above, removed, len(self.text.splitlines()) - (self.last - self.first + 1) + removed


def _scratch_call(block: Block, lines: list[str], last_replaced: bool) -> tuple[int, int, str]:
    """(first, last) old lines the scratch file holds, and the mode the block takes there (at
    its line 1). An insert holds no old line, except next to an unended last line, which the
    module gives its end before anything goes below it."""
    n = len(lines)
    if block.mode == "replace":
        return block.start, block.end, "replace"
    below = block.start if block.mode == "insert_after" else block.start - 1
    if below == n and n and not last_replaced and not lines[-1].endswith("\n"):
        return n, n, "insert_after"
    return below + 1, below, "insert_before"


def _apply_on_scratch(lines: list[str], ordered: list[Block], name: str, rel: str) -> list[Piece] | dict:
    last_replaced = any(block.mode == "replace" and block.end == len(lines) for block in ordered)
    pieces = []
    with scratch.folder("editor-blocks-") as folder, _unchecked():
        copy = os.path.join(folder, name)
        for block in reversed(ordered):
            first, last, mode = _scratch_call(block, lines, last_replaced)
            Path(copy).write_text("".join(lines[first - 1:last]), encoding="utf-8", newline="")
            receipt = editor.apply_block(folder, copy, 1, last - first + 1 if mode == "replace" else None,
                                         block.content, mode)
            if "error" in receipt:
                return _refusal(block.number, {"error": receipt["error"].replace(copy, rel)})
            text = Path(copy).read_text(encoding="utf-8", newline="")
            above = first - 1 + (receipt["at"] if mode == "insert_after" else receipt["at"] - 1)
            receipt = {"block": block.number, "replaced": receipt["replaced"], "at": block.start}
            pieces.append(Piece(block, first, last, text, receipt, above))
    return pieces[::-1]


def _stretch(lines: list[str], pieces: list[Piece]) -> tuple[int, int, str]:
    """The old lines from the first to the last piece and the text that replaces them."""
    out, line = [], pieces[0].first
    for piece in pieces:
        out.append("".join(lines[line - 1:piece.first - 1]) if piece.first > line else "")
        out.append(piece.text)
        line = piece.last + 1
    return pieces[0].first, pieces[-1].last, "".join(out)


def addressed(data: bytes, specs: list) -> list[tuple[int, int]]:
    """The lines each block that can still be placed addresses now (for a stale-tag refusal)."""
    lines = view_lines(data)
    blocks = [_resolve(number, spec, lines) for number, spec in enumerate(specs, 1)]
    return [(block.start, block.end) for block in blocks if isinstance(block, Block)]


def _settled(abs_path: str, data: bytes, spans: list[lineends.Span], ends: lineends.Profile | bool,
             written: bytes | None = None) -> bytes:
    """The file's bytes once its line ends are kept (or, for `ends` False, as the module left
    them, `written` when known); `ends` True: the profile is still to be taken."""
    if written is None:
        written = Path(abs_path).read_bytes()
    if ends is False:
        return written
    return lineends.restore(abs_path, data, spans, lineends.profile(data) if ends is True else ends, written)


def edit_one(root: str, abs_path: str, data: bytes, spec: dict, *, ends: lineends.Profile | bool = True) -> dict:
    """One block by the module's own edit of the real file; an anchor is addressed by the lines
    as read (line numbers go to the module as they are, and it checks them). `ends` is the
    `lineends.profile` of `data` (True: take it here) to keep its line ends, or False to leave
    what the module writes."""
    start, end, mode = spec["start_line"], spec["end_line"], spec["mode"]
    if spec["anchor"]:
        block = _resolve(1, spec, view_lines(data))
        if isinstance(block, dict):
            return block
        start, end = block.start, block.end if mode == "replace" else None
    receipt = editor.apply_block(root, abs_path, start, end, spec["content"], mode)
    if "error" in receipt:
        return receipt
    span = lineends.single_span(receipt["at"], len(receipt["replaced"]), mode)
    after = _settled(abs_path, data, [span], ends)
    return {"replaced": receipt["replaced"], "at": receipt["at"],
            **syntax.honest(receipt["syntax"], abs_path, lambda: module_text(data)), "tag": tag_of(after)}


def edit_blocks(root: str, abs_path: str, rel: str, data: bytes, specs: object, *,
                dry_run: bool = False, ends: lineends.Profile | bool = True) -> dict:
    """Puts every block of `specs` into the file `abs_path` (whose bytes are `data`; `ends` as
    for `edit_one`)."""
    before = module_text(data)
    lines = before.splitlines(keepends=True)
    ordered = plan(view_lines(data), specs)
    if isinstance(ordered, dict):
        return ordered
    name = os.path.basename(abs_path)
    pieces = _apply_on_scratch(lines, ordered, name, rel)
    if isinstance(pieces, dict):
        return pieces
    first, last, text = _stretch(lines, pieces)
    receipts = sorted((piece.receipt for piece in pieces), key=lambda receipt: receipt["block"])
    after = "".join(lines[:first - 1]) + text + "".join(lines[last:])
    if dry_run:
        with scratch.folder("editor-dry-run-") as folder:
            copy = os.path.join(folder, name)
            Path(copy).write_text(after, encoding="utf-8", newline="")
            verdict = syntax.honest(editor.syntax_check(copy, before_text=before), copy, lambda: before)
            diff = patch.labelled_diff(copy, before, rel)
        return {"blocks": receipts, **verdict, "diff": diff, "dry_run": True}
    if first <= last:
        receipt = editor.apply_block(root, abs_path, first, last, text, "replace")
    else:
        receipt = editor.apply_block(root, abs_path, first, None, text, "insert_before")
    if "error" in receipt:
        return receipt
    written, wanted = Path(abs_path).read_bytes(), after.encode("utf-8")
    if written != wanted:
        # The stretch ends in a line with another break (a form feed) or none, and the module
        # gave it a "\n" of its own: the pieces, not that, are the edit.
        Path(abs_path).write_bytes(wanted)
    final = _settled(abs_path, data, [piece.span() for piece in pieces], ends, wanted)
    return {"blocks": receipts, **syntax.honest(receipt["syntax"], abs_path, lambda: before), "tag": tag_of(final)}
