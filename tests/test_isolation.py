"""Loading: a failed import leaves no trace, re-imports are independent, sub-interpreters work."""

import importlib.util
import os
import subprocess
import sys
import textwrap
from pathlib import Path

import editor

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(editor.__file__).parent


def run_python(code, *path_entries):
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(map(str, path_entries)))
    result = subprocess.run([sys.executable, "-c", textwrap.dedent(code)], env=env, capture_output=True,
                            text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    return result.stdout.splitlines()


def test_each_load_builds_an_independent_module():
    spec = importlib.util.find_spec("editor")
    other = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(other)
    assert other.resolve_target.__self__ is other and editor.resolve_target.__self__ is editor
    # Replacing a name on one module object changes what that module calls, and nothing else.
    other._within_root = lambda root, path: True
    assert (type(other.resolve_target("/r", "../x", [])), type(editor.resolve_target("/r", "../x", []))) == (str, dict)


# The road of an edit through one sub-interpreter, on its own project `root`; at the end it
# replaces a module attribute, which must stay its own.
EDIT_ROAD = """\
import os, editor
target = os.path.join(root, "f.py")
assert editor.create_file(root, target, "x = 1\\n") == {"created": target, "syntax": "ok"}
for i in range(20):
    receipt = editor.apply_block(root, target, 1, None, f"x = {i}\\n")
    assert receipt == {"replaced": [f"x = {i - 1 if i else 1}"], "at": 1, "syntax": "ok"}, receipt
# tree-sitter's binding cannot load into an isolated interpreter: that check then reports nothing.
assert editor._treesitter_error("c", "int f( {\\n") in (None, (1, "missing bracket/token"))
assert editor.commit_time_check({target: "x = 1\\n"}) == []
assert editor.resolve_target(root, "F.PY", ["f.py"]) == target
assert editor.delete_file(root, target) == {"deleted": target, "was": "file"}
editor._within_root = lambda root, path: True
"""

# The first load of the module is in an isolated sub-interpreter; then, after the main
# interpreter failed to import it once and then imported it, two more (each with its own GIL) run the road at the same time.
CONCURRENT = """
    import sys, tempfile, threading, types
    from concurrent import interpreters
    PATH = f"import sys; sys.path[:0] = {sys.path[:3]!r}\\n"
    first = interpreters.create()
    first.exec(PATH + "import editor\\nassert not editor._within_root('/proj', '/proj2')\\n")
    first.close()
    import deeprun
    # A deep stack that fails at load: the import leaves no module behind, and the next one is whole.
    sys.modules["deeprun"] = types.SimpleNamespace(run_deep=lambda fn: 1 / 0)
    try:
        import editor
    except ZeroDivisionError:
        print("editor" in sys.modules)
    sys.modules["deeprun"] = deeprun
    import editor
    original, failures = editor._within_root, []
    threading.excepthook = lambda hook: failures.append(hook.exc_value)

    def run(root):
        interp = interpreters.create()
        try:
            interp.exec(PATH + f"root = {root!r}\\n" + ROAD)
        finally:
            interp.close()

    with tempfile.TemporaryDirectory() as a, tempfile.TemporaryDirectory() as b:
        threads = [threading.Thread(target=run, args=(root,)) for root in (a, b)]
        [thread.start() for thread in threads]
        [thread.join() for thread in threads]
    print(failures, editor._within_root is original, editor.resolve_target("/proj", "../x.py", []))
"""


def test_subinterpreters_run_edits_and_leave_the_main_module_alone():
    failed, main = run_python(CONCURRENT.replace("ROAD", repr(EDIT_ROAD)), ROOT / "host", BUILD)
    assert failed == "False" and main == "[] True {'error': \"'../x.py' is outside the project root -- edits are confined to it\"}"
