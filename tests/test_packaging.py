import os
import shutil
import subprocess
import sys
import sysconfig
from pathlib import Path

import pytest

from mcp_client import ROOT


def run(*args, cwd=ROOT, check=False, timeout=120):
    env = {key: value for key, value in os.environ.items() if key not in ("PYTHONPATH", "EDITOR_BUILD")}
    return subprocess.run([str(arg) for arg in args], cwd=cwd, capture_output=True, text=True, timeout=timeout,
                          env=env, check=check)


def test_product_python_is_type_clean():
    # The environment is kept: on the debug interpreter, mypy itself is found through PYTHONPATH.
    subprocess.run([sys.executable, "-m", "mypy", "--config-file", str(ROOT / "pyproject.toml")], cwd=ROOT, check=True,
                   timeout=120)


@pytest.mark.heavy
def test_the_installed_wheel_works_away_from_the_checkout(tmp_path, monkeypatch):
    # The machine file the bootstrap wrote names this interpreter's headers to meson.
    run(sys.executable, "-m", "pip", "wheel", ROOT, "--no-deps", "--no-build-isolation", "-q", "-w", tmp_path,
        f"--config-settings=setup-args=--native-file={ROOT / 'native.ini'}", check=True, timeout=900)
    run(sys.executable, "-m", "venv", "--without-pip", tmp_path / "env", check=True)
    python = tmp_path / "env" / "bin" / "python"
    run(sys.executable, "-m", "pip", "--python", python, "install", "-q", "--no-deps", "--no-index",
        *tmp_path.glob("editor-*.whl"), check=True, timeout=300)
    # The dependencies (and nothing of the checkout) come from the shared environment, after the
    # environment's own site-packages on the path.
    site = run(python, "-c", "import sysconfig; print(sysconfig.get_path('purelib'))").stdout.strip()
    Path(site, "shared_dependencies.pth").write_text(os.path.realpath(sysconfig.get_path("purelib")))
    probe = run(python, "-c", "import editor, editor_session.server, projstore, srcatlas;"
                "print(editor.__file__); print(editor_session.server.__file__)", cwd=tmp_path)
    assert probe.returncode == 0 and all(Path(line).is_relative_to(tmp_path / "env") for line in probe.stdout.splitlines())
    assert "--root" in run(python.parent / "editor-mcp", "--help", cwd=tmp_path, check=True).stdout

    # The stub, for type checkers of the host, installed as a stub-only package.
    assert Path(site, "editor-stubs", "__init__.pyi").read_text() == (ROOT / "editor.pyi").read_text()

    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    project = shutil.copytree(ROOT / "demo" / "sample_project", tmp_path / "proj")
    edit = run(python.parent / "editor-session", "--root", project, "edit", "inventory/models.py", "--start", "3",
               "--content", "MAX_ITEMS = 7\n", cwd=tmp_path)
    assert edit.returncode == 0 and "MAX_ITEMS = 500" in edit.stdout, edit.stderr  # the replaced line, echoed
