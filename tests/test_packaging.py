"""The built wheel, installed alone into a fresh virtual environment, works away from the checkout;
in the checkout, the product's Python type-checks cleanly against the module's stub."""

import os
import re
import shutil
import subprocess
import sys
import sysconfig
import tomllib
from pathlib import Path

import anyio
import pytest

from mcp_client import CALL_TIMEOUT, ROOT, connect


def test_dependencies_are_the_tested_versions():
    declared = tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))["project"]["dependencies"]
    pinned = {line.split("==")[0].lower(): line.strip()
              for line in (ROOT / "requirements.txt").read_text(encoding="utf-8").splitlines() if "==" in line}
    assert declared and all(dependency == pinned.get(dependency.split("==")[0].lower()) for dependency in declared)


def test_product_python_is_type_clean():
    # The environment is kept: on the debug interpreter, mypy itself is found through PYTHONPATH.
    report = subprocess.run([sys.executable, "-m", "mypy", "--config-file", str(ROOT / "pyproject.toml")],
                            cwd=ROOT, capture_output=True, text=True, timeout=120)
    assert report.returncode == 0, report.stdout + report.stderr


def _run(args, cwd, timeout=CALL_TIMEOUT, **kwargs):
    clean = {key: value for key, value in os.environ.items() if key not in ("PYTHONPATH", "EDITOR_BUILD")}
    return subprocess.run([str(arg) for arg in args], cwd=cwd, capture_output=True, text=True,
                          timeout=timeout, env=clean, **kwargs)


@pytest.mark.heavy
def test_the_installed_wheel_works_away_from_the_checkout(tmp_path):
    # The machine file the bootstrap wrote names this interpreter's headers to meson.
    _run([sys.executable, "-m", "pip", "wheel", ROOT, "--no-deps", "--no-build-isolation",
          f"--config-settings=setup-args=--native-file={ROOT / 'native.ini'}", "-q", "-w", tmp_path / "dist"],
         tmp_path, timeout=900, check=True)
    [wheel] = (tmp_path / "dist").glob("editor-*.whl")
    env_dir, bin_dir = tmp_path / "env", tmp_path / "env" / "bin"
    _run([sys.executable, "-m", "venv", "--without-pip", env_dir], tmp_path, check=True)
    _run([sys.executable, "-m", "pip", "--python", bin_dir / "python", "install", "-q", "--no-deps", "--no-index",
          wheel], tmp_path, timeout=300, check=True)
    # The dependencies (and nothing of the checkout) come from the shared environment, after the
    # environment's own site-packages on the path.
    site = _run([bin_dir / "python", "-c", "import sysconfig; print(sysconfig.get_path('purelib'))"], tmp_path)
    Path(site.stdout.strip(), "shared_dependencies.pth").write_text(os.path.realpath(sysconfig.get_path("purelib")))

    probe = _run([bin_dir / "python", "-c", "import editor, editor_session.server, projstore, srcatlas;"
                  "print(editor.__file__); print(editor_session.server.__file__)"], tmp_path)
    assert probe.returncode == 0 and all(Path(line).is_relative_to(env_dir) for line in probe.stdout.splitlines())
    for command in ("editor-session", "editor-mcp"):
        shown = _run([bin_dir / command, "--help"], tmp_path)
        assert shown.returncode == 0 and "--root" in shown.stdout, shown.stderr

    (tmp_path / "host_script.py").write_text(
        "import editor\n"
        "receipt: dict = editor.apply_block('/p', '/p/a.py', 1, None, 'x = 1\\n')\n"
        "target = editor.resolve_target('/p', 'a.py', ['a.py'])\n"
        "editor.apply_block('/p', '/p/a.py', 'first', None, 'x = 1\\n')\n", encoding="utf-8")
    report = _run([sys.executable, "-m", "mypy", "--no-incremental", "--python-executable", bin_dir / "python",
                   "host_script.py"], tmp_path, timeout=120)
    errors = [line for line in report.stdout.splitlines() if ": error:" in line]
    assert len(errors) == 1 and re.match(r".*host_script\.py:4: error: .*apply_block", errors[0]), report.stdout

    project = shutil.copytree(ROOT / "demo" / "sample_project", tmp_path / "proj")
    (tmp_path / "state").mkdir()

    async def scenario():
        with anyio.fail_after(4 * CALL_TIMEOUT), open(tmp_path / "stderr.txt", "w") as errlog:
            async with connect([str(bin_dir / "editor-mcp"), "--root", str(project)], tmp_path / "state", errlog) as client:
                await client.call_tool("create", {"path": "notes/todo.py", "content": "TODO = 1\n"})
                return await client.call_tool("edit", {"path": "notes/todo.py", "start_line": 1, "content": "TODO = 2\n"})

    edited = anyio.run(scenario)
    assert not edited.is_error and edited.structured_content["replaced"] == ["TODO = 1"], edited.content
    assert (project / "notes" / "todo.py").read_text() == "TODO = 2\n"
