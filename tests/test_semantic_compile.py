import os
import signal
import subprocess
import tempfile
import types

import pytest

import editor
from semantic_helpers import repository, scratch_dirs, script, write


@pytest.fixture
def scratch(tmp_path, monkeypatch):
    """The temporary directory javac's class output goes to, watched for leftovers."""
    directory = tmp_path / "tmp"
    directory.mkdir()
    monkeypatch.setattr(tempfile, "tempdir", str(directory))
    return directory


def compile_real(lang, path):
    cfg = editor._COMPILER_LANGS[lang]
    exe = editor._find_exe(cfg["exe"])
    return editor._compile_errors(exe, lang, cfg, str(path), cfg["context"](str(path)))


def compile_fake(exe, lang, path, cwd, args=()):
    return editor._compile_errors(str(exe), lang, editor._COMPILER_LANGS[lang], str(path), (list(args), str(cwd)))


def test_undeclared_identifier_in_c(tmp_path):
    source = write(
        repository(tmp_path) / "src" / "calc.c",
        """\
        #include <stdio.h>

        int helper(int x)
        {
            int y = x * 2;
            printf("%d\\n", y);
            return y + missing_value;
        }
        """,
    )
    [(message, line)] = compile_real("c", source)
    assert line == 7 and "missing_value" in message and "undeclared" in message
    assert message == message.strip() and not message.startswith("error")


def test_missing_header_and_errors_inside_headers(tmp_path):
    root = repository(tmp_path)
    write(root / "include" / "bad.h", "int a;\n\nint b = undefined_q;\n")
    broken = write(root / "src" / "uses_bad.c", '#include "bad.h"\n')
    missing = write(root / "src" / "uses_missing.c", '\n#include "missing.h"\n')
    # The header's own line counts; the file name before it plays no part.
    [(message, line)] = compile_real("c", broken)
    assert line == 3 and "undefined_q" in message
    [(message, line)] = compile_real("c", missing)
    assert line == 2 and message.startswith("missing.h: No such file or directory")


def test_repeated_error_lines_are_all_kept(tmp_path):
    source = write(tmp_path / "twice.c", "int f(void) { return zz; }\nint g(void) { return zz; }\n")
    errors = compile_real("c", source)
    assert [line for _, line in errors] == [1, 2]
    assert errors[0][0] == errors[1][0]


def test_cpp_error_and_clean_file(tmp_path):
    root = repository(tmp_path)
    write(root / "include" / "shapes.hpp", "struct Square { int side; };\n")
    clean = write(root / "src" / "ok.cpp", '#include "shapes.hpp"\nint area(Square s) { return s.side * s.side; }\n')
    broken = write(root / "src" / "bad.cpp", '#include "shapes.hpp"\nint area(Square s) { return s.width; }\n')
    assert compile_real("cpp", clean) == []
    [(message, line)] = compile_real("cpp", broken)
    assert line == 2 and "width" in message


def test_javac_error_and_missing_input(tmp_path, scratch):
    source = write(tmp_path / "A.java", "class A {\n  int f() { return q; }\n}\n")
    assert compile_real("java", source) == [("cannot find symbol", 2)]
    # javac names no line for a missing input file: nothing to read, so not evaluated.
    ctx = (["-sourcepath", str(tmp_path)], str(tmp_path))
    cfg = editor._COMPILER_LANGS["java"]
    assert editor._compile_errors(editor._find_exe(("javac",)), "java", cfg, str(tmp_path / "Nope.java"), ctx) is None
    assert scratch_dirs(scratch) == []


