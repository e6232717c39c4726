"""Stand-in for the host's finder of web code held in Python string literals.

`_embedded_regions(text)` finds the string literals of a Python source text where the host's
tokenizer delimits them (prefixes, triple quotes, escaped quotes, backslash line continuations,
f- and t-strings with nested replacement fields and quotes), keeps the str literals whose text
looks like HTML, CSS or JavaScript, and returns them as `(kind, region_text, base_line)`:

- kind: "html", "css" or "js";
- region_text: the literal's body as written in the source (between the quotes, escapes left
  as they are), so that line k of the region is line base_line + k of the file. In an f- or
  t-string, doubled braces are halved and each replacement field becomes "_" followed by the
  field's own line breaks, so interpolated CSS or markup still reads as CSS or markup;
- base_line: the number of file lines before the literal's first line.

The classification is a cheap heuristic and mislabels some prompts and docstrings; its callers
compare counts before and after an edit, so a stable mislabel cancels out.

The finder is one regular-expression search from one literal or comment to the next, with a
character loop only inside replacement fields, so a file is scanned in a small fraction of the
time the host's compiler takes on it.
"""

import re

__all__ = ["_embedded_regions"]

_PREFIXES = frozenset({"", "r", "u", "b", "br", "rb", "f", "fr", "rf", "t", "tr", "rt"})
_PREFIX_CHARS = frozenset("rRbBuUfFtT")

# What can open a literal or a comment outside any literal.
_START = re.compile(r"[#'\"]")

# The rest of a literal without replacement fields, through its closing quote. A backslash
# always takes the next character with it, in raw literals too, so an escaped quote or a line
# continuation never closes one; a one-quote literal cannot hold a bare line break.
_PLAIN_REST = {
    "'": re.compile(r"[^'\\\n]*+(?:\\(?:\r\n|.)[^'\\\n]*+)*+'", re.S),
    '"': re.compile(r'[^"\\\n]*+(?:\\(?:\r\n|.)[^"\\\n]*+)*+"', re.S),
    "'''": re.compile(r"[^'\\]*+(?:(?:\\.|'(?!''))[^'\\]*+)*+'''", re.S),
    '"""': re.compile(r'[^"\\]*+(?:(?:\\.|"(?!""))[^"\\]*+)*+"""', re.S),
}

# Inside an f- or t-string: runs of characters with no meaning to the scan, per frame kind.
_TEMPLATE_TEXT = {
    "'": re.compile(r"[^{}\\'\n]*"),
    '"': re.compile(r'[^{}\\"\n]*'),
    "'''": re.compile(r"[^{}\\']*"),
    '"""': re.compile(r'[^{}\\"]*'),
}
# The common one-line template whose fields hold no quote, brace, backslash or comment, taken
# whole by one match; anything else goes through the frame-by-frame scan.
_SIMPLE_TEMPLATE = {
    "'": re.compile(r"[^'\\{}\n]*+(?:\{[^'\"{}\\\n#]*+\}[^'\\{}\n]*+)*+'"),
    '"': re.compile(r'[^"\\{}\n]*+(?:\{[^\'"{}\\\n#]*+\}[^"\\{}\n]*+)*+"'),
}
_SIMPLE_FIELD = re.compile(r"\{[^}]*\}")
_FIELD_CODE = re.compile(r"[^'\"#()\[\]{}:]*")
_FORMAT_SPEC = re.compile(r"[^{}\\'\"\n]*")

_OPENERS = "([{"
_CLOSERS = ")]"

_MIN_LENGTH = 6

