import pytest

import editor
from helpers import repository, script, write
pytestmark = pytest.mark.leaks


def test_find_exe_takes_the_first_candidate_on_the_path(tmp_path, monkeypatch):
    bin_dir = tmp_path / "bin"
    clang = script(bin_dir, "clang++", "exit 0\n")
    (bin_dir / "g++").write_text("not executable")
    monkeypatch.setenv("PATH", str(bin_dir))
    assert editor._find_exe(("c++", "g++", "clang++")) == str(clang)
    assert editor._find_exe(()) is None and editor._find_exe(("g++", "no-such-cc")) is None


@pytest.mark.parametrize("marker_is_file", [False, True])
def test_repo_root_walks_at_most_fifty_directories(tmp_path, marker_is_file):
    # A worktree's ".git" is a file.
    (tmp_path / ".git").write_text("gitdir: /elsewhere\n") if marker_is_file else (tmp_path / ".git").mkdir()
    reach = tmp_path.joinpath(*["d"] * 49)  # the 50th directory examined holds the marker
    (reach / "d").mkdir(parents=True)
    found = [editor._repo_root(p) for p in (reach / "x.c", reach, reach / "d" / "x.c", tmp_path.parent / "lonely.c")]
    assert found == [tmp_path, tmp_path, reach / "d", tmp_path.parent]


@pytest.mark.parametrize("relative, dirs", [
    ("main.c", ["", "include", "src"]), ("src/Foo.C", ["", "include", "src"]),  # the root's pair comes once
    ("lib/deep/x.C++", ["", "include", "src", "lib/deep"]),
    ("lib/a.CPP", ["", "lib"]),  # no include/ or src/ in this checkout
    ("lib/a.h", None),  # a header has no compile of its own
])
def test_cpp_context(tmp_path, relative, dirs):
    root = tmp_path / "repo"
    (root / ".git").mkdir(parents=True)
    if "include" in (dirs or []):
        repository(root)
    target = write(root / relative, "int x;\n")
    expected = dirs and ([item for d in dirs for item in ("-I", str(root / d) if d else str(root))], str(root))
    assert editor._cpp_context(str(target)) == expected


def test_java_context_of_a_maven_layout(tmp_path):
    root = repository(tmp_path / "app")
    (root / "target" / "classes").mkdir(parents=True)
    (root / "build" / "classes" / "java" / "main").mkdir(parents=True)
    deps = root / "target" / "dependency"
    deps.mkdir()
    for name in ("a.jar", "b.jar", "notes.txt"):
        (deps / name).write_bytes(b"")
    source = write(root / "src/main/java/com/acme/util/Strings.java", "package com.acme.util;\nclass Strings {}\n")
    cp = [str(root / "target/classes"), str(root / "build/classes/java/main"), *map(str, deps.glob("*.jar"))]
    assert editor._java_context(str(source)) == (
        ["-sourcepath", str(root / "src/main/java"), "-cp", ":".join(cp)], str(root))


@pytest.mark.parametrize("relative, text, source_root", [
    ("x/y/Foo.java", "package com.acme;\nclass Foo {}\n", "x/y"),  # stops at y != acme
    ("x/y/Foo.java", "class Foo {}\n", "x/y"), ("src/acme/Foo.java", "// acme\n  package acme ;\n", "src"),
    ("pkg/a/b/Foo.JAVA", "/*\n package a.b;\n*/\npackage other;\n", "pkg"),  # first match, even in a comment
    ("Foo.kt", "class Foo", None), ("Missing.java", None, None), ("Dir.java", "", None),
])
def test_java_context_source_path(tmp_path, relative, text, source_root):
    root = repository(tmp_path / "r")
    if text == "":
        (root / relative).mkdir()
    elif text is not None:
        write(root / relative, text)
    expected = source_root and (["-sourcepath", str(root / source_root)], str(root))
    assert editor._java_context(str(root / relative)) == expected


def test_java_source_that_is_not_utf8_raises(tmp_path):
    (tmp_path / "Latin.java").write_bytes(b"class Latin { String s = \"\xe9\"; }\n")
    with pytest.raises(UnicodeDecodeError):
        editor._java_context(str(tmp_path / "Latin.java"))
