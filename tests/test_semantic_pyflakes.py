import sys

import pyflakes.messages
import pytest

import editor
from helpers import write
pytestmark = pytest.mark.leaks


@pytest.mark.parametrize("source, expected", [
        ("import os\n\ndef f():\n    unused = 1\n", []), ("def broken(:\n    pass\n", []),
        ("print(ghost)\n" + "\n" * 10 + "print(ghost)\n", [("undefined name 'ghost'", 1), ("undefined name 'ghost'", 12)]),
        ("x = 1\nreturn x\n", [("'return' outside function", 2)]),
        ("a = b = 1\nif (a, b):\n    pass\n", [("'if tuple literal' is always true, perhaps remove accidental comma?", 2)]),
        ("def f(a, a):\n    pass\n", [("duplicate argument 'a' in function definition", 1)]),
        ("__all__ = ['nowhere']\n", [("undefined name 'nowhere' in __all__", 1)]),
        ("for i in []:\n    pass\nbreak\n", [("'break' outside loop", 3)]),
])
def test_only_semantic_errors_are_reported(tmp_path, source, expected):
    assert editor._pyflakes_errors(str(write(tmp_path / "m.py", source))) == expected


def test_raw_message_fallback_and_not_evaluated_when_pyflakes_is_missing_or_fails(tmp_path, monkeypatch):
    broken = write(tmp_path / "m.py", "\nprint(ghost)\n")
    # Deep enough to exhaust pyflakes' recursion, shallow enough for the parser.
    deep = write(tmp_path / "deep.py", "x = " + "+".join(["ghost"] * 2000) + "\n")
    assert editor._pyflakes_errors(str(deep)) is None
    assert editor._pyflakes_errors(str(tmp_path / "absent.py")) is None
    assert editor._pyflakes_errors(str(tmp_path)) is None
    (tmp_path / "latin.py").write_bytes(b"name = '\xe9'\nprint(ghost)\n")
    with pytest.raises(UnicodeDecodeError):
        editor._pyflakes_errors(str(tmp_path / "latin.py"))
    # A message whose format does not fit its arguments comes back raw.
    monkeypatch.setattr(pyflakes.messages.UndefinedName, "message", "undefined names %r and %r")
    assert editor._pyflakes_errors(str(broken)) == [("undefined names %r and %r", 2)]
    monkeypatch.setitem(sys.modules, "pyflakes", None)
    assert editor._pyflakes_errors(str(broken)) is None
