import os
import subprocess
import tempfile
import types

import pytest

import editor
from helpers import script


@pytest.fixture
def scratch(tmp_path, monkeypatch):
    # The temporary directory javac's class output goes to, watched for leftovers.
    (directory := tmp_path / "tmp").mkdir()
    monkeypatch.setattr(tempfile, "tempdir", str(directory))
    yield directory
    assert not os.listdir(directory)


def compile_fake(exe, lang, path, cwd, args=()):
    return editor._compile_errors(str(exe), lang, editor._COMPILER_LANGS[lang], str(path), (list(args), str(cwd)))


# Logs the working directory, the argv, and where javac's output directory is while it runs.
RECORDER = 'pwd > "{log}"\nprintf "%s\\n" "$0" "$@" >> "{log}"\n' \
    '[ "$3" = -d ] && [ -d "$4" ] && dirname "$4" >> "{log}"\nexit 0\n'


@pytest.mark.parametrize("lang, fixed", [
    ("c", ["-fsyntax-only", "-std=gnu11", "-w", "-fno-diagnostics-color"]),
    ("cpp", ["-fsyntax-only", "-std=gnu++17", "-w", "-fno-diagnostics-color"]), ("java", ["-proc:none", "-nowarn", "-d"])])
def test_command_line_and_working_directory(tmp_path, scratch, lang, fixed):
    exe = script(tmp_path / "bin", "compiler", RECORDER.format(log=tmp_path / "argv.log"))
    assert compile_fake(exe, lang, tmp_path / "x", tmp_path / "bin", ["-I", "/some dir"]) == []
    logged = (tmp_path / "argv.log").read_text().splitlines()
    outdir = logged[5:6] if lang == "java" else []
    assert logged == [str(tmp_path / "bin"), str(exe), *fixed, *outdir, "-I", "/some dir", str(tmp_path / "x"),
                      *[str(scratch)] * len(outdir)]


@pytest.mark.parametrize("body, expected", [
        ("echo 'f.c:1:1: error: looks bad' >&2\nexit 0\n", []),  # exit status 0 means clean
        ("echo 'f.c:1:1: error: out'\necho 'f.c:2:5: fatal error: err' >&2\necho 'f.c:2:5: error: err' >&2\nexit 1\n",
         [("err", 2), ("err", 2), ("out", 1)]),  # standard error first, repeats kept
        ("printf 'f.c:3:1: error:   bad \\377 byte  \\n' >&2\nexit 1\n", [("bad \ufffd byte", 3)]),
        ("echo 'f.c:3:1: warning: w' >&2\necho 'f.c: note: n' >&2\nexit 1\n", None), ("kill -SEGV $$\n", None),
        # Not evaluated: not executable, absent, or the working directory is gone.
        ("plain", None), ("absent", None), ("no-such-dir", None)])
def test_exit_status_output_formats_and_unrunnable_compilers(tmp_path, body, expected):
    exe = script(tmp_path / "bin", "cc", "exit 1\n" if body == "no-such-dir" else body)
    if body in ("plain", "absent"):
        exe.chmod(0o644) if body == "plain" else exe.unlink()
    cwd = tmp_path / body if body == "no-such-dir" else tmp_path
    assert compile_fake(exe, "c", tmp_path / "f.c", cwd) == expected


def test_time_limit_kills_the_compiler_and_other_failures_propagate_after_cleanup(tmp_path, scratch, monkeypatch):
    requested = []

    def run(*args, **kwargs):  # the host's own run, with the limit cut short so the suite stays quick
        requested.append(kwargs["timeout"])
        return subprocess.run(*args, **{**kwargs, "timeout": 0.5})

    monkeypatch.setattr(editor, "subprocess", types.SimpleNamespace(run=run, SubprocessError=subprocess.SubprocessError))
    pid_file = tmp_path / "pid"
    exe = script(tmp_path / "bin", "slow", f'echo $$ > "{pid_file}"\nexec sleep 30\n')
    assert compile_fake(exe, "java", tmp_path / "f", tmp_path) is None and requested == [60]
    with pytest.raises(ProcessLookupError):
        os.kill(int(pid_file.read_text()), 0)
    # Other failures propagate, after the output directory is removed, without running the compiler.
    log = tmp_path / "ran"
    exe = script(tmp_path / "bin", "javac", f'touch "{log}"\n')
    with pytest.raises(ValueError):  # a NUL in the working directory is no OSError
        compile_fake(exe, "java", tmp_path / "A.java", f"{tmp_path}\0bad")
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path / "gone"))
    with pytest.raises(FileNotFoundError):
        compile_fake(exe, "java", tmp_path / "A.java", tmp_path)
    assert not log.exists()
