import json
import threading
from pathlib import Path

import pytest

import editor
from editor_session import compile_db, gate
from helpers import repository, write



@pytest.fixture
def project(tmp_path):
    return repository(tmp_path / "proj")


def touch(root, files):
    # {rel: (earlier text or None, current text)} -> touched, in that order
    return {str(write(root / rel, now)): before for rel, (before, now) in files.items()}


def check(*args, **kwargs):
    # On a thread of its own: a lock that never opens fails the test, not the run.
    outcome = []
    worker = threading.Thread(target=lambda: outcome.append(gate.check(*args, **kwargs)), daemon=True)
    worker.start()
    worker.join(180)
    assert outcome, "the check raised or did not finish in time"
    return outcome[0]


def bytes_of(paths):
    return {p: Path(p).read_bytes() for p in paths}


@pytest.mark.parametrize("rel, text, expected", [
    ("pkg/slug.py", "def title(t):\n    return slugify(t)\n",
     {"line": 2, "analyser": "python", "message": "undefined name 'slugify'"}),
    ("src/Greeter.java", "class Greeter {\n    String name() {\n        return 42;\n    }\n}\n",
     {"line": 3, "analyser": "java", "message": "incompatible types: int cannot be converted to String"}),
    # A thousand chained terms: beyond the default recursion limit pyflakes gives up silently.
    ("deep.py", "a = 1\nx = (" + " + ".join(["a"] * 1000) + " + missing)\n",
     {"line": 2, "analyser": "python", "message": "undefined name 'missing'"}),
])
def test_created_files_count_every_error(project, rel, text, expected):
    touched = touch(project, {rel: (None, text)})
    result = check(str(project), touched, set(touched))
    assert result["structured"] == [{"path": rel, **expected}]
    assert result["findings"][0].startswith(rel.rsplit("/", 1)[-1] + ": ")


@pytest.mark.parametrize("with_db", [True, False])
def test_compile_commands_gives_the_build_context(project, with_db):
    write(project / "vendor/inc/widget.h", "struct widget { int size; };\n")
    source = "#include \"widget.h\"\nint get(struct widget w) {{ return w.{} + LIMIT; }}\n"
    touched = touch(project, {"app/main.c": (source.format("size"), source.format("sizee"))})
    if with_db:
        write(project / "build-x/compile_commands.json", json.dumps([{
            "directory": str(project / "build-x"), "file": "../app/main.c",
            "arguments": ["cc", "-isystem", "../vendor/inc", "-D", "LIMIT=4", "-O2", "-c", "../app/main.c"]}]))
    result = check(str(project), touched)
    # Without the flags the missing header is the same before and after, and cancels.
    assert [(s["path"], s["line"], "sizee" in s["message"]) for s in result["structured"]] == (
        [("app/main.c", 2, True)] if with_db else [])


def test_database_keeps_only_context_flags(tmp_path):
    command = "g++ -Iinc -DA=1 -D 'B=two words' -include cfg.h -Wall -O2 -std=c++20 -o x.o -c x.cpp"
    write(tmp_path / "compile_commands.json", json.dumps([{"directory": str(tmp_path), "file": "x.cpp",
                                                           "command": command}]))
    entry = compile_db.load(str(tmp_path))[str(tmp_path / "x.cpp")]
    flags = ("-Iinc", "-DA=1", "-D", "B=two words", "-include", "cfg.h")
    assert (entry.flags, entry.std, entry.cwd) == (flags, "-std=c++20", str(tmp_path))


@pytest.mark.parametrize("rel, signature, analyser", [("include/shape.h", "int area(struct shape s)", "c"),
                                                      ("lib/shape.hpp", "inline int area(const shape& s)", "c++")])
def test_headers_are_checked_through_a_unit(project, rel, signature, analyser):
    text = "struct shape { int sides; };\n" + signature + " { return s.%s; }\n"
    [finding] = check(str(project), touch(project, {rel: (text % "sides", text % "radius")}))["structured"]
    assert (finding["path"], finding["line"], finding["analyser"]) == (rel, 2, analyser) and "radius" in finding["message"]
    assert editor._semantic_errfn.__module__ != "editor_session.analysers"  # the gate's hook is taken down again


MIXED = {
    "src/Slow.java": ("class Slow { int n() { return 1; } }\n", "class Slow { int n() { return \"1\"; } }\n"),
    "src/clean.py": ("x = 1\n", "x = 2\n"),
    "src/b.c": ("int f(void) { return 1; }\n", "int f(void) { return nope; }\n"),
    "src/a.py": ("def f():\n    return 1\n", "def f():\n    return gone\n"),
}


@pytest.mark.heavy
def test_results_follow_first_touch_and_progress_counts_every_file(project):
    touched = touch(project, MIXED)
    calls = []
    result = check(str(project), touched, progress=lambda *call: calls.append(call))
    assert [s["path"] for s in result["structured"]] == ["src/Slow.java", "src/b.c", "src/a.py"]
    assert ([c[:2] for c in calls], sorted(c[2] for c in calls)) == ([(i, 4) for i in range(1, 5)], sorted(MIXED))


@pytest.mark.heavy
@pytest.mark.parametrize("as_event", [True, False])
def test_cancel_between_files_keeps_every_byte(project, as_event):
    # CRLF texts: the module writes back what it read, with "\n" line ends.
    files = {f"src/f{i}.c": ("int f(void)\r\n{ return 1; }\r\n", "int f(void)\r\n{ return nope; }\r\n")
             for i in range(8)}
    touched = touch(project, files)
    before_bytes, stop = bytes_of(touched), threading.Event()
    result = check(str(project), touched, progress=lambda *_: stop.set(), cancel=stop if as_event else stop.is_set,
                   workers=2)
    assert result["cancelled"] and {s["reason"] for s in result["skipped"]} == {gate.CANCELLED}
    assert 1 <= len(result["findings"]) <= len(files) - len(result["skipped"]) and bytes_of(touched) == before_bytes


def test_a_file_that_is_not_text_is_skipped_unchanged(project):
    (project / "bad.py").write_bytes(b"x = '\xff'\n")
    skipped = check(str(project), {str(project / "bad.py"): "x = 1\n"})["skipped"]
    assert skipped == [{"path": "bad.py", "reason": gate.NOT_TEXT}]
    assert (project / "bad.py").read_bytes() == b"x = '\xff'\n"


@pytest.mark.heavy
def test_a_class_never_sees_another_while_its_earlier_text_is_in_place(project):
    # X gains m() and an error, so the gate puts X's earlier text (without m) in place for a while;
    # Y only ever sees X's error, before and after, which cancels.
    k = "public static int k() { return 0; }"
    touched = touch(project, {
        "src/X.java": (f"public class X {{ {k} }}\n",
                       f"public class X {{ {k} public static int m() {{ return 1; }} String bad() {{ return 2; }} }}\n"),
        "src/Y.java": ("public class Y { int n() { return X.k(); } }\n",
                       "public class Y { int n() { return X.m(); } }\n"),
    })
    for _ in range(4):
        assert [s["path"] for s in check(str(project), touched, workers=2)["structured"]] == ["src/X.java"]

