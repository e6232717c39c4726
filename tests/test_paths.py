"""Confinement and target resolution, with real symbolic links."""

import os

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import editor
pytestmark = pytest.mark.leaks


@pytest.fixture
def project(tmp_path):
    root = tmp_path / "proj"
    (root / "src").mkdir(parents=True)
    (root / "src" / "app.py").write_text("x = 1\n")
    outside = tmp_path / "outside"
    outside.mkdir()
    (root / "out_link").symlink_to(outside, target_is_directory=True)
    (root / "in_link").symlink_to(root / "src", target_is_directory=True)
    (root / "loop").symlink_to(root / "loop")
    return root


@pytest.mark.parametrize(
    ("relative", "inside"),
    [
        (".", True),
        ("src/app.py", True),
        ("src/not_yet/new.py", True),
        ("in_link/app.py", True),
        ("out_link", False),
        ("out_link/new.py", False),
        ("../proj2/a.py", False),
        ("../proj", True),
        ("src/../../outside", False),
        ("loop", True),
    ],
)
def test_within_root(project, relative, inside):
    assert editor._within_root(str(project), os.path.join(str(project), relative)) is inside


def test_root_given_through_a_link_confines_to_its_target(project, tmp_path):
    alias = tmp_path / "alias"
    alias.symlink_to(project, target_is_directory=True)
    assert editor._within_root(str(alias), str(project / "src" / "app.py"))
    assert not editor._within_root(str(alias), str(tmp_path / "outside"))


@pytest.mark.parametrize(
    ("path_str", "known", "expected"),
    [
        ("app.py", ["src/App.py"], "src/App.py"),
        ("sub\\app.py", ["pkg/sub/app.py"], "pkg/sub/app.py"),
        ("SUB/APP.PY", ["lib/app.py", "pkg/sub/app.py"], "pkg/sub/app.py"),
        ("new/module.py", ["app.py"], "new/module.py"),
        ("pp.py", ["app.py"], "pp.py"),
        ("", ["app.py"], ""),
        ("./a/../b.py", [], "b.py"),
        ("İ.py", ["i̇.py"], "i̇.py"),
    ],
)
def test_resolve_to_one_path(tmp_path, path_str, known, expected):
    assert editor.resolve_target(str(tmp_path), path_str, known) == os.path.abspath(
        os.path.join(str(tmp_path), expected))


def test_absolute_id_is_returned_even_outside_the_root(tmp_path):
    other = "/elsewhere//pkg/./mod.py"
    assert editor.resolve_target(str(tmp_path), "mod.py", [other]) == "/elsewhere/pkg/mod.py"


@pytest.mark.parametrize(
    ("path_str", "known", "count", "candidates"),
    [
        ("app.py", ["app.py", "sub/app.py"], 2, ["app.py", "sub/app.py"]),
        ("util.py", [f"d{i}/util.py" for i in range(12)], 12, [f"d{i}/util.py" for i in range(8)]),
        ("A.py", ["x/a.py", "other.py", "y/A.PY"], 2, ["x/a.py", "y/A.PY"]),
    ],
)
def test_ambiguity_is_refused_with_candidates(tmp_path, path_str, known, count, candidates):
    before = list(known)
    result = editor.resolve_target(str(tmp_path), path_str, known)
    assert list(result) == ["error", "candidates"]
    assert result["error"] == f"'{path_str}' matches {count} files -- be more specific"
    assert result["candidates"] == candidates
    assert known == before


@pytest.mark.parametrize("path_str", ["../elsewhere.py", "/etc/passwd", "out_link/new.py", "out_link"])
def test_escapes_are_refused(project, path_str):
    snapshot = sorted(os.walk(project))
    result = editor.resolve_target(str(project), path_str, ["src/app.py"])
    assert result == {"error": f"'{path_str}' is outside the project root -- edits are confined to it"}
    assert sorted(os.walk(project)) == snapshot


def test_link_inside_the_root_is_returned_as_written(project):
    assert editor.resolve_target(str(project), "in_link/new.py", []) == str(project / "in_link" / "new.py")


class OddLower(str):
    """A str whose matching form is not a str."""

    def replace(self, old, new):
        return self

    def lower(self):
        return 12345


@pytest.mark.parametrize(
    ("call", "error"),
    [
        (lambda: editor._within_root("/r", "/r/a\0b"), ValueError),
        (lambda: editor.resolve_target("/r", "a\0b.py", []), ValueError),
        (lambda: editor._within_root(b"/r", b"/r/a"), TypeError),
        (lambda: editor._within_root(None, "/r"), TypeError),
        (lambda: editor.resolve_target("/r", 3, []), AttributeError),
        (lambda: editor.resolve_target("/r", "a.py", ["a.py", 7]), AttributeError),
        (lambda: editor.resolve_target("/r", "a.py", None), TypeError),
        (lambda: editor.resolve_target(None, "a.py", ["a.py"]), TypeError),
        (lambda: editor.resolve_target("/r", OddLower("a.py"), ["x.py"]), TypeError),
    ],
)
def test_bad_input_raises_the_host_exception(call, error):
    with pytest.raises(error):
        call()


def plain_resolution(root, path_str, known):
    """The matching rules written plainly."""
    def norm(path):
        return path.replace("\\", "/").lower()
    hits = [e for e in known if norm(e) == norm(path_str) or norm(e).endswith("/" + norm(path_str))]
    if len(hits) == 1:
        return os.path.abspath(os.path.join(root, hits[0]))
    if hits:
        return {"error": f"'{path_str}' matches {len(hits)} files -- be more specific", "candidates": hits[:8]}
    if editor._within_root(root, os.path.join(root, path_str)):
        return os.path.abspath(os.path.join(root, path_str))
    return {"error": f"'{path_str}' is outside the project root -- edits are confined to it"}


# ASCII beside letters whose lower-casing changes length or leaves (or enters) ASCII.
pieces = st.sampled_from(["a", "A", "Zz", "src", "SRC", "app.py", "App.PY", "/", "\\", "..", "İ", "i̇", "K", "k", "ß", "Σ"])
paths = st.lists(pieces, max_size=5).map("".join)


@settings(max_examples=400, deadline=None)
@given(path_str=paths, known=st.lists(paths, max_size=12), as_tuple=st.booleans())
def test_resolution_agrees_with_the_plain_rules(path_str, known, as_tuple):
    result = editor.resolve_target("/r", path_str, tuple(known) if as_tuple else known)
    assert result == plain_resolution("/r", path_str, known)
