import gc
import sys

import pyflakes.messages
import pytest

import editor
from helpers import write
pytestmark = pytest.mark.leaks


@pytest.mark.parametrize(
    "source, expected",
    [
        ("import os\n\ndef f():\n    unused = 1\n", []),
        ("def broken(:\n    pass\n", []),
        ("print(ghost)\n" + "\n" * 10 + "print(ghost)\n",
         [("undefined name 'ghost'", 1), ("undefined name 'ghost'", 12)]),
        ("x = 1\nreturn x\n", [("'return' outside function", 2)]),
        ("a = b = 1\nif (a, b):\n    pass\n",
         [("'if tuple literal' is always true, perhaps remove accidental comma?", 2)]),
        ("def f(a, a):\n    pass\n", [("duplicate argument 'a' in function definition", 1)]),
        ("__all__ = ['nowhere']\n", [("undefined name 'nowhere' in __all__", 1)]),
        ("for i in []:\n    pass\nbreak\n", [("'break' outside loop", 3)]),
    ],
)
def test_only_semantic_errors_are_reported(tmp_path, source, expected):
    assert editor._pyflakes_errors(str(write(tmp_path / "m.py", source))) == expected


def test_each_call_collects_into_its_own_list_and_leaves_nothing_behind(tmp_path):
    first = str(write(tmp_path / "a.py", "alpha\n"))
    second = str(write(tmp_path / "b.py", "beta\n"))
    for _ in range(20):
        assert editor._pyflakes_errors(first) == [("undefined name 'alpha'", 1)]
        assert editor._pyflakes_errors(second) == [("undefined name 'beta'", 1)]
    gc.collect()
    assert not [o for o in gc.get_objects() if isinstance(o, type) and o.__name__ == "_Collector"]


def test_format_that_does_not_fit_falls_back_to_the_raw_message(tmp_path, monkeypatch):
    monkeypatch.setattr(pyflakes.messages.UndefinedName, "message", "undefined names %r and %r")
    path = write(tmp_path / "m.py", "\nprint(ghost)\n")
    assert editor._pyflakes_errors(str(path)) == [("undefined names %r and %r", 2)]


def test_not_evaluated_when_pyflakes_is_missing_or_fails_and_non_utf8_propagates(tmp_path, monkeypatch):
    broken = write(tmp_path / "m.py", "print(ghost)\n")
    # Deep enough to exhaust pyflakes' recursion, shallow enough for the parser.
    deep = write(tmp_path / "deep.py", "x = " + "+".join(["ghost"] * 2000) + "\n")
    assert editor._pyflakes_errors(str(deep)) is None
    assert editor._pyflakes_errors(str(tmp_path / "absent.py")) is None
    assert editor._pyflakes_errors(str(tmp_path)) is None
    (tmp_path / "latin.py").write_bytes(b"name = '\xe9'\nprint(ghost)\n")
    with pytest.raises(UnicodeDecodeError):
        editor._pyflakes_errors(str(tmp_path / "latin.py"))
    monkeypatch.setitem(sys.modules, "pyflakes", None)
    assert editor._pyflakes_errors(str(broken)) is None
