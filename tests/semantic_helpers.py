"""Small projects and stand-in compilers shared by the semantic-check tests."""

import os
import textwrap
from pathlib import Path


def write(path, text):
    """Writes dedented `text` to `path` (creating its directories) and returns the path."""
    path = Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(textwrap.dedent(text), encoding="utf-8")
    return path


def script(directory, name, body):
    """An executable shell script `name` in `directory` running `body`."""
    path = Path(directory) / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("#!/bin/sh\n" + textwrap.dedent(body), encoding="utf-8")
    path.chmod(0o755)
    return path


def repository(root):
    """A checkout at `root`: the ".git" marker, include/ and src/."""
    root = Path(root)
    for part in (".git", "include", "src"):
        (root / part).mkdir(parents=True, exist_ok=True)
    return root


def logging_wrapper(directory, name, real, log):
    """A compiler `name` that appends one line per run to `log`, then runs the real one."""
    return script(directory, name, f'echo run >> "{log}"\nexec "{real}" "$@"\n')


def runs(log):
    log = Path(log)
    return len(log.read_text().splitlines()) if log.exists() else 0


def scratch_dirs(tmpdir):
    return sorted(name for name in os.listdir(tmpdir) if name.startswith("orvel_jc_"))
