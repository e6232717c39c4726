import re

import pytest

import editor
from semantic_helpers import repository, script, write


def test_compiler_table_holds_the_module_objects():
    langs = editor._COMPILER_LANGS
    assert list(langs) == ["cpp", "c", "java"]
    for key, entry in langs.items():
        assert list(entry) == ["exe", "std", "diag", "context", "label"]
    assert langs["cpp"]["diag"] is editor._GCC_DIAG and langs["c"]["diag"] is editor._GCC_DIAG
    assert langs["java"]["diag"] is editor._JAVAC_DIAG
    assert langs["cpp"]["context"] is editor._cpp_context and langs["c"]["context"] is editor._cpp_context
    assert langs["java"]["context"] is editor._java_context
    assert langs["java"]["std"] is None and langs["cpp"]["label"] == "c++"
    assert editor._PKG_RE.flags & re.M


@pytest.mark.parametrize(
    "text, expected",
    [
        ("package a.b;\nclass X {}\n", "a.b"),
        ("// header\n\n   package  com.acme.util  ;\n", "com.acme.util"),
        ("/*\n package in.comment;\n*/\npackage real.one;\n", "in.comment"),
        ("class X { String package_; }\n", None),
    ],
)
def test_package_pattern_finds_the_first_declaration_on_any_line(text, expected):
    match = editor._PKG_RE.search(text)
    assert (match.group(1) if match else None) == expected


def test_find_exe_takes_the_first_candidate_on_the_path(tmp_path, monkeypatch):
    bin_dir = tmp_path / "bin"
    clang = script(bin_dir, "clang++", "exit 0\n")
    (bin_dir / "g++").write_text("not executable")
    monkeypatch.setenv("PATH", str(bin_dir))
    assert editor._find_exe(("c++", "g++", "clang++")) == str(clang)
    script(bin_dir, "c++", "exit 0\n")
    assert editor._find_exe(("c++", "g++", "clang++")) == str(bin_dir / "c++")
    assert editor._find_exe(()) is None
    assert editor._find_exe(("g++", "no-such-compiler")) is None


@pytest.mark.parametrize("marker_is_file", [False, True])
def test_repo_root_finds_git_directory_or_file(tmp_path, marker_is_file):
    root = tmp_path / "repo"
    (root / "a" / "b").mkdir(parents=True)
    if marker_is_file:
        (root / ".git").write_text("gitdir: /elsewhere\n")
    else:
        (root / ".git").mkdir()
    target = write(root / "a" / "b" / "x.c", "")
    assert editor._repo_root(target) == root
    assert editor._repo_root(root / "a") == root
    assert editor._repo_root(root) == root


def test_repo_root_gives_up_after_fifty_directories(tmp_path):
    (tmp_path / ".git").mkdir()
    shallow = tmp_path.joinpath(*["d"] * 49)
    deep = tmp_path.joinpath(*["d"] * 60)
    deep.mkdir(parents=True)
    # 49 levels below the marker: the 50th directory examined holds it.
    assert editor._repo_root(shallow / "x.c") == tmp_path
    assert editor._repo_root(shallow.parent.joinpath("d", "d", "x.c")) == shallow / "d"
    assert editor._repo_root(deep / "x.c") == deep


def test_repo_root_without_marker_is_the_file_directory(tmp_path):
    target = write(tmp_path / "lonely" / "x.c", "")
    assert editor._repo_root(target) == tmp_path / "lonely"


@pytest.mark.parametrize("name", ["foo.CPP", "Foo.C", "x.C++", "a.cc", "b.cxx", "c.cp", "d.c"])
def test_cpp_context_accepts_sources_whatever_the_case(tmp_path, name):
    target = write(tmp_path / name, "")
    assert editor._cpp_context(str(target)) == (["-I", str(tmp_path)], str(tmp_path))


