import re
import shutil
import zipfile

import pytest

import editor
from helpers import repository, script, write


@pytest.fixture
def project(tmp_path):
    return repository(tmp_path / "proj")


@pytest.fixture
def cc_log(tmp_path, monkeypatch):
    """Puts a run-counting `cc` (the real gcc underneath) first on the search path."""
    gcc = shutil.which("gcc")
    script(tmp_path / "bin", "cc", f'echo run >> "{tmp_path / 'cc.log'}"\nexec "{gcc}" "$@"\n')
    monkeypatch.setenv("PATH", f"{tmp_path / 'bin'}:{gcc.rsplit('/', 1)[0]}")
    return tmp_path / "cc.log"


def runs(log):
    return len(log.read_text().splitlines()) if log.exists() else 0


@pytest.mark.parametrize(
    "before, after, expected",
    [
        ('#include "util.h"\nint twice(int x) { return scale(x, 2); }\n',
         '#include "util.h"\n\nint twice(int x) { return scale(x, factor); }\n',
         r"m\.c: c error: \S*factor\S* undeclared .*\(line 3\)"),
        # A header that is missing before and after is stable noise.
        ('#include "gone.h"\nint a;\n', '#include "gone.h"\nint a;\nint b;\n', None),
        # Moving an existing error to another line adds nothing.
        ("int f(void) { return q; }\n", "\n\nint f(void) { return q; }\n", None),
        # The same text with its errors passes too, after two runs.
        ("int broken = nowhere;\n", "int broken = nowhere;\n", None),
        # One occurrence before, two now: the second one is named, with its own line.
        ("int f(void) { return zz; }\n", "int f(void) { return zz; }\nint g(void) { return zz; }\n",
         r"m\.c: c error: \S*zz\S* undeclared \(first use in this function\) \(line 2\)"),
    ],
)
def test_c_errors_count_by_message_not_by_line(project, cc_log, before, after, expected):
    write(project / "include" / "util.h", "int scale(int x, int by);\n")
    source = write(project / "src" / "m.c", after)
    result = editor.commit_time_check({str(source): before})
    assert len(result) == (expected is not None) and all(re.fullmatch(expected, entry) for entry in result)
    assert runs(cc_log) == 2 and source.read_text() == after


def test_python_findings_in_touched_order(project, tmp_path):
    touched = {
        str(write(project / "app.py", "def run():\n    x = 1\n    return helper(x)\n")): "def run():\n    return 1\n",
        str(write(project / "legacy.py", "\n\nx = legacy_name\n")): "x = legacy_name\n",
        str(write(tmp_path / "sub\\tool.py", "print(undefined_thing)\n")): "",  # either separator
    }
    assert editor.commit_time_check(touched) == [
        "app.py: python error: undefined name 'helper' (line 3)",
        "tool.py: python error: undefined name 'undefined_thing' (line 1)",
    ]
    assert editor.commit_time_check({}) == []


def test_java_in_a_maven_layout(project, tmp_path, monkeypatch):
    monkeypatch.setattr("tempfile.tempdir", str(tmp_path))
    (project / "target" / "classes").mkdir(parents=True)
    (project / "target" / "dependency").mkdir()
    with zipfile.ZipFile(project / "target" / "dependency" / "dep.jar", "w") as jar:
        jar.writestr("META-INF/MANIFEST.MF", "Manifest-Version: 1.0\n")
    java = project / "src" / "main" / "java" / "com" / "acme"
    write(java / "util" / "Strings.java", "package com.acme.util;\n\npublic class Strings {\n"
          "    public static String shout(String s) { return s.toUpperCase(); }\n}\n")
    before = ("package com.acme.app;\n\nimport com.acme.util.Strings;\n\n"
              "class Main {\n    String greet() { return Strings.shout(\"hi\"); }\n}\n")
    main = write(java / "app" / "Main.java", before.replace("shout", "whisper"))
    assert editor.commit_time_check({str(main): before}) == ["Main.java: java error: cannot find symbol (line 6)"]
    assert not list(tmp_path.glob("orvel_jc_*"))


@pytest.mark.parametrize(
    "name, before",
    [("made.c", None), ("types.h", "int ok;\n"), ("gone.c", "int ok;\n"), ("web.ts", "let x = 1;\n")],
    ids=["created", "header", "deleted", "no-analyser"],
)
def test_files_without_a_baseline_or_analyser_cost_nothing(project, cc_log, name, before):
    path = project / "src" / name
    if name != "gone.c":
        write(path, "int broken = nowhere;\n")
    assert editor.commit_time_check({str(path): before}) == []
    assert runs(cc_log) == 0


def test_current_text_comes_back_in_text_mode(tmp_path):
    path = tmp_path / "crlf.py"
    path.write_bytes(b"print(ghost)\r\nx = 1\r\n")
    assert editor.commit_time_check({str(path): "x = 1\n"}) == ["crlf.py: python error: undefined name 'ghost' (line 1)"]
    assert path.read_bytes() == b"print(ghost)\nx = 1\n"


def test_restore_runs_when_the_earlier_text_cannot_be_written(tmp_path):
    path = write(tmp_path / "m.py", "print(ghost)\n")
    with pytest.raises(UnicodeEncodeError):
        editor.commit_time_check({str(path): "lone \ud800 surrogate\n"})
    assert path.read_text() == "print(ghost)\n"


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


def test_java_file_that_is_not_utf8_propagates_untouched(project):
    content = b"class Latin { String s = \"\xe9\"; int x = y; }\n"
    (project / "Latin.java").write_bytes(content)
    with pytest.raises(UnicodeDecodeError):
        editor.commit_time_check({str(project / "Latin.java"): "class Latin {}\n"})
    assert (project / "Latin.java").read_bytes() == content


def test_analyser_choice(project, monkeypatch):
    source = write(project / "src" / "a.c", "int a;\n")
    label, errfn = editor._semantic_errfn(str(source), "c")
    assert label == "c" and errfn(str(source)) == []
    assert editor._semantic_errfn(str(source), "python") == ("python", editor._pyflakes_errors)
    assert editor._semantic_errfn(str(source), "rust") is None
    monkeypatch.setenv("PATH", str(project / "empty"))
    assert editor._semantic_errfn(str(source), "c") is None