_HTML_TAG = re.compile(
    r"<(?:!doctype\s+html|(?:html|head|body|div|span|p|a|ul|ol|li|table|thead|tbody|tr|td|th"
    r"|form|input|button|select|option|textarea|label|img|h[1-6]|script|style|section|article"
    r"|nav|header|footer|main|pre|code|iframe|canvas|svg|link|meta|title)[\s/>])",
    re.I,
)
_HTML_CLOSE = re.compile(r"</[A-Za-z][\w-]*\s*>")
_JS_SIGN = re.compile(
    r"\bfunction\b\s*[\w$]*\s*\([^()]*\)\s*\{|\b(?:const|let|var)\s+[\w$]+\s*=|(?<![=<>!])=>\s*[{(]"
    r"|\b(?:document|window)\.[A-Za-z]|\bconsole\.(?:log|warn|error)\s*\("
    r"|\.(?:addEventListener|querySelector(?:All)?|getElementById)\s*\("
)
_CSS_RULE = re.compile(r"\{\s*-?[A-Za-z][\w-]*\s*:[^{};]*;|@media\b|@keyframes\b|@font-face\b")


def _embedded_regions(text):
    """(kind, region_text, base_line) of each str literal in `text` that looks like web code.

    A list rather than a generator: all the work happens inside the call, so a caller that
    guards the call guards the whole scan.
    """
    regions = []
    line = 0
    counted = 0
    for start, _end, prefix, body in _literals(text):
        if "b" in prefix or len(body) < _MIN_LENGTH:
            continue
        kind = _classify(body)
        if kind is None:
            continue
        line += text.count("\n", counted, start)
        counted = start
        regions.append((kind, body, line))
    return regions


def _classify(body):
    if "<" in body and _HTML_TAG.search(body) and (_HTML_CLOSE.search(body) or "<!" in body):
        return "html"
    if ("{" in body or ";" in body) and _JS_SIGN.search(body):
        return "js"
    if "{" in body and _CSS_RULE.search(body):
        return "css"
    return None


def _literals(text):
    """(start, end, lower-cased prefix, body) of each top-level literal in source order.

    A one-quote literal left open ends at its line, as the tokenizer gives up there; a
    triple-quoted one left open ends the scan.
    """
    search = _START.search
    pos = 0
    while True:
        found = search(text, pos)
        if found is None:
            return
        at = found.start()
        char = text[at]
        if char == "#":
            pos = text.find("\n", at)
            if pos < 0:
                return
            continue
        if at and text[at - 1] in _PREFIX_CHARS:
            start = _prefix_start(text, at)
            prefix = text[start:at].lower()
        else:
            start, prefix = at, ""
        quote = char * 3 if text.startswith(char * 3, at) else char
        opened = at + len(quote)
        if "f" in prefix or "t" in prefix:
            simple = _SIMPLE_TEMPLATE[quote].match(text, opened) if len(quote) == 1 else None
            if simple is not None:
                pos = simple.end()
                yield start, pos, prefix, _SIMPLE_FIELD.sub("_", text[opened:pos - 1])
                continue
            scanned = _scan_template(text, opened, quote, "r" in prefix)
            if scanned is not None:
                pos, body = scanned
                yield start, pos, prefix, body
                continue
        else:
            rest = _PLAIN_REST[quote].match(text, opened)
            if rest is not None:
                pos = rest.end()
                yield start, pos, prefix, text[opened:pos - len(quote)]
                continue
        if len(quote) == 3:
            return
        pos = text.find("\n", opened)
        if pos < 0:
            return


def _is_name_char(char):
    return char == "_" or char.isalnum() or char >= "\x80"


def _prefix_start(text, quote_at):
    """Where the literal whose quote is at `quote_at` starts: before its prefix letters, if
    they form a prefix and are not the tail of a longer name (in `xr"a"` or `ur"a"` the
    letters are a name of their own and the literal starts at the quote)."""
    start = quote_at
    while start > max(quote_at - 2, 0) and text[start - 1] in _PREFIX_CHARS:
        start -= 1
    if start == quote_at:
        return start
    if (start > 0 and _is_name_char(text[start - 1])) or text[start:quote_at].lower() not in _PREFIXES:
        return quote_at
    return start


