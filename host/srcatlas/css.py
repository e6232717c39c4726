"""The record of one CSS source: its declarations, scoped by selector."""

import re

_CSS_COMMENT = re.compile(r"/\*.*?\*/", re.S)


def css_scopes(text: str) -> dict:
    """{"css::{selector}": {property: [{"line", "rhs"}]}} for each rule, at-rules nested."""
    clean = _CSS_COMMENT.sub(lambda m: re.sub(r"[^\n]", " ", m.group()), text)
    scopes: dict[str, dict[str, list[dict[str, int | str]]]] = {}
    stack, start = [], 0
    for match in re.finditer(r"[{};]", clean):
        chunk = clean[start:match.start()]
        if match.group() == "{":
            stack.append(" ".join(chunk.split()))
        elif stack:
            if ":" in chunk:
                name, _, value = chunk.partition(":")
                line = clean.count("\n", 0, start + len(chunk) - len(chunk.lstrip())) + 1
                scope = scopes.setdefault("css::" + " ".join(stack), {})
                scope.setdefault(name.strip(), []).append({"line": line, "rhs": value.strip()})
            if match.group() == "}":
                stack.pop()
        start = match.end()
    return scopes
