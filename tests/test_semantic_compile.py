import os
import subprocess
import tempfile
import types

import pytest

import editor
from helpers import repository, script, write


@pytest.fixture
def scratch(tmp_path, monkeypatch):
    """The temporary directory javac's class output goes to, watched for leftovers."""
    directory = tmp_path / "tmp"
    directory.mkdir()
    monkeypatch.setattr(tempfile, "tempdir", str(directory))
    return directory


def scratch_dirs(directory):
    return sorted(name for name in os.listdir(directory) if name.startswith("orvel_jc_"))


def compile_real(lang, path):
    cfg = editor._COMPILER_LANGS[lang]
    return editor._compile_errors(editor._find_exe(cfg["exe"]), lang, cfg, str(path), cfg["context"](str(path)))


def compile_fake(exe, lang, path, cwd, args=()):
    return editor._compile_errors(str(exe), lang, editor._COMPILER_LANGS[lang], str(path), (list(args), str(cwd)))


def test_real_gcc_errors(tmp_path):
    root = repository(tmp_path)
    write(root / "include" / "bad.h", "int a;\n\nint b = undefined_q;\n")
    calc = write(root / "src" / "calc.c", '#include <stdio.h>\n\nint helper(int x)\n{\n    int y = x * 2;\n'
                 '    printf("%d\\n", y);\n    return y + missing_value;\n}\n')
    [(message, line)] = compile_real("c", calc)  # the note lines after it are not errors
    assert line == 7 and "missing_value" in message and "undeclared" in message and message == message.strip()
    # Inside a header its own line counts; the file name in front plays no part.
    [(message, line)] = compile_real("c", write(root / "src" / "uses_bad.c", '#include "bad.h"\n'))
    assert line == 3 and "undefined_q" in message
    [(message, line)] = compile_real("c", write(root / "src" / "uses_missing.c", '\n#include "missing.h"\n'))
    assert line == 2 and message.startswith("missing.h: No such file or directory")


def test_real_javac_errors(tmp_path, scratch):
    source = write(tmp_path / "A.java", "class A {\n  int f() { return q; }\n}\n")
    assert compile_real("java", source) == [("cannot find symbol", 2)]
    # javac names no line for a missing input file: not evaluated.
    assert compile_fake(editor._find_exe(("javac",)), "java", tmp_path / "Nope.java", tmp_path) is None
    assert scratch_dirs(scratch) == []


RECORDER = """\
pwd > "{log}"
for arg in "$0" "$@"; do printf '%s\\n' "$arg" >> "{log}"; done
[ "$3" = -d ] && [ -d "$4" ] && echo "outdir exists" >> "{log}"
exit 0
"""


@pytest.mark.parametrize(
    "lang, fixed",
    [
        ("c", ["-fsyntax-only", "-std=gnu11", "-w", "-fno-diagnostics-color"]),
        ("cpp", ["-fsyntax-only", "-std=gnu++17", "-w", "-fno-diagnostics-color"]),
        ("java", ["-proc:none", "-nowarn", "-d"]),
    ],
)
def test_command_line_and_working_directory(tmp_path, scratch, lang, fixed):
    log = tmp_path / "argv.log"
    exe = script(tmp_path / "bin", "compiler", RECORDER.format(log=log))
    (tmp_path / "work").mkdir()
    assert compile_fake(exe, lang, tmp_path / "x", tmp_path / "work", ["-I", "/some dir"]) == []
    cwd, *argv = log.read_text().splitlines()
    assert cwd == str(tmp_path / "work")
    if lang == "java":
        assert argv.pop() == "outdir exists"
        outdir = argv.pop(4)
        assert os.path.dirname(outdir) == str(scratch) and os.path.basename(outdir).startswith("orvel_jc_")
    assert argv == [str(exe), *fixed, "-I", "/some dir", str(tmp_path / "x")]
    assert scratch_dirs(scratch) == []


@pytest.mark.parametrize(
    "body, expected",
    [
        ("echo 'f.c:1:1: error: looks bad' >&2\nexit 0\n", []),  # exit status 0 means clean
        ("echo 'f.c:1:1: error: out'\necho 'f.c:2:5: fatal error: err' >&2\necho 'f.c:2:5: error: err' >&2\nexit 1\n",
         [("err", 2), ("err", 2), ("out", 1)]),  # standard error first, repeats kept
        ("printf 'f.c:3:1: error:   bad \\377 byte  \\n' >&2\nexit 1\n", [("bad \ufffd byte", 3)]),
        ("echo 'f.c:3:1: warning: w' >&2\necho 'f.c: note: n' >&2\nexit 1\n", None),
        ("kill -SEGV $$\n", None),
    ],
)
def test_exit_status_and_output_formats(tmp_path, body, expected):
    assert compile_fake(script(tmp_path / "bin", "cc", body), "c", tmp_path / "f.c", tmp_path) == expected


def test_unrunnable_compilers_are_not_evaluated(tmp_path):
    (tmp_path / "plain").write_text("#!/bin/sh\nexit 1\n")
    runnable = script(tmp_path / "bin", "cc", "exit 1\n")
    assert compile_fake(tmp_path / "plain", "c", tmp_path / "f.c", tmp_path) is None
    assert compile_fake(tmp_path / "absent", "c", tmp_path / "f.c", tmp_path) is None
    assert compile_fake(runnable, "c", tmp_path / "f.c", tmp_path / "no-such-dir") is None


@pytest.mark.parametrize("lang", ["c", "java"])
def test_time_limit_kills_the_compiler(tmp_path, scratch, monkeypatch, lang):
    requested = []

    def run(*args, **kwargs):  # the host's own run, with the limit cut short so the suite stays quick
        requested.append(kwargs["timeout"])
        return subprocess.run(*args, **{**kwargs, "timeout": 0.5})

    monkeypatch.setattr(editor, "subprocess", types.SimpleNamespace(run=run, SubprocessError=subprocess.SubprocessError))
    pid_file = tmp_path / "pid"
    exe = script(tmp_path / "bin", "slow", f'echo $$ > "{pid_file}"\nexec sleep 30\n')
    assert compile_fake(exe, lang, tmp_path / "f", tmp_path) is None
    assert requested == [60]
    with pytest.raises(ProcessLookupError):
        os.kill(int(pid_file.read_text()), 0)
    assert scratch_dirs(scratch) == []


def test_other_failures_propagate_after_cleanup(tmp_path, scratch, monkeypatch):
    log = tmp_path / "ran"
    exe = script(tmp_path / "bin", "javac", f'touch "{log}"\n')
    with pytest.raises(ValueError):  # a NUL in the working directory is no OSError
        compile_fake(exe, "java", tmp_path / "A.java", f"{tmp_path}\0bad")
    assert scratch_dirs(scratch) == []
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path / "gone"))
    with pytest.raises(FileNotFoundError):
        compile_fake(exe, "java", tmp_path / "A.java", tmp_path)
    assert not log.exists()
