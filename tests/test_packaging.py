"""The built wheel, installed alone into a fresh virtual environment, works away from the checkout:
the module imports with its host stand-ins, the commands run, mypy finds the stubs, and an MCP
client edits a project through the installed `editor-mcp`. In the checkout, the product's Python
type-checks cleanly against the module's stub."""

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

BUILD_TIMEOUT = 900
# A first run without mypy's cache, on the debug interpreter, takes well under a minute.
MYPY_TIMEOUT = 120


def test_dependencies_are_the_tested_versions():
    declared = tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))["project"]["dependencies"]
    pinned = {line.split("==")[0].lower(): line.strip()
              for line in (ROOT / "requirements.txt").read_text(encoding="utf-8").splitlines() if "==" in line}
    assert declared and all(dependency == pinned.get(dependency.split("==")[0].lower()) for dependency in declared)


def test_product_python_is_type_clean():
    # The environment is kept: on the debug interpreter, mypy itself is found through PYTHONPATH.
    report = subprocess.run([sys.executable, "-m", "mypy", "--config-file", str(ROOT / "pyproject.toml")],
                            cwd=ROOT, capture_output=True, text=True, timeout=MYPY_TIMEOUT)
    assert report.returncode == 0, report.stdout + report.stderr


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    """(environment directory, its bin directory, a scratch directory outside the checkout)."""
    scratch = tmp_path_factory.mktemp("wheel")
    # The machine file the bootstrap wrote names this interpreter's headers to meson.
    subprocess.run([sys.executable, "-m", "pip", "wheel", str(ROOT), "--no-deps", "--no-build-isolation",
                    f"--config-settings=setup-args=--native-file={ROOT / 'native.ini'}",
                    "-q", "-w", str(scratch / "dist")], check=True, timeout=BUILD_TIMEOUT, env=_clean_env())
    [wheel] = (scratch / "dist").glob("editor-*.whl")
    env_dir = scratch / "env"
    subprocess.run([sys.executable, "-m", "venv", "--without-pip", str(env_dir)], check=True, timeout=120)
    python = env_dir / "bin" / "python"
    subprocess.run([sys.executable, "-m", "pip", "--python", str(python), "install", "-q", "--no-deps",
                    "--no-index", str(wheel)], check=True, timeout=300, env=_clean_env())
    # The dependencies (and nothing of the checkout) come from the shared environment, after the
    # environment's own site-packages on the path.
    site = Path(subprocess.run([str(python), "-c", "import sysconfig; print(sysconfig.get_path('purelib'))"],
                               capture_output=True, text=True, check=True).stdout.strip())
    (site / "shared_dependencies.pth").write_text(os.path.realpath(sysconfig.get_path("purelib")) + "\n")
    return env_dir, env_dir / "bin", scratch


def _clean_env():
    return {key: value for key, value in os.environ.items() if key not in ("PYTHONPATH", "EDITOR_BUILD")}


def _run(args, cwd, **kwargs):
    return subprocess.run([str(arg) for arg in args], cwd=cwd, capture_output=True, text=True,
                          timeout=CALL_TIMEOUT, env=_clean_env(), **kwargs)


@pytest.mark.heavy
def test_module_imports_outside_the_checkout(installed):
    env_dir, bin_dir, scratch = installed
    probe = _run([bin_dir / "python", "-c", "import editor, editor_session.server, projstore, srcatlas;"
                  "print(editor.__file__); print(editor_session.server.__file__)"], scratch)
    assert probe.returncode == 0, probe.stderr
    assert all(Path(line).is_relative_to(env_dir) for line in probe.stdout.splitlines())


@pytest.mark.heavy
@pytest.mark.parametrize("command", ["editor-session", "editor-mcp"])
def test_commands_are_installed(installed, command):
    _, bin_dir, scratch = installed
    shown = _run([bin_dir / command, "--help"], scratch)
    assert shown.returncode == 0 and "--root" in shown.stdout, shown.stderr


@pytest.mark.heavy
def test_mypy_reads_the_installed_stubs(installed):
    _, bin_dir, scratch = installed
    script = scratch / "host_script.py"
    script.write_text(
        "import editor\n"
        "receipt: dict = editor.apply_block('/p', '/p/a.py', 1, None, 'x = 1\\n')\n"
        "known: list[str] = ['a.py']\n"
        "target = editor.resolve_target('/p', 'a.py', known)\n"
        "editor.apply_block('/p', '/p/a.py', 'first', None, 'x = 1\\n')\n", encoding="utf-8")
    report = _run([sys.executable, "-m", "mypy", "--no-incremental", "--python-executable",
                   bin_dir / "python", script], scratch)
    errors = [line for line in report.stdout.splitlines() if ": error:" in line]
    assert len(errors) == 1 and re.match(r".*host_script\.py:5: error: .*apply_block", errors[0]), report.stdout


@pytest.mark.heavy
def test_installed_server_edits_a_project(installed, tmp_path):
    _, bin_dir, _ = installed
    project = tmp_path / "proj"
    shutil.copytree(ROOT / "demo" / "sample_project", project)
    state = tmp_path / "state"
    state.mkdir()

    async def scenario():
        with anyio.fail_after(4 * CALL_TIMEOUT), open(tmp_path / "stderr.txt", "w") as errlog:
            async with connect([str(bin_dir / "editor-mcp"), "--root", str(project)], state, errlog) as client:
                created = await client.call_tool("create", {"path": "notes/todo.py", "content": "TODO = 1\n"})
                edited = await client.call_tool("edit", {"path": "notes/todo.py", "start_line": 1,
                                                         "content": "TODO = 2\n"})
                return created, edited

    created, edited = anyio.run(scenario)
    assert not created.is_error and not edited.is_error, (created.content, edited.content)
    assert edited.structured_content["replaced"] == ["TODO = 1"]
    assert (project / "notes" / "todo.py").read_text() == "TODO = 2\n"
