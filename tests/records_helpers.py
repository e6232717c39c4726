"""Shared helpers of the session-records tests."""

import hashlib
import os
from pathlib import Path

from hypothesis import strategies as st


def tree_digest(root):
    """Every file under root (relative path -> sha256 of its bytes)."""
    digest = {}
    for folder, _, files in os.walk(root):
        for name in files:
            path = Path(folder, name)
            digest[str(path.relative_to(root))] = hashlib.sha256(path.read_bytes()).hexdigest()
    return digest


def tree_texts(root):
    """Every file under root (relative path -> text read with universal newlines)."""
    return {
        str(Path(folder, name).relative_to(root)): Path(folder, name).read_text(encoding="utf-8")
        for folder, _, files in os.walk(root)
        for name in files
    }


# Text a file can hold: no lone surrogates; every kind of line end, including the ones that
# only str.splitlines() and universal newlines disagree on.
LINE_BREAKS = ["\n", "\r\n", "\r", "\x0b", "\x0c", "\x1c", "\x85", "\u2028"]
file_text = st.lists(
    st.one_of(st.sampled_from(LINE_BREAKS), st.text(st.characters(exclude_categories=["Cs"]), max_size=6)),
    max_size=12,
).map("".join)

# The host's plain objects as they arrive at the boundary.
json_like = st.recursive(
    st.none() | st.booleans() | st.integers() | st.floats() | st.text(max_size=8),
    lambda inner: st.lists(inner, max_size=4)
    | st.dictionaries(st.text(max_size=8), inner, max_size=4)
    | st.tuples(inner, inner),
    max_leaves=20,
)
