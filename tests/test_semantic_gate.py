import re
import shutil
import zipfile

import pytest

import editor
from semantic_helpers import logging_wrapper, repository, runs, write


@pytest.fixture
def project(tmp_path):
    return repository(tmp_path / "proj")


@pytest.fixture
def cc_log(tmp_path, monkeypatch):
    """Puts a run-counting `cc` (the real gcc underneath) first on the search path."""
    log = tmp_path / "cc.log"
    logging_wrapper(tmp_path / "bin", "cc", shutil.which("gcc"), log)
    monkeypatch.setenv("PATH", f"{tmp_path / 'bin'}:{shutil.which('gcc').rsplit('/', 1)[0]}")
    return log


def edit(path, text):
    """Writes the session's final text over `path`; returns the text at first touch."""
    before = path.read_text(encoding="utf-8")
    write(path, text)
    return before


def test_introduced_c_error_is_reported(project, cc_log):
    write(project / "include" / "util.h", "int scale(int x, int by);\n")
    calc = write(project / "src" / "calc.c", '#include "util.h"\n\nint twice(int x)\n{\n    return scale(x, 2);\n}\n')
    before = edit(calc, '#include "util.h"\n\nint twice(int x)\n{\n    return scale(x, factor);\n}\n')
    [entry] = editor.commit_time_check({str(calc): before})
    assert re.fullmatch(r"calc\.c: c error: \S*factor\S* undeclared .*\(line 5\)", entry)
    assert runs(cc_log) == 2


@pytest.mark.parametrize(
    "before, after, expected",
    [
        # A header that is missing before and after is stable noise.
        ('#include "gone.h"\nint a;\n', '#include "gone.h"\nint a;\nint b;\n', None),
        # Moving an existing error to another line adds nothing.
        ("int f(void) { return q; }\n", "\n\nint f(void) { return q; }\n", None),
        # One occurrence before, two now: the second one is named, with its own line.
        ("int f(void) { return zz; }\n", "int f(void) { return zz; }\nint g(void) { return zz; }\n",
         r"m\.c: c error: \S*zz\S* undeclared \(first use in this function\) \(line 2\)"),
    ],
)
def test_errors_count_by_message_not_by_line(project, cc_log, before, after, expected):
    source = write(project / "src" / "m.c", after)
    result = editor.commit_time_check({str(source): before})
    if expected is None:
        assert result == []
    else:
        [entry] = result
        assert re.fullmatch(expected, entry)
    assert runs(cc_log) == 2
    assert source.read_text() == after


def test_cpp_file_finds_its_headers(project):
    write(project / "include" / "shape.hpp", "struct Shape { int sides; };\n")
    source = write(project / "src" / "shape.cpp", '#include "shape.hpp"\nint n(Shape s) { return s.sides; }\n')
    before = edit(source, '#include "shape.hpp"\nint n(Shape s) { return s.corners; }\n')
    [entry] = editor.commit_time_check({str(source): before})
    assert entry.startswith("shape.cpp: c++ error: ") and "corners" in entry and entry.endswith("(line 2)")


def test_python_findings_in_touched_order(project):
    first = write(project / "app.py", "def run():\n    return 1\n")
    moved = write(project / "lib" / "legacy.py", "x = legacy_name\n")
    last = write(project / "tool.py", "import os\n")
    touched = {
        str(first): edit(first, "def run():\n    x = 1\n    return helper(x)\n"),
        str(moved): edit(moved, "\n\nx = legacy_name\n"),
        str(last): edit(last, "import os\nprint(os.sep, undefined_thing)\n"),
    }
    assert editor.commit_time_check(touched) == [
        "app.py: python error: undefined name 'helper' (line 3)",
        "tool.py: python error: undefined name 'undefined_thing' (line 2)",
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
    main = write(java / "app" / "Main.java", "package com.acme.app;\n\nimport com.acme.util.Strings;\n\n"
                 "class Main {\n    String greet() { return Strings.shout(\"hi\"); }\n}\n")
    before = edit(main, main.read_text().replace("Strings.shout(\"hi\")", "Strings.whisper(\"hi\")"))
    assert editor.commit_time_check({str(main): before}) == ["Main.java: java error: cannot find symbol (line 6)"]
    assert not list(tmp_path.glob("orvel_jc_*"))


@pytest.mark.parametrize(
    "name, before",
    [
        ("made.c", None),  # created in the session: no baseline
        ("types.h", "int ok;\n"),  # headers are not compiled alone
        ("gone.c", "int ok;\n"),  # deleted since
        ("web.ts", "let x = 1;\n"),  # no analyser
    ],
)
def test_files_without_a_baseline_or_analyser_cost_nothing(project, cc_log, name, before):
    path = project / "src" / name
    if name != "gone.c":
        write(path, "int broken = nowhere;\n")
    assert editor.commit_time_check({str(path): before}) == []
    assert runs(cc_log) == 0


def test_unchanged_file_with_errors_runs_twice_and_passes(project, cc_log):
    source = write(project / "src" / "old.c", "int broken = nowhere;\n")
    assert editor.commit_time_check({str(source): source.read_text()}) == []
    assert runs(cc_log) == 2


def test_display_name_is_the_last_component_of_either_separator(tmp_path):
    path = write(tmp_path / "sub\\app.py", "print(ghost)\n")
    assert editor.commit_time_check({str(path): ""}) == ["app.py: python error: undefined name 'ghost' (line 1)"]


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
    real = editor._compile_errors
    seen = []

    def failing_second_run(*args):
        seen.append(source.read_text())
        if len(seen) == 2:
            raise RuntimeError("analyser broke")
        return real(*args)

    monkeypatch.setattr(editor, "_compile_errors", failing_second_run)
    with pytest.raises(RuntimeError, match="analyser broke"):
        editor.commit_time_check({str(source): "int a;\n"})
    assert seen == ["int a = nowhere;\n", "int a;\n"]
    assert source.read_text() == "int a = nowhere;\n"


def test_java_file_that_is_not_utf8_propagates_untouched(project):
    path = project / "Latin.java"
    content = b"class Latin { String s = \"\xe9\"; int x = y; }\n"
    path.write_bytes(content)
    with pytest.raises(UnicodeDecodeError):
        editor.commit_time_check({str(path): "class Latin {}\n"})
    assert path.read_bytes() == content


def test_analyser_choice(project, monkeypatch):
    source = write(project / "src" / "a.c", "int a;\n")
    label, errfn = editor._semantic_errfn(str(source), "c")
    assert label == "c" and errfn(str(source)) == []
    assert editor._semantic_errfn(str(source), "python") == ("python", editor._pyflakes_errors)
    assert editor._semantic_errfn(str(project / "src" / "a.h"), "c") is None
    assert editor._semantic_errfn(str(source), "rust") is None
    assert editor._semantic_delta_check(str(source), "c", None) is None
    monkeypatch.setenv("PATH", str(project / "empty"))
    assert editor._semantic_errfn(str(source), "c") is None
