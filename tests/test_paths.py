"""Confinement and target resolution, with real symbolic links."""

import os

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import editor
from helpers import tree_digest, write
pytestmark = pytest.mark.leaks


@pytest.fixture
def project(project):
    write(project / "src" / "app.py", "x = 1\n")
    (project / "out_link").symlink_to(project.parent / "outside", target_is_directory=True)
    (project / "in_link").symlink_to(project / "src", target_is_directory=True)
    (project / "loop").symlink_to(project / "loop")
    (project.parent / "alias").symlink_to(project, target_is_directory=True)
    return project


def test_a_root_given_through_a_link_confines_to_its_target(project):
    alias = str(project.parent / "alias")
    assert editor._within_root(alias, str(project / "src" / "x.py")) and editor._within_root(alias, alias)
    assert not editor._within_root(alias, f"{alias}/../outside")


def outside(path_str):
    return {"error": f"'{path_str}' is outside the project root -- edits are confined to it"}


def ambiguous(path_str, count, candidates):
    return {"error": f"'{path_str}' matches {count} files -- be more specific", "candidates": candidates}


@pytest.mark.parametrize(
    ("path_str", "known", "expected"),
    [
        ("app.py", ["src/App.py"], "src/App.py"), ("sub\\app.py", ["pkg/sub/app.py"], "pkg/sub/app.py"),
        ("SUB/APP.PY", ["lib/app.py", "pkg/sub/app.py"], "pkg/sub/app.py"), ("pp.py", ["app.py"], "pp.py"),
        ("new/module.py", ["app.py"], "new/module.py"), ("", ["app.py"], ""), ("./a/../b.py", [], "b.py"),
        ("İ.py", ["i̇.py"], "i̇.py"),
        ("in_link/new.py", [], "in_link/new.py"),  # a link inside the root is returned as written
        ("loop", [], "loop"), ("../proj/src/x.py", [], "src/x.py"),
        ("mod.py", ["/elsewhere//pkg/./mod.py"], "/elsewhere/pkg/mod.py"),  # even outside the root
        ("app.py", ["app.py", "sub/app.py"], ambiguous("app.py", 2, ["app.py", "sub/app.py"])),
        ("util.py", [f"d{i}/util.py" for i in range(12)],
         ambiguous("util.py", 12, [f"d{i}/util.py" for i in range(8)])),
        ("A.py", ["x/a.py", "other.py", "y/A.PY"], ambiguous("A.py", 2, ["x/a.py", "y/A.PY"])),
        ("../elsewhere.py", ["src/app.py"], outside("../elsewhere.py")), ("/etc/passwd", [], outside("/etc/passwd")),
        ("out_link/new.py", [], outside("out_link/new.py")),
        ("out_link", [], outside("out_link")), ("../proj2/a.py", [], outside("../proj2/a.py")),
        ("src/../../outside", [], outside("src/../../outside")),
    ],
)
def test_resolve_target(project, path_str, known, expected):
    before, digest = list(known), tree_digest(project.parent)
    result = editor.resolve_target(str(project), path_str, known)
    if isinstance(expected, str):
        assert result == os.path.abspath(os.path.join(str(project), expected))
    else:
        assert result == expected and list(result) == list(expected)
    assert known == before and tree_digest(project.parent) == digest


class Wrapped(str):
    pass  # its matching form comes from the host's own replace() and lower()


# ASCII beside letters whose lower-casing changes length or leaves (or enters) ASCII.
pieces = st.sampled_from(["a", "A", "Zz", "src", "SRC", "app.py", "App.PY", "/", "\\", "..", "İ", "i̇", "K", "\u212a",
                          "k", "ß", "Σ"])
paths = st.lists(pieces, max_size=5).map("".join)


@settings(max_examples=400, deadline=None)
@given(path_str=paths, known=st.lists(paths, max_size=12))
def test_matching_in_place_agrees_with_the_hosts_methods(path_str, known):
    # ASCII entries are compared byte by byte; wrapped, the same entries take the host's methods,
    # and a tuple takes the iterator's road: none of that may change the outcome.
    result = editor.resolve_target("/r", path_str, known)
    assert editor.resolve_target("/r", path_str, tuple(known)) == result
    assert editor.resolve_target("/r", Wrapped(path_str), [Wrapped(entry) for entry in known]) == result
