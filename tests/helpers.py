"""Tree fingerprints, files that refuse changes, small projects and random file texts shared
by the tests."""

import contextlib
import hashlib
import os
import shutil
import stat
import subprocess
import textwrap
from pathlib import Path

import pytest
from hypothesis import strategies as st


def tree_digest(top):
    """Hash of every entry below `top`: names, types, modes, link targets, file bytes, mtimes."""
    digest = hashlib.sha256()
    for folder, dirs, files in os.walk(top):
        dirs.sort()
        for name in sorted(dirs + files):
            path = os.path.join(folder, name)
            info = os.lstat(path)
            digest.update(os.fsencode(os.path.relpath(path, top)) + b"\0")
            digest.update(f"{info.st_mode:o}\0".encode())
            if stat.S_ISLNK(info.st_mode):
                digest.update(os.fsencode(os.readlink(path)))
            elif stat.S_ISREG(info.st_mode):
                digest.update(f"{info.st_mtime_ns}\0".encode() + Path(path).read_bytes())
    return digest.hexdigest()


def tree_texts(root):
    """Every file under root (relative path -> text read with universal newlines)."""
    return {str(Path(folder, name).relative_to(root)): Path(folder, name).read_text(encoding="utf-8")
            for folder, _, files in os.walk(root) for name in files}


@contextlib.contextmanager
def immutable(path):
    """Makes `path` unwritable even for root (chattr +i), or skips when that cannot be done."""
    if os.geteuid() != 0:
        mode = path.stat().st_mode
        path.chmod(0o555 if path.is_dir() else 0o444)
        try:
            yield
        finally:
            path.chmod(mode)
        return
    chattr = shutil.which("chattr")
    if chattr is None or subprocess.run([chattr, "+i", str(path)], capture_output=True).returncode != 0:
        pytest.skip("running as root and chattr +i is unavailable: no file here refuses a write")
    try:
        yield
    finally:
        subprocess.run([chattr, "-i", str(path)], check=True)


def write(path, text):
    """Writes dedented `text` to `path` (creating its directories) and returns the path."""
    path = Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(textwrap.dedent(text), encoding="utf-8")
    return path


def script(directory, name, body):
    """An executable shell script `name` in `directory` running `body`."""
    path = write(Path(directory, name), "#!/bin/sh\n" + textwrap.dedent(body))
    path.chmod(0o755)
    return path


def repository(root):
    """A checkout at `root`: the ".git" marker, include/ and src/."""
    for part in (".git", "include", "src"):
        (Path(root) / part).mkdir(parents=True, exist_ok=True)
    return Path(root)


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
