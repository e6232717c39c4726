"""Reading a file the way the edits see it: numbered lines, the line count and a version tag.

The lines are the editor module's lines: the text decoded as strict UTF-8, "\\r\\n" and "\\r"
read as "\\n", split by `str.splitlines`. A UTF-8 BOM is a property of the file, not text of
line 1, so it is left out of what is shown (and kept by the line-end keeping on every write).

The tag is a hash of the file's bytes rather than of its text: kept line ends and the BOM are
part of what an edit preserves, so a change to them elsewhere (another tool turning CRLF into LF)
is a change the model has not seen, and hashing bytes needs no decoding.
"""

import hashlib
import os
import re

from editor_session.lineends import BOM

MAX_LINES = 2000
TAG_LENGTH = 12
_TAG_FORM = re.compile(f"[0-9a-f]{{{TAG_LENGTH}}}")


def tag_of(data: bytes) -> str:
    return hashlib.sha256(data).hexdigest()[:TAG_LENGTH]


def tag_form_error(tag: object) -> dict | None:
    """The refusal for a tag that cannot be one of ours, or None."""
    if isinstance(tag, str) and _TAG_FORM.fullmatch(tag):
        return None
    return {"error": f"tag {tag!r} is not a version tag -- pass the {TAG_LENGTH}-character tag "
                     "that read or the last edit returned"}


def load(abs_path: str, rel: str) -> bytes | dict:
    """The file's bytes, or a one-line refusal for what no edit can address as text."""
    if os.path.isdir(abs_path):
        return {"error": f"{rel} is a directory -- read or edit a file in it"}
    try:
        with open(abs_path, "rb") as handle:
            data = handle.read()
    except FileNotFoundError:
        return {"error": f"{rel} does not exist"}
    except OSError as error:
        return {"error": f"{rel} cannot be read: {error.strerror or error}"}
    if b"\0" in data:
        return {"error": f"{rel} is a binary file -- only text files can be read or edited"}
    try:
        data.decode("utf-8")
    except UnicodeDecodeError as error:
        return {"error": f"{rel} is not UTF-8 text (byte {error.start}) -- only UTF-8 text files "
                         "can be read or edited"}
    return data


def module_text(data: bytes) -> str:
    """The text exactly as the module reads it (a BOM is a U+FEFF character there)."""
    return data.decode("utf-8").replace("\r\n", "\n").replace("\r", "\n")


def text_of(data: bytes) -> str:
    """The text as the module reads it, BOM left out."""
    return module_text(data.removeprefix(BOM))


def view_lines(data: bytes) -> list[str]:
    return text_of(data).splitlines(keepends=True)


def numbered(lines: list[str], first: int) -> str:
    """Lines without their ends, each behind its number and a tab."""
    return "\n".join(f"{number}\t{(line.splitlines() or [''])[0]}"
                     for number, line in enumerate(lines, first))


def read(data: bytes, start: int = 1, end: int | None = None) -> dict:
    """Lines `start`..`end` (inclusive, `end` None: to the end) of the file's bytes `data`."""
    lines = view_lines(data)
    count = len(lines)
    if not isinstance(start, int) or start < 1 or start > max(count, 1):
        return {"error": f"start {start} is out of range (file has {count} lines)"}
    if end is not None and (not isinstance(end, int) or end < start):
        return {"error": f"end {end} is out of range (start {start}, file has {count} lines)"}
    last = count if end is None else min(end, count)
    shown_end = min(last, start + MAX_LINES - 1)
    result: dict = {"tag": tag_of(data), "line_count": count, "start": start, "end": shown_end}
    if last > shown_end:
        result["note"] = (f"showing lines {start}-{shown_end} of {count} (at most {MAX_LINES} "
                          f"at a time) -- read on with start={shown_end + 1}")
    result["text"] = numbered(lines[start - 1:shown_end], start)
    return result


def stale_refusal(rel: str, data: bytes, tag: str, spans: list[tuple[int, int]]) -> dict:
    """The refusal for an edit addressed against an older version of the file: the current tag
    and the current text of each addressed stretch of lines, so the edit can be re-aimed."""
    lines = view_lines(data)
    current = tag_of(data)
    shown = [numbered(lines[first - 1:last], first)
             for first, last in spans if 1 <= first <= len(lines)]
    return {"error": f"{rel} changed since tag {tag} (now {current}) -- check the current lines "
                     "below and address the edit again with the new tag",
            "tag": current, "lines": "\n...\n".join(shown)}
