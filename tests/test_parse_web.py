# Language detection and the count of broken web regions in Python source.

import re
import sys
import types
from collections import Counter

import langtable
import pytest

import editor
pytestmark = pytest.mark.leaks

UNEXPECTED, MISSING = "unexpected syntax", "missing bracket/token"


@pytest.mark.parametrize(("host_entries", "ext", "expected"), [
    ({".htm": None}, ".htm", "html"), ({".jsx": None}, ".jsx", "javascript"), ({".js": "typescript"}, ".js", "typescript"),
    ({".css": ""}, ".css", "css"), ({}, ".ts", "typescript"), ({".ts": None}, ".ts", None), ({}, ".JS", None),
])
def test_native_language_prefers_the_host_table(monkeypatch, host_entries, ext, expected):
    for key, value in host_entries.items():  # None: the host's table lacks the entry
        monkeypatch.setitem(langtable.EXTENSION_TO_LANGUAGE, key, value)
        if value is None:
            monkeypatch.delitem(langtable.EXTENSION_TO_LANGUAGE, key)
    assert editor._native_language(ext) == expected


def test_missing_language_table_propagates(monkeypatch, tmp_path):
    monkeypatch.setitem(sys.modules, "langtable", None)
    (tmp_path / "a.c").write_text("int x;\n")
    with pytest.raises(ImportError):
        editor.syntax_check(str(tmp_path / "a.c"))
    (tmp_path / "a.py").write_text("x = 1\n")
    assert editor.syntax_check(str(tmp_path / "a.py"), before_text="") == "ok"


CSS_ERROR = "a { color: red; }\n\n}}"  # first error on its line 3


@pytest.mark.parametrize(("regions", "expected"), [
    (None, ({}, {})), (RuntimeError, ({}, {})),  # no finder, or a broken one
    ([("sql", "SELEC FROM", 0), ("css", "a { color: red; }", 0)], ({}, {})),
    ([("css", CSS_ERROR, 4), ("css", CSS_ERROR, 20)], ({("css", UNEXPECTED): 2}, {("css", UNEXPECTED): 7})),
    # Several errors in one region count once, under the first one's kind.
    ([["js", "f(1;\nlet a = @;\nlet b = @;", 0]], ({("javascript", MISSING): 1}, {("javascript", MISSING): 1})),
    ([("html", "<p></p>\n<", 1), ("js", "@", 5)], ({("html", UNEXPECTED): 1, ("javascript", UNEXPECTED): 1},
                                                   {("html", UNEXPECTED): 3, ("javascript", UNEXPECTED): 6})),
    # Reading the regions is not guarded.
    ([("css", "a {")], ValueError("not enough values to unpack (expected 3, got 2)")),
    ([7], TypeError("cannot unpack non-iterable int object")),
    (lambda: iter([("css", "}}", 0), "abcd"]), ValueError("too many values to unpack (expected 3)")),
])
def test_web_error_counts(monkeypatch, regions, expected):
    def _embedded_regions(text):
        if isinstance(regions, type):
            raise regions
        return regions() if callable(regions) else regions  # made afresh for every run of the test

    finder = None if regions is None else types.SimpleNamespace(_embedded_regions=_embedded_regions)
    monkeypatch.setitem(sys.modules, "embedscan", finder)
    if isinstance(expected, Exception):
        with pytest.raises(type(expected), match=f"^{re.escape(str(expected))}$"):
            editor._web_error_counts("x")
        return
    found, lines = editor._web_error_counts("ignored by the stand-in")
    assert type(found) is Counter and type(lines) is dict
    assert [list(found.items()), list(lines.items())] == [list(e.items()) for e in expected]
