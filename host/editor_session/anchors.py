"""Turns an anchor snippet into the line numbers the model reads, or a refusal that helps.

The editor module numbers an anchor's lines by counting "\\n" only, while its lines (and what
`read` shows) also break at form feed, vertical tab, U+0085, U+2028 and the like; above such a
break the two numberings part. Addressing the anchor here, on the lines as read, and handing the
module line numbers keeps both the same. A replace must cover whole lines: an anchor that starts
inside a line or stops before its end would silently take the rest of those lines with it.
"""

import bisect
import difflib
from itertools import accumulate

from editor_session.reading import numbered

SHOWN_OCCURRENCES = 8
NEAREST = 3
NOT_FOUND = ("anchor not found in the file's current text -- re-read the region (it may have "
             "changed) or address by line number")


def _starts(lines: list[str]) -> list[int]:
    return [0, *accumulate(map(len, lines))]


def _line_of(starts: list[int], offset: int) -> int:
    """1-based number of the line holding character `offset`."""
    return bisect.bisect_right(starts, offset)


def _content_end(line: str) -> int:
    return len((line.splitlines() or [""])[0])


def _nearest(lines: list[str], anchor: str) -> list[dict]:
    wanted = next((part for part in anchor.splitlines() if part.strip()), anchor).strip()
    texts = [line.strip() for line in lines]
    close = difflib.get_close_matches(wanted, texts, n=NEAREST, cutoff=0.5)
    found, seen = [], set()
    for text in close:
        for number, candidate in enumerate(texts, 1):
            if candidate == text and number not in seen:
                seen.add(number)
                found.append({"line": number, "text": numbered([lines[number - 1]], number)})
                break
    return found


def locate(lines: list[str], anchor: str, mode: str) -> tuple[int, int] | dict:
    """(first, last) line of the anchor's one occurrence in the text made of `lines`, or a
    refusal: not found (with the nearest lines as advice), found several times (with where),
    or, for a replace, covering part of a line only (with the whole lines it would replace)."""
    anchor = anchor.replace("\r\n", "\n").replace("\r", "\n")
    text = "".join(lines)
    count = text.count(anchor)
    if count == 0:
        return {"error": NOT_FOUND, "nearest": _nearest(lines, anchor)}
    starts = _starts(lines)
    if count > 1:
        places: list[dict] = []
        position = text.find(anchor)
        while position >= 0 and len(places) < SHOWN_OCCURRENCES:
            first, last = _line_of(starts, position), _line_of(starts, position + len(anchor) - 1)
            places.append({"line": first, "text": numbered(lines[first - 1:last], first)})
            position = text.find(anchor, position + len(anchor))
        at = ", ".join(str(place["line"]) for place in places)
        return {"error": f"anchor occurs {count} times (at lines {at}{', ...' if count > len(places) else ''}) "
                         "-- include more surrounding text so it matches exactly once",
                "occurrences": places}
    position = text.find(anchor)
    stop = position + len(anchor)
    first, last = _line_of(starts, position), _line_of(starts, stop - 1)
    whole_end = stop in (starts[last], starts[last - 1] + _content_end(lines[last - 1]))
    if mode == "replace" and (position != starts[first - 1] or not whole_end):
        where = f"line {first}" if first == last else f"lines {first}-{last}"
        return {"error": f"anchor covers only part of {where}, and a replace takes "
                         "whole lines -- give an anchor of whole lines or address by line numbers",
                "lines": numbered(lines[first - 1:last], first)}
    return first, last
