import re
import shutil

import pytest

import editor
from helpers import repository, script, write


@pytest.fixture
def project(tmp_path):
    return repository(tmp_path / "proj")


def test_compiled_errors_count_by_message_not_by_line(project, tmp_path, monkeypatch):
    gcc = shutil.which("gcc")  # a run-counting `cc` first on the search path
    script(tmp_path / "bin", "cc", f'echo run >> "{tmp_path / 'cc.log'}"\nexec "{gcc}" "$@"\n')
    monkeypatch.setenv("PATH", f"{tmp_path / 'bin'}:{gcc.rsplit('/', 1)[0]}")
    write(project / "include" / "util.h", "int scale(int x, int by);\n")
    write(project / "include" / "bad.h", "int a;\n\nint b = undefined_q;\n")
    cases = {  # name: (before, after, runs of cc)
        "twice.c": ('#include "util.h"\nint twice(int x) { return scale(x, 2); }\n',
                    '#include "util.h"\n\nint twice(int x) { return scale(x, factor); }\n', 2),
        # A header that is missing before and after is stable noise.
        "gone.c": ('#include "gone.h"\nint a;\n', '#include "gone.h"\nint a;\nint b;\n', 2),
        # Moving an existing error to another line adds nothing; nor does the same text.
        "moved.c": ("int f(void) { return q; }\n", "\n\nint f(void) { return q; }\n", 2),
        "same.c": ("int broken = nowhere;\n", "int broken = nowhere;\n", 2),
        # One occurrence before, two now: the second one is named, with its own line.
        "zz.c": ("int f(void) { return zz; }\n", "int f(void) { return zz; }\nint g(void) { return zz; }\n", 2),
        # Inside a header its own line counts; a missing header is a (fatal) error too.
        "uses_bad.c": ("int a;\n", '#include "bad.h"\n', 2),
        "uses_missing.c": ("int a;\n", '\n#include "missing.h"\n', 2),
        "fixed.c": ("int broken = nowhere;\n", "int ok;\n", 1),  # a clean file costs one run
        "m.cpp": ("int f() { return 0; }\n", "int f() { return undeclared_cpp; }\n", 0),
        # Created, no build context, deleted, or no analyser: no run at all.
        "made.c": (None, "int broken = nowhere;\n", 0),
        "types.h": ("int ok;\n", "int broken = nowhere;\n", 0),
        "deleted.c": ("int ok;\n", None, 0),
        "web.ts": ("let x = 1;\n", "let x = y;\n", 0),
        # Python findings come from pyflakes, in touched order; a name may hold either separator.
        "app.py": ("def run():\n    return 1\n", "def run():\n    x = 1\n    return helper(x)\n", 0),
        "legacy.py": ("x = legacy_name\n", "\n\nx = legacy_name\n", 0),
        "sub\\tool.py": ("", "print(undefined_thing)\n", 0),
    }
    paths = {name: project / "src" / name for name in cases}
    for name, (_, after, _) in cases.items():
        if after is not None:
            write(paths[name], after)
    result = editor.commit_time_check({str(paths[name]): before for name, (before, _, _) in cases.items()})
    expected = [r"twice\.c: c error: \S*factor\S* undeclared .*\(line 3\)",
                r"zz\.c: c error: \S*zz\S* undeclared \(first use in this function\) \(line 2\)",
                r"uses_bad\.c: c error: \S*undefined_q\S* undeclared here .*\(line 3\)",
                r"uses_missing\.c: c error: missing\.h: No such file or directory \(line 2\)",
                r"m\.cpp: c\+\+ error: \S*undeclared_cpp\S* was not declared in this scope \(line 1\)",
                r"app\.py: python error: undefined name 'helper' \(line 3\)",
                r"tool\.py: python error: undefined name 'undefined_thing' \(line 1\)"]
    assert len(result) == len(expected) and all(map(re.fullmatch, expected, result)), result
    assert len((tmp_path / "cc.log").read_text().splitlines()) == sum(runs for _, _, runs in cases.values())
    assert {name: path.read_text() for name, path in paths.items() if path.exists()} == {
        name: after for name, (_, after, _) in cases.items() if after is not None}
    assert editor.commit_time_check({}) == []


def test_java_in_a_maven_layout(project, tmp_path, monkeypatch):
    monkeypatch.setattr("tempfile.tempdir", str(tmp_path))
    (project / "target" / "classes").mkdir(parents=True)  # the class path's exact make-up: test_semantic_context
    java = project / "src" / "main" / "java" / "com" / "acme"
    write(java / "util" / "Strings.java", "package com.acme.util;\n\npublic class Strings {\n"
          "    public static String shout(String s) { return s.toUpperCase(); }\n}\n")
    before = ("package com.acme.app;\n\nimport com.acme.util.Strings;\n\n"
              "class Main {\n    String greet() { return Strings.shout(\"hi\"); }\n}\n")
    main = write(java / "app" / "Main.java", before.replace("shout", "whisper"))
    assert editor.commit_time_check({str(main): before}) == ["Main.java: java error: cannot find symbol (line 6)"]
    assert not list(tmp_path.glob("orvel_jc_*"))


def test_current_text_comes_back_in_text_mode_or_untouched_when_a_text_cannot_be_handled(project):
    path = project / "crlf.py"
    path.write_bytes(b"print(ghost)\r\nx = 1\r\n")
    assert editor.commit_time_check({str(path): "x = 1\n"}) == ["crlf.py: python error: undefined name 'ghost' (line 1)"]
    assert path.read_bytes() == b"print(ghost)\nx = 1\n"
    with pytest.raises(UnicodeEncodeError):
        editor.commit_time_check({str(path): "lone \ud800 surrogate\n"})
    assert path.read_bytes() == b"print(ghost)\nx = 1\n"
    latin = project / "src" / "latin.c"  # compiles with an error, then cannot be read as text
    latin.write_bytes(b"char *s = \"\xe9\"; int x = y;\n")
    with pytest.raises(UnicodeDecodeError):
        editor.commit_time_check({str(latin): "int x;\n"})
    assert latin.read_bytes() == b"char *s = \"\xe9\"; int x = y;\n"


def test_restore_runs_when_the_analyser_raises_on_the_earlier_text(project, monkeypatch):
    source = write(project / "src" / "m.c", "int a = nowhere;\n")
    real, seen = editor._compile_errors, []

    def failing_second_run(*args):
        seen.append(source.read_text())
        if len(seen) == 2:
            raise RuntimeError("analyser broke")
        return real(*args)

    monkeypatch.setattr(editor, "_compile_errors", failing_second_run)
    with pytest.raises(RuntimeError, match="analyser broke"):
        editor.commit_time_check({str(source): "int a;\n"})
    assert seen == ["int a = nowhere;\n", "int a;\n"] and source.read_text() == "int a = nowhere;\n"
    monkeypatch.setenv("PATH", str(project / "empty"))  # no compiler on the path: no analyser
    assert editor._semantic_errfn(str(source), "c") is None
