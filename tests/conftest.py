import os
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent
# The built module (EDITOR_BUILD names another build, e.g. a sanitizer one) and the host
# stand-ins, ahead of anything installed.
for entry in (ROOT / "host", Path(os.environ.get("EDITOR_BUILD", ROOT / "build"))):
    if str(entry) not in sys.path:
        sys.path.insert(0, str(entry))


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
    import editor

    calls = []

    def check(*args, **kwargs):
        calls.append((args, kwargs))
        return "ok"

    monkeypatch.setattr(editor, "syntax_check", check, raising=False)
    return calls
