"""Loading: failed imports leave no trace, re-imports are independent, sub-interpreters work."""

import importlib.util
import os
import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

import editor

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(editor.__file__).parent


def run_python(code, *path_entries):
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(str(p) for p in path_entries))
    return subprocess.run([sys.executable, "-c", textwrap.dedent(code)], env=env,
                          capture_output=True, text=True, timeout=60)


IMPORT_TWICE = """
    import sys
    try:
        import editor
    except ImportError as exc:
        print(type(exc).__name__, exc)
    print("editor" in sys.modules)
    sys.path.insert(0, {host!r})
    for name in ("projstore", "deeprun"):
        sys.modules.pop(name, None)
    import editor
    print(sorted(n for n in ("_within_root", "resolve_target") if hasattr(editor, n)))
"""


@pytest.mark.parametrize(
    ("stand_ins", "expected"),
    [
        ({"projstore.py": ""}, "ModuleNotFoundError No module named 'deeprun'"),
        ({"deeprun.py": "def run_deep(f): return f\n"}, "ModuleNotFoundError No module named 'projstore'"),
        ({"projstore.py": "", "deeprun.py": "x = 1\n"}, "ImportError cannot import name 'run_deep' from 'deeprun'"),
    ],
)
def test_failed_import_leaves_no_module_and_a_later_import_succeeds(tmp_path, stand_ins, expected):
    for name, text in stand_ins.items():
        (tmp_path / name).write_text(text)
    result = run_python(IMPORT_TWICE.format(host=str(ROOT / "host")), BUILD, tmp_path)
    lines = result.stdout.splitlines()
    assert result.returncode == 0, result.stderr
    assert lines[0].startswith(expected)
    assert lines[1] == "False"
    assert lines[2] == "['_within_root', 'resolve_target']"


def test_each_load_builds_an_independent_module():
    spec = importlib.util.find_spec("editor")
    other = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(other)
    assert other is not editor
    assert other.resolve_target is not editor.resolve_target
    assert other.resolve_target.__self__ is other
    other._within_root = lambda root, path: True
    # Replacing a name on one module object changes what that module calls, and nothing else.
    assert isinstance(other.resolve_target("/r", "../x", []), str)
    assert isinstance(editor.resolve_target("/r", "../x", []), dict)


SUBINTERPRETER = """
    import sys
    from concurrent import interpreters
    inner = (
        "import editor\\n"
        "assert editor._within_root('/proj', '/proj/a')\\n"
        "assert not editor._within_root('/proj', '/proj2')\\n"
    )
    interp = interpreters.create()
    interp.exec(f"import sys; sys.path[:0] = {sys.path[:3]!r}\\n" + inner)
    interp.close()
    import editor
    print(editor.resolve_target("/proj", "a.py", ["x/a.py"]))
"""


def test_import_in_an_isolated_subinterpreter():
    result = run_python(SUBINTERPRETER, ROOT / "host", BUILD)
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == "/proj/x/a.py"