@pytest.mark.parametrize("name", ["foo.h", "Foo.H", "foo.hpp", "foo.inl", "foo.py", "Makefile"])
def test_cpp_context_refuses_headers_and_other_files(tmp_path, name):
    assert editor._cpp_context(str(write(tmp_path / name, ""))) is None


@pytest.mark.parametrize(
    "relative, dirs",
    [
        ("main.c", ["", "include", "src"]),
        ("src/main.c", ["", "include", "src"]),
        ("lib/deep/main.c", ["", "include", "src", "lib/deep"]),
    ],
)
def test_cpp_context_includes_each_existing_directory_once(tmp_path, relative, dirs):
    root = repository(tmp_path / "repo")
    target = write(root / relative, "int x;\n")
    args, cwd = editor._cpp_context(str(target))
    expected = []
    for d in dirs:
        expected += ["-I", str(root / d) if d else str(root)]
    assert (args, cwd) == (expected, str(root))


def test_cpp_context_skips_missing_include_and_src(tmp_path):
    (tmp_path / "repo" / ".git").mkdir(parents=True)
    target = write(tmp_path / "repo" / "lib" / "x.cpp", "")
    assert editor._cpp_context(str(target)) == (
        ["-I", str(tmp_path / "repo"), "-I", str(tmp_path / "repo" / "lib")],
        str(tmp_path / "repo"),
    )


def test_java_context_of_a_maven_layout(tmp_path):
    root = repository(tmp_path / "app")
    (root / "target" / "classes").mkdir(parents=True)
    deps = root / "target" / "dependency"
    deps.mkdir()
    for name in ("a.jar", "b.jar", "notes.txt"):
        (deps / name).write_bytes(b"")
    source = write(
        root / "src/main/java/com/acme/util/Strings.java",
        "package com.acme.util;\npublic class Strings {}\n",
    )
    jars = [str(p) for p in deps.glob("*.jar")]
    assert editor._java_context(str(source)) == (
        ["-sourcepath", str(root / "src/main/java"), "-cp", ":".join([str(root / "target/classes"), *jars])],
        str(root),
    )


def test_java_context_gradle_classes_follow_maven_ones(tmp_path):
    root = repository(tmp_path / "app")
    (root / "target" / "classes").mkdir(parents=True)
    (root / "build" / "classes" / "java" / "main").mkdir(parents=True)
    source = write(root / "Main.java", "class Main {}\n")
    args, _ = editor._java_context(str(source))
    assert args[2:] == ["-cp", f"{root}/target/classes:{root}/build/classes/java/main"]


@pytest.mark.parametrize(
    "relative, text, source_root",
    [
        # The walk stops at the first directory that does not spell the package.
        ("x/y/Foo.java", "package com.acme;\nclass Foo {}\n", "x/y"),
        ("x/y/Foo.java", "class Foo {}\n", "x/y"),
        ("src/acme/Foo.java", "  package acme ;\n", "src"),
        ("pkg/a/b/Foo.JAVA", "package a.b;\n", "pkg"),
    ],
)
def test_java_context_source_path(tmp_path, relative, text, source_root):
    root = repository(tmp_path / "r")
    source = write(root / relative, text)
    assert editor._java_context(str(source)) == (["-sourcepath", str(root / source_root)], str(root))


def test_java_context_refusals_and_decoding_errors(tmp_path):
    assert editor._java_context(str(write(tmp_path / "Foo.kt", "class Foo"))) is None
    assert editor._java_context(str(tmp_path / "Missing.java")) is None
    latin = tmp_path / "Latin.java"
    latin.write_bytes(b"class Latin { String s = \"\xe9\"; }\n")
    with pytest.raises(UnicodeDecodeError):
        editor._java_context(str(latin))


def test_java_context_of_an_unreadable_file_is_none(tmp_path):
    (tmp_path / "Dir.java").mkdir()
    assert editor._java_context(str(tmp_path / "Dir.java")) is None
