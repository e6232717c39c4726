"""Fixtures and tree fingerprints shared by the tests of the file edits."""

import contextlib
import hashlib
import os
import shutil
import stat
import subprocess
from pathlib import Path

import pytest

import editor


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


@pytest.fixture
def project(tmp_path):
    """A project root, with a sibling directory `outside` that must never change."""
    root = tmp_path / "proj"
    root.mkdir()
    (tmp_path / "outside").mkdir()
    (tmp_path / "outside" / "secret.txt").write_bytes(b"keep\n")
    return root


@pytest.fixture
def checker(monkeypatch):
    """A syntax check that records its calls and answers "ok"; installed on the module."""
    calls = []

    def check(*args, **kwargs):
        calls.append((args, kwargs))
        return "ok"

    monkeypatch.setattr(editor, "syntax_check", check, raising=False)
    return calls


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
