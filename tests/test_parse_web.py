"""Language detection and the count of broken web regions in Python source."""

import sys
import types
from collections import Counter

import langtable
import pytest

import editor

UNEXPECTED, MISSING = "unexpected syntax", "missing bracket/token"


def test_tables():
    assert list(editor._WEB_KIND_LANG.items()) == [("css", "css"), ("js", "javascript"), ("html", "html")]
    assert list(editor._WEB_EXT_LANG.items()) == [
        (".css", "css"), (".html", "html"), (".htm", "html"),
        (".js", "javascript"), (".mjs", "javascript"), (".jsx", "javascript"),
    ]


@pytest.mark.parametrize(
    ("host_entries", "ext", "expected"),
    [
        ({".htm": None}, ".htm", "html"),
        ({}, ".js", "javascript"),
        ({".js": "typescript"}, ".js", "typescript"),
        ({".css": ""}, ".css", "css"),
        ({}, ".ts", "typescript"),
        ({".ts": None}, ".ts", None),
        ({}, ".JS", None),
    ],
)
def test_native_language_prefers_the_host_table(monkeypatch, host_entries, ext, expected):
    for key, value in host_entries.items():
        if value is None:
            monkeypatch.delitem(langtable.EXTENSION_TO_LANGUAGE, key)
        else:
            monkeypatch.setitem(langtable.EXTENSION_TO_LANGUAGE, key, value)
    assert editor._native_language(ext) == expected


def test_missing_language_table_propagates(monkeypatch, tmp_path):
    monkeypatch.setitem(sys.modules, "langtable", None)
    with pytest.raises(ImportError):
        editor._native_language(".c")
    (tmp_path / "a.c").write_text("int x;\n")
    with pytest.raises(ImportError):
        editor.syntax_check(str(tmp_path / "a.c"))
    (tmp_path / "a.py").write_text("x = 1\n")
    assert editor.syntax_check(str(tmp_path / "a.py"), before_text="") == "ok"


@pytest.fixture
def finder(monkeypatch):
    def install(regions):
        def _embedded_regions(text):
            if isinstance(regions, Exception):
                raise regions
            return regions

        monkeypatch.setitem(sys.modules, "embedscan", types.SimpleNamespace(_embedded_regions=_embedded_regions))

    return install


CSS_ERROR = "a { color: red; }\n\n}}"  # first error on its line 3


@pytest.mark.parametrize(
    ("regions", "counts", "sample"),
    [
        ([], {}, {}),
        (RuntimeError("finder broke"), {}, {}),
        ([("sql", "SELEC FROM", 0), ("css", "a { color: red; }", 0)], {}, {}),
        ([("css", CSS_ERROR, 10)], {("css", UNEXPECTED): 1}, {("css", UNEXPECTED): 13}),
        ([("css", CSS_ERROR, 4), ("css", CSS_ERROR, 20)], {("css", UNEXPECTED): 2}, {("css", UNEXPECTED): 7}),
        # Several errors in one region count once, under the first one's kind.
        ([["js", "f(1;\nlet a = @;\nlet b = @;", 0]], {("javascript", MISSING): 1}, {("javascript", MISSING): 1}),
        ([("html", "<p></p>\n<", 1), ("js", "@", 5)], {("html", UNEXPECTED): 1, ("javascript", UNEXPECTED): 1},
         {("html", UNEXPECTED): 3, ("javascript", UNEXPECTED): 6}),
    ],
)
def test_web_error_counts(finder, regions, counts, sample):
    finder(regions)
    found, lines = editor._web_error_counts("ignored by the stand-in")
    assert type(found) is Counter and type(lines) is dict
    assert list(found.items()) == list(counts.items()) and list(lines.items()) == list(sample.items())


def test_missing_finder_counts_nothing(monkeypatch):
    monkeypatch.setitem(sys.modules, "embedscan", None)
    assert editor._web_error_counts("x = '<p>'") == (Counter(), {})


@pytest.mark.parametrize(
    ("regions", "error", "message"),
    [
        ([("css", "a {")], ValueError, "not enough values to unpack (expected 3, got 2)"),
        ([7], TypeError, "cannot unpack non-iterable int object"),
        (iter([("css", "}}", 0), "abcd"]), ValueError, "too many values to unpack (expected 3)"),
    ],
)
def test_reading_the_regions_is_not_guarded(finder, regions, error, message):
    finder(regions)
    with pytest.raises(error) as caught:
        editor._web_error_counts("x")
    assert str(caught.value) == message