def _scan_template(text, pos, quote, raw):
    """(end, region_text) of an f- or t-string whose body starts at `pos`, or None when it is
    never closed. Nested literals and fields are tracked on an explicit stack of frames:
    ("text", quote, raw) for the literal part of a template, ("code", depth) for a field's
    expression with `depth` open brackets, ("spec", quote) for a field's format spec."""
    stack = [("text", quote, raw)]
    pieces = []  # the outermost template's region text
    field_start = 0
    size = len(text)
    while pos < size:
        frame = stack[-1]
        kind = frame[0]
        outer = len(stack) == 1
        if kind == "text":
            _, quote, raw = frame
            run_end = _TEMPLATE_TEXT[quote].match(text, pos).end()
            if outer:
                pieces.append(text[pos:run_end])
            pos = run_end
            if pos >= size:
                return None
            char = text[pos]
            if char in "{}" and text.startswith(char, pos + 1):
                if outer:
                    pieces.append(char)
                pos += 2
            elif char == "{":
                if outer:
                    field_start = pos
                stack.append(("code", 0))
                pos += 1
            elif char == "}":
                # A lone "}" is the compiler's error to report; the scan reads past it.
                if outer:
                    pieces.append(char)
                pos += 1
            elif char == "\\":
                # A backslash escapes the next character, but never a brace: "\{x}" still
                # opens a field. A named escape's braces belong to the escape.
                if not raw and text.startswith("N{", pos + 1):
                    close = text.find("}", pos + 3)
                    if close < 0:
                        return None
                    step = close + 1 - pos
                else:
                    step = 1 if text.startswith(("{", "}"), pos + 1) else 2
                if outer:
                    pieces.append(text[pos:pos + step])
                pos += step
            elif char == "\n":
                return None
            elif text.startswith(quote, pos):
                stack.pop()
                pos += len(quote)
                if not stack:
                    return pos, "".join(pieces)
            else:
                if outer:
                    pieces.append(char)
                pos += 1
        elif kind == "code":
            pos = _FIELD_CODE.match(text, pos).end()
            if pos >= size:
                return None
            char = text[pos]
            depth = frame[1]
            if char in "'\"":
                start = _prefix_start(text, pos)
                prefix = text[start:pos].lower()
                nested = char * 3 if text.startswith(char * 3, pos) else char
                if "f" in prefix or "t" in prefix:
                    stack.append(("text", nested, "r" in prefix))
                    pos += len(nested)
                else:
                    rest = _PLAIN_REST[nested].match(text, pos + len(nested))
                    if rest is None:
                        return None
                    pos = rest.end()
            elif char == "#":
                pos = text.find("\n", pos)
                if pos < 0:
                    return None
            elif char in _OPENERS:
                stack[-1] = ("code", depth + 1)
                pos += 1
            elif char in _CLOSERS or (char == "}" and depth > 0):
                stack[-1] = ("code", max(depth - 1, 0))
                pos += 1
            elif char == "}":
                pos = _close_field(stack, pos, pieces, text, field_start)
            elif depth == 0:  # ":" at the field's own level opens its format spec
                stack[-1] = ("spec", _enclosing_quote(stack))
                pos += 1
            else:
                pos += 1
        else:
            pos = _FORMAT_SPEC.match(text, pos).end()
            if pos >= size:
                return None
            char = text[pos]
            if char == "{":
                stack.append(("code", 0))
                pos += 1
            elif char == "}":
                pos = _close_field(stack, pos, pieces, text, field_start)
            elif char == "\\":
                pos += 2
            elif char == "\n" and len(frame[1]) == 1:
                return None
            elif text.startswith(frame[1], pos):
                # The template's own quote ends it inside a field, as the tokenizer reads it (the
                # unclosed field is the compiler's error to report).
                while stack.pop()[0] != "text":
                    pass
                pos += len(frame[1])
                if not stack:
                    return pos, "".join(pieces)
            else:
                pos += 1
    return None


def _enclosing_quote(stack):
    for frame in reversed(stack):
        if frame[0] == "text":
            return frame[1]
    raise AssertionError("a field always lies inside a template")


def _close_field(stack, pos, pieces, text, field_start):
    """Pops the field closed by the "}" at `pos`; a field of the outermost template leaves a
    placeholder with the field's line breaks in the region text. Returns the next position."""
    stack.pop()
    if len(stack) == 1:
        pieces.append("_" + "\n" * text.count("\n", field_start, pos))
    return pos + 1