RECORDER = """\
log="{log}"
pwd > "$log"
for arg in "$0" "$@"; do printf '%s\\n' "$arg" >> "$log"; done
[ "$3" = -d ] && [ -d "$4" ] && echo "outdir exists" >> "$log"
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
    workdir = tmp_path / "work"
    workdir.mkdir()
    source = tmp_path / "x"
    assert compile_fake(exe, lang, source, workdir, ["-I", "/some dir", "-x"]) == []
    recorded = log.read_text().splitlines()
    assert recorded[0] == str(workdir)
    argv = recorded[1:]
    if lang == "java":
        assert argv[-1] == "outdir exists"
        outdir = argv[4]
        assert os.path.dirname(outdir) == str(scratch) and os.path.basename(outdir).startswith("orvel_jc_")
        argv = argv[:4] + argv[5:-1]
    assert argv == [str(exe), *fixed, "-I", "/some dir", "-x", str(source)]
    assert scratch_dirs(scratch) == []


@pytest.mark.parametrize(
    "body, expected",
    [
        # Exit status 0 means clean, whatever was printed.
        ("echo 'f.c:1:1: error: looks bad' >&2\nexit 0\n", []),
        # Standard error is read first, then standard output.
        ("echo 'f.c:1:1: error: from stdout'\necho 'f.c:2:5: fatal error: from stderr' >&2\nexit 1\n",
         [("from stderr", 2), ("from stdout", 1)]),
        ("printf 'f.c:3:1: error:   bad \\377 byte  \\n' >&2\nexit 1\n", [("bad \ufffd byte", 3)]),
        ("echo 'f.c:3:1: warning: only a warning' >&2\necho 'f.c: note: a note' >&2\nexit 1\n", None),
        ("echo 'internal compiler error' >&2\nexit 4\n", None),
        ("kill -SEGV $$\n", None),
    ],
)
def test_exit_status_and_output_formats(tmp_path, body, expected):
    exe = script(tmp_path / "bin", "cc", body)
    assert compile_fake(exe, "c", tmp_path / "f.c", tmp_path) == expected


def test_unrunnable_compilers_are_not_evaluated(tmp_path):
    plain = tmp_path / "plain"
    plain.write_text("#!/bin/sh\nexit 1\n")
    runnable = script(tmp_path / "bin", "cc", "exit 1\n")
    assert compile_fake(plain, "c", tmp_path / "f.c", tmp_path) is None
    assert compile_fake(tmp_path / "absent", "c", tmp_path / "f.c", tmp_path) is None
    assert compile_fake(runnable, "c", tmp_path / "f.c", tmp_path / "no-such-dir") is None


def capped_subprocess(seconds, requested):
    """The host's subprocess module with run()'s time limit cut to `seconds`, noting the asked one."""

    def run(*args, **kwargs):
        requested.append(kwargs["timeout"])
        return subprocess.run(*args, **{**kwargs, "timeout": seconds})

    return types.SimpleNamespace(run=run, SubprocessError=subprocess.SubprocessError)


@pytest.mark.parametrize("lang", ["c", "java"])
def test_time_limit_kills_the_compiler(tmp_path, scratch, monkeypatch, lang):
    pid_file = tmp_path / "pid"
    exe = script(tmp_path / "bin", "slow", f'echo $$ > "{pid_file}"\nexec sleep 30\n')
    requested = []
    monkeypatch.setattr(editor, "subprocess", capped_subprocess(0.5, requested))
    assert compile_fake(exe, lang, tmp_path / "f", tmp_path) is None
    assert requested == [60]
    with pytest.raises(ProcessLookupError):
        os.kill(int(pid_file.read_text()), 0)
    assert scratch_dirs(scratch) == []


def test_unexpected_run_failure_propagates_after_cleanup(tmp_path, scratch):
    exe = script(tmp_path / "bin", "javac", "exit 0\n")
    with pytest.raises(ValueError):
        compile_fake(exe, "java", tmp_path / "A.java", f"{tmp_path}\0bad")
    assert scratch_dirs(scratch) == []


def test_scratch_directory_failure_propagates_without_a_run(tmp_path, monkeypatch):
    log = tmp_path / "ran"
    exe = script(tmp_path / "bin", "javac", f'touch "{log}"\n')
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path / "gone"))
    with pytest.raises(FileNotFoundError):
        compile_fake(exe, "java", tmp_path / "A.java", tmp_path)
    assert not log.exists()


def test_bad_build_context_is_an_error(tmp_path):
    exe = script(tmp_path / "bin", "cc", "exit 0\n")
    cfg = editor._COMPILER_LANGS["c"]
    with pytest.raises(ValueError, match="not enough values to unpack"):
        editor._compile_errors(str(exe), "c", cfg, "f.c", ([],))
    with pytest.raises(TypeError, match="cannot unpack non-iterable NoneType"):
        editor._compile_errors(str(exe), "c", cfg, "f.c", None)
