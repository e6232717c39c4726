"""Reference and memory-block leaks, measured on a debug build of the interpreter.

Every function of the module runs its representative calls (successes, each refusal, each
exception it propagates) over and over; between repetitions the interpreter's total reference
count (`sys.gettotalrefcount`) and its number of live memory blocks (`sys.getallocatedblocks`)
must not keep growing. A second pass throws the crash fuzzer's hostile arguments at every
function the same way, for the exception paths no table lists.

Not collected by `make test` (the release interpreter cannot count references); `make
check-refleaks` builds the module against the debug interpreter and runs this file.
"""

import gc
import linecache
import os
import random
import re
import shutil
import sys
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable

import pytest

import editor
import projstore
from helpers import immutable
from fuzz_values import FuzzInterrupt, Sandbox, Values, call_shape, module_functions, restore, tamper

pytestmark = pytest.mark.skipif(not hasattr(sys, "gettotalrefcount"), reason="needs a debug build of the interpreter")

WARMUPS = 3
RUNS = 4
FUNCTIONS = dict(module_functions(editor))
REFUSAL = "refusal"
VALUE = "value"


@dataclass
class Case:
    """One representative call: what it does to the project first, the call, what it gives."""

    label: str
    call: Callable
    expect: object = VALUE  # VALUE, REFUSAL or an exception class
    patch: dict = field(default_factory=dict)  # module attributes replaced during the call


def value(label, call, **patch):
    return Case(label, call, VALUE, patch)


def refused(label, call, **patch):
    return Case(label, call, REFUSAL, patch)


def raises(error, label, call, **patch):
    return Case(label, call, error, patch)


class Project:
    """A small project under a temporary directory, rewritten by each case as it needs it."""

    def __init__(self, top):
        self.top = Path(top)
        self.root = self.top / "proj"
        self.r = str(self.root)

    def write(self, relative, text="a\nb\nc\n", data=None):
        path = self.root / relative
        path.parent.mkdir(parents=True, exist_ok=True)
        if path.is_dir() and not path.is_symlink():
            shutil.rmtree(path)
        if data is not None:
            path.write_bytes(data)
        else:
            path.write_text(text, encoding="utf-8")
        return str(path)

    def dir(self, relative):
        path = self.root / relative
        if path.is_file():
            path.unlink()
        path.mkdir(parents=True, exist_ok=True)
        return str(path)

    def gone(self, relative):
        path = self.root / relative
        if path.is_dir() and not path.is_symlink():
            shutil.rmtree(path)
        elif path.exists() or path.is_symlink():
            path.unlink()
        return str(path)

    def path(self, relative):
        return str(self.root / relative)


def failing(*args, **kwargs):
    raise RuntimeError("host failure")


class Node:
    def __init__(self, type="x", is_missing=False, has_error=True, children=(), start_point=(0, 0)):
        self.type, self.is_missing, self.has_error = type, is_missing, has_error
        self.children, self.start_point = list(children), start_point


class Raising:
    @property
    def type(self):
        raise RuntimeError("type")


def tree(language, text):
    from tree_sitter_language_pack import get_parser
    return get_parser(language).parse(text.encode()).root_node


def locked_call(path, call):
    """Runs call() while the file or directory at `path` cannot be changed, even by root."""
    with immutable(Path(path)):
        return call()


C_ERR = "int f(void) { return missing_q; }\n"
JAVA_ERR = "package pkg;\nclass A { int f() { return y; } }\n"
PY_ERR = "def run():\n    return helper()\n"
HTML_PY = 'PAGE = "<html><body><div><p>hi</p></div></body></html>"\n'
HTML_PY_BROKEN = 'PAGE = "<html><body><div><p>hi</p></div></body></html"\n'


def _with(node, **members):
    node.__dict__.update(members)
    return node


def _compile(project, lang, relative, text, cwd=None):
    cfg = editor._COMPILER_LANGS[lang]
    exe = editor._find_exe(cfg["exe"])
    path = project.write(relative, text)
    args, context_cwd = cfg["context"](path)
    return editor._compile_errors(exe, lang, cfg, path, (args, cwd or context_cwd))


def _fails_second():
    """A pyflakes stand-in that answers once with errors, then raises (the run on the earlier
    text), and starts over for the next call."""
    calls = [0]

    def analyser(path):
        calls[0] ^= 1
        if not calls[0]:
            raise RuntimeError("second run")
        return [("undefined name 'helper'", 2)]
    return analyser


def _stack(project):
    """A snapshot stack: an edit of a.txt, the creation of new.txt, a step with no file."""
    stack = [editor.take_snapshot({"ir": 1}, project.write("a.txt", "old\n")),
             editor.take_snapshot({"ir": 2}, project.gone("new.txt")),
             editor.take_snapshot({"ir": 3}, None)]
    project.write("a.txt", "new\n")
    project.write("new.txt", "made\n")
    return stack


def _ledger(root, data):
    path = projstore.project_dir(root) / editor.LEDGER_NAME
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)


class _Id(str):
    pass


class _Pairs:
    def __init__(self, pairs):
        self._pairs = pairs

    def items(self):
        return list(self._pairs)


MAP_BEFORE = {
    "edges": [{"caller": "a.py::f", "callee": "a.py::g"}, {"caller": "a.py::g", "callee": "b.py::h"}],
    "symbols": {"a.py::f": 1, "a.py::g": 1, "b.py::gone": 1},
    "defs": {"a.py::<module>": {"LIMIT": [{"rhs": "1"}], "OLD": [{"rhs": "x"}]},
             "s.css::css::a": {"color": [{"rhs": "red"}]}},
}
MAP_AFTER = {
    "edges": [{"caller": "a.py::f", "callee": "a.py::g"}, {"caller": "a.py::f", "callee": "c.py::k"}],
    "symbols": ["a.py::f", "a.py::g", "c.py::k"],
    "defs": {"a.py::<module>": {"LIMIT": [{"rhs": "2"}], "NEW": [{"rhs": "y"}]},
             "s.css::css::a": {"color": [{"rhs": float("nan")}]}},
}


CASES = {
    "_within_root": [
        value("inside", lambda p: editor._within_root(p.r, p.path("a/b.py"))),
        value("sibling", lambda p: editor._within_root(p.r, p.r + "2/x")),
        raises(TypeError, "bytes", lambda p: editor._within_root(b"/r", b"/r/a")),
        raises(ValueError, "NUL", lambda p: editor._within_root(p.r, p.r + "/a\0b")),
        raises(TypeError, "missing argument", lambda p: editor._within_root(p.r)),
        raises(TypeError, "unknown keyword", lambda p: editor._within_root(p.r, p.r, other=1)),
        raises(TypeError, "given twice", lambda p: editor._within_root(p.r, root=p.r)),
    ],
    "resolve_target": [
        value("one hit", lambda p: editor.resolve_target(p.r, "App.py", ["src/app.py", "x.py"])),
        value("no hit, inside", lambda p: editor.resolve_target(p.r, "new/m.py", ["a.py"])),
        refused("ambiguous", lambda p: editor.resolve_target(p.r, "u.py", [f"d{i}/u.py" for i in range(12)])),
        refused("outside", lambda p: editor.resolve_target(p.r, "../x.py", [])),
        raises(AttributeError, "path_str not a str", lambda p: editor.resolve_target(p.r, 3, [])),
        raises(AttributeError, "entry not a str", lambda p: editor.resolve_target(p.r, "a.py", ["a.py", 7])),
        raises(TypeError, "known_paths not iterable", lambda p: editor.resolve_target(p.r, "a.py", None)),
        raises(TypeError, "root not a str", lambda p: editor.resolve_target(None, "a.py", ["a.py"])),
        raises(RuntimeError, "confinement test raises", lambda p: editor.resolve_target(p.r, "z.py", []),
               _within_root=failing),
    ],
    "apply_block": [
        value("replace", lambda p: editor.apply_block(p.r, p.write("f.py"), 2, 3, "x = 1\n")),
        value("insert_before", lambda p: editor.apply_block(p.r, p.write("f.txt"), 4, None, "z", mode="insert_before")),
        value("insert_after", lambda p: editor.apply_block(p.r, p.write("f.txt"), 1, None, "z", "insert_after")),
        value("anchor", lambda p: editor.apply_block(p.r, p.write("f.c", C_ERR), None, None, "int g;", anchor="int f")),
        refused("escape", lambda p: editor.apply_block(p.r, "/elsewhere/f.py", 1, None, "x")),
        refused("missing file", lambda p: editor.apply_block(p.r, p.gone("nofile.py"), 1, None, "x")),
        refused("unknown mode", lambda p: editor.apply_block(p.r, p.write("f.txt"), 1, None, "x", "swap")),
        refused("anchor not found", lambda p: editor.apply_block(p.r, p.write("f.txt"), None, None, "x", anchor="q")),
        refused("anchor twice", lambda p: editor.apply_block(p.r, p.write("f.txt", "a\na\n"), None, None, "x",
                                                             anchor="a")),
        refused("anchor with surrogate", lambda p: editor.apply_block(p.r, p.write("f.txt"), None, None, "x",
                                                                      anchor="\udcff")),
        refused("no line, no anchor", lambda p: editor.apply_block(p.r, p.write("f.txt"), None, None, "x")),
        refused("start out of range", lambda p: editor.apply_block(p.r, p.write("f.txt"), 2**80, None, "x")),
        refused("end out of range", lambda p: editor.apply_block(p.r, p.write("f.txt"), 2, 1, "x")),
        raises(TypeError, "float line", lambda p: editor.apply_block(p.r, p.write("f.txt"), 1.5, None, "x")),
        raises(TypeError, "content not a str", lambda p: editor.apply_block(p.r, p.write("f.txt"), 1, None, b"x")),
        raises(TypeError, "anchor not a str", lambda p: editor.apply_block(p.r, p.write("f.txt"), 1, None, "x",
                                                                           anchor=3)),
        raises(TypeError, "missing argument", lambda p: editor.apply_block(p.r, p.write("f.txt"), 1, None)),
        raises(IsADirectoryError, "directory", lambda p: editor.apply_block(p.r, p.dir("d"), 1, None, "x")),
        raises(UnicodeDecodeError, "not UTF-8", lambda p: editor.apply_block(p.r, p.write("f.txt", data=b"\xff\n"),
                                                                             1, None, "x")),
        raises(UnicodeEncodeError, "content with surrogate",
               lambda p: editor.apply_block(p.r, p.write("f.txt"), 1, None, "\udcff")),
        raises(PermissionError, "unwritable", lambda p: locked_call(
            p.write("locked.txt"), lambda: editor.apply_block(p.r, p.path("locked.txt"), 1, None, "x"))),
        raises(ValueError, "NUL in path", lambda p: editor.apply_block(p.r, p.r + "/a\0", 1, None, "x")),
        raises(RuntimeError, "syntax check raises", lambda p: editor.apply_block(p.r, p.write("f.txt"), 1, None, "x"),
               syntax_check=failing),
    ],
    "create_file": [
        value("new file", lambda p: (p.gone("n"), editor.create_file(p.r, p.path("n/deep/new.py"), "x = (\n"))[1]),
        refused("escape", lambda p: editor.create_file(p.r, "/elsewhere/n.py", "x")),
        refused("exists", lambda p: editor.create_file(p.r, p.write("f.txt"), "x")),
        raises(UnicodeEncodeError, "content with surrogate",
               lambda p: editor.create_file(p.r, p.gone("s.py"), "\udcff")),
        raises(FileExistsError, "parent is a file",
               lambda p: (p.write("plain"), editor.create_file(p.r, p.path("plain/x.py"), "x"))[1]),
        raises(PermissionError, "unwritable directory", lambda p: (p.gone("ro/x.py"), locked_call(
            p.dir("ro"), lambda: editor.create_file(p.r, p.path("ro/x.py"), "x")))[1]),
        raises(TypeError, "content not a str", lambda p: editor.create_file(p.r, p.gone("t.py"), None)),
    ],
    "delete_file": [
        value("file", lambda p: editor.delete_file(p.r, p.write("del.txt"))),
        value("directory", lambda p: (p.write("deldir/x.txt"), editor.delete_file(p.r, p.path("deldir")))[1]),
        refused("escape", lambda p: editor.delete_file(p.r, "/elsewhere/x")),
        refused("the root", lambda p: editor.delete_file(p.r, p.r + "/.")),
        refused("missing", lambda p: editor.delete_file(p.r, p.gone("never"))),
        refused("removal fails", lambda p: locked_call(
            p.write("keep.txt"), lambda: editor.delete_file(p.r, p.path("keep.txt")))),
        raises(TypeError, "root not a str", lambda p: editor.delete_file(3, p.r)),
        raises(RuntimeError, "existence test raises", lambda p: editor.delete_file(p.r, p.write("x.txt")),
               os=type("Os", (), {"path": type("P", (), {"realpath": staticmethod(os.path.realpath),
                                                         "normcase": staticmethod(os.path.normcase),
                                                         "exists": staticmethod(failing)})})),
    ],
    "syntax_check": [
        value("python ok", lambda p: editor.syntax_check(p.write("ok.py", "x = 1\n"))),
        value("python error", lambda p: editor.syntax_check(p.write("bad.py", "def f(:\n"))),
        value("embedded web delta", lambda p: editor.syntax_check(p.write("w.py", HTML_PY_BROKEN), HTML_PY)),
        value("native absolute", lambda p: editor.syntax_check(p.write("b.c", "int f( {\n"))),
        value("native delta", lambda p: editor.syntax_check(p.write("b.c", "int f( {\nint g( {\n"),
                                                            before_text="int f( {\n")),
        value("unknown extension", lambda p: editor.syntax_check(p.write("x.unknown"))),
        value("missing file", lambda p: editor.syntax_check(p.gone("none.py"))),
        raises(UnicodeDecodeError, "not UTF-8", lambda p: editor.syntax_check(p.write("bin.py", data=b"\xff"))),
        raises(RuntimeError, "compile raises", lambda p: editor.syntax_check(p.write("ok.py")), compile=failing),
        raises(TypeError, "path not a str", lambda p: editor.syntax_check(3)),
    ],
    "_first_error_node": [
        value("real tree with an error", lambda p: editor._first_error_node(tree("python", "def f(:\n"))),
        value("real clean tree", lambda p: editor._first_error_node(tree("c", "int x;\n"))),
        value("stand-ins", lambda p: editor._first_error_node(Node(children=[Node(has_error=False),
                                                                             Node(is_missing=True)]))),
        raises(RuntimeError, "member raises", lambda p: editor._first_error_node(Node(children=[Raising()]))),
        raises(TypeError, "children not iterable", lambda p: editor._first_error_node(_with(Node(), children=5))),
        raises(AttributeError, "not a node", lambda p: editor._first_error_node(3)),
    ],
    "_all_error_nodes": [
        value("real tree", lambda p: editor._all_error_nodes(tree("javascript", "const x = => ;\nlet y = [1,\n"), [])),
        value("stand-ins into a list subclass", lambda p: editor._all_error_nodes(
            Node(children=[Node(type="ERROR"), Node(is_missing=True)]), type("L", (list,), {})())),
        raises(AttributeError, "out without append", lambda p: editor._all_error_nodes(Node(type="ERROR"), ())),
        raises(RuntimeError, "append raises", lambda p: editor._all_error_nodes(
            Node(type="ERROR"), type("Out", (), {"append": staticmethod(failing)})())),
        raises(RuntimeError, "member raises", lambda p: editor._all_error_nodes(Node(children=[Raising()]), [])),
    ],
    "_treesitter_error": [
        value("missing token", lambda p: editor._treesitter_error("c", "int f( {\n")),
        value("clean", lambda p: editor._treesitter_error("css", "a { color: red; }\n")),
        value("unknown grammar", lambda p: editor._treesitter_error("no-such-grammar", "x")),
        value("surrogate text", lambda p: editor._treesitter_error("python", "\udcff")),
        raises(RuntimeError, "scan raises", lambda p: editor._treesitter_error("c", "int f( {\n"),
               _first_error_node=failing),
        raises(AttributeError, "scan answers None's members",
               lambda p: editor._treesitter_error("c", "int f( {\n"), _first_error_node=lambda node: 3),
    ],
    "_treesitter_error_counts": [
        value("errors", lambda p: editor._treesitter_error_counts("html", "<div><p>x</div\n<b>\n")),
        value("clean", lambda p: editor._treesitter_error_counts("python", "x = 1\n")),
        value("unknown grammar", lambda p: editor._treesitter_error_counts("no-such-grammar", "x")),
        raises(RuntimeError, "scan raises", lambda p: editor._treesitter_error_counts("c", "int f( {\n"),
               _all_error_nodes=failing),
    ],
    "_native_language": [
        value("host table", lambda p: editor._native_language(".py")),
        value("web table", lambda p: editor._native_language(".htm")),
        value("unknown", lambda p: editor._native_language(".zzz")),
        raises(TypeError, "unhashable", lambda p: editor._native_language([])),
        raises(AttributeError, "web table replaced", lambda p: editor._native_language(".zzz"), _WEB_EXT_LANG=3),
    ],
    "_web_error_counts": [
        value("broken region", lambda p: editor._web_error_counts(HTML_PY_BROKEN)),
        value("clean", lambda p: editor._web_error_counts(HTML_PY)),
        value("not a str", lambda p: editor._web_error_counts(3)),
        raises(ValueError, "scan answers a bad pair", lambda p: editor._web_error_counts(HTML_PY_BROKEN),
               _treesitter_error=lambda lang, text: (1,)),
    ],
    "_find_exe": [
        value("found", lambda p: editor._find_exe(("no-such-cc", "gcc"))),
        value("none found", lambda p: editor._find_exe(("no-such-cc",))),
        raises(TypeError, "not iterable", lambda p: editor._find_exe(None)),
        raises(TypeError, "name not a str", lambda p: editor._find_exe((3,))),
    ],
    "_repo_root": [
        value("marked", lambda p: (p.dir(".git"), editor._repo_root(Path(p.write("src/a.c"))))[1]),
        value("unmarked", lambda p: editor._repo_root(Path("/"))),
        raises(AttributeError, "not a Path", lambda p: editor._repo_root("/tmp")),
    ],
    "_cpp_context": [
        value("source", lambda p: (p.dir("include"), editor._cpp_context(p.write("src/m.c")))[1]),
        value("header", lambda p: editor._cpp_context(p.write("include/m.h"))),
        raises(TypeError, "not a path", lambda p: editor._cpp_context(3)),
    ],
    "_java_context": [
        value("package layout", lambda p: (p.dir("target/classes"), editor._java_context(p.write("pkg/A.java",
                                                                                                 JAVA_ERR)))[1]),
        value("other suffix", lambda p: editor._java_context(p.write("a.txt"))),
        value("unreadable", lambda p: editor._java_context(p.dir("Dir.java"))),
        raises(UnicodeDecodeError, "not UTF-8", lambda p: editor._java_context(p.write("B.java", data=b"\xff"))),
    ],
    "_compile_errors": [
        value("c errors", lambda p: _compile(p, "c", "m.c", C_ERR)),
        value("c clean", lambda p: _compile(p, "c", "m.c", "int x;\n")),
        value("java errors", lambda p: _compile(p, "java", "pkg/A.java", JAVA_ERR)),
        value("missing compiler", lambda p: editor._compile_errors("no-such-cc", "c", editor._COMPILER_LANGS["c"],
                                                                 p.write("m.c"), ([], p.r))),
        value("gone working directory", lambda p: _compile(p, "c", "m.c", C_ERR, cwd=p.gone("nowhere"))),
        raises(ValueError, "context does not unpack", lambda p: editor._compile_errors(
            "gcc", "c", editor._COMPILER_LANGS["c"], p.write("m.c"), (1, 2, 3))),
        raises(KeyError, "configuration without std", lambda p: editor._compile_errors(
            "gcc", "c", {}, p.write("m.c"), ([], p.r))),
        raises(RuntimeError, "run raises", lambda p: _compile(p, "c", "m.c", C_ERR),
               subprocess=type("Sub", (), {"run": staticmethod(failing), "SubprocessError": OSError})),
    ],
    "_pyflakes_errors": [
        value("errors", lambda p: editor._pyflakes_errors(p.write("e.py", PY_ERR))),
        value("clean", lambda p: editor._pyflakes_errors(p.write("c.py", "x = 1\n"))),
        value("unreadable", lambda p: editor._pyflakes_errors(p.gone("none.py"))),
        raises(UnicodeDecodeError, "not UTF-8", lambda p: editor._pyflakes_errors(p.write("b.py", data=b"\xff"))),
    ],
    "_semantic_errfn": [
        value("compiled language", lambda p: editor._semantic_errfn(p.write("src/m.c"), "c")),
        value("python", lambda p: editor._semantic_errfn(p.write("a.py"), "python")),
        value("no analyser", lambda p: editor._semantic_errfn(p.write("a.js"), "javascript")),
        raises(TypeError, "unhashable language", lambda p: editor._semantic_errfn(p.write("a.py"), [])),
    ],
    "_semantic_delta_check": [
        value("new error", lambda p: editor._semantic_delta_check(p.write("e.py", PY_ERR), "python", "x = 1\n")),
        value("same errors", lambda p: editor._semantic_delta_check(p.write("e.py", PY_ERR), "python", PY_ERR)),
        value("new c error", lambda p: editor._semantic_delta_check(p.write("src/m.c", C_ERR), "c", "int x;\n")),
        value("no baseline", lambda p: editor._semantic_delta_check(p.write("e.py", PY_ERR), "python", None)),
        raises(RuntimeError, "analyser raises on the earlier text", lambda p: editor._semantic_delta_check(
            p.write("e.py", PY_ERR), "python", "x = 1\n"), _pyflakes_errors=_fails_second()),
    ],
    "commit_time_check": [
        value("findings", lambda p: editor.commit_time_check({p.write("e.py", PY_ERR): "x = 1\n",
                                                              p.write("src/m.c", C_ERR): "int x;\n",
                                                              p.gone("gone.py"): None,
                                                              p.write("n.txt"): "old\n"})),
        raises(AttributeError, "not a mapping", lambda p: editor.commit_time_check([])),
        raises(ValueError, "items do not unpack", lambda p: editor.commit_time_check(
            type("M", (), {"items": lambda self: [(1, 2, 3)]})())),
    ],
    "session_diff": [
        value("edits, a creation and a gone file", lambda p: editor.session_diff({
            p.write("a.py", "x = 2\n"): "x = 1\n", p.write("new.py"): None, p.gone("gone.py"): "old\n",
            p.write("same.txt", "s\n"): "s\n"})),
        value("mapping that is not a dict", lambda p: editor.session_diff(_Pairs([(p.write("a.py"), "z\n")]))),
        raises(TypeError, "path not a str", lambda p: editor.session_diff({Path(p.write("a.py")): "x"})),
        raises(TypeError, "first-touch text not a str", lambda p: editor.session_diff({p.write("a.py"): b"x"})),
        raises(UnicodeDecodeError, "not UTF-8", lambda p: editor.session_diff({p.write("b", data=b"\xff"): ""})),
    ],
    "take_snapshot": [
        value("existing file", lambda p: editor.take_snapshot({"ir": [1]}, p.write("a.py"))),
        value("file not there yet", lambda p: editor.take_snapshot({}, p.gone("new.py"))),
        value("no file", lambda p: editor.take_snapshot({}, None)),
        raises(IsADirectoryError, "directory", lambda p: editor.take_snapshot({}, p.dir("d"))),
        raises(UnicodeDecodeError, "not UTF-8", lambda p: editor.take_snapshot({}, p.write("b", data=b"\xff"))),
        raises(TypeError, "path not a str", lambda p: editor.take_snapshot({}, 3)),
    ],
    "rollback_steps": [
        value("restore, delete, no file", lambda p: editor.rollback_steps(_stack(p), 3)),
        refused("steps below 1", lambda p: editor.rollback_steps(_stack(p), 0)),
        refused("more steps than records", lambda p: editor.rollback_steps(_stack(p), 9)),
        refused("a created file already gone", lambda p: editor.rollback_steps(
            [editor.take_snapshot({}, p.gone("never.txt"))], 1)),
        raises(TypeError, "stack not a list", lambda p: editor.rollback_steps(tuple(_stack(p)), 1)),
        raises(TypeError, "record not a dict", lambda p: editor.rollback_steps(["record"], 1)),
        raises(KeyError, "record without raw", lambda p: editor.rollback_steps([{"path": None, "text_before": None}],
                                                                                1)),
        raises(TypeError, "path not a str", lambda p: editor.rollback_steps(
            [{"ts": 0, "path": b"x", "text_before": None, "raw": 1}], 1)),
        raises(IsADirectoryError, "target became a directory", lambda p: editor.rollback_steps(
            [{"ts": 0, "path": p.dir("d"), "text_before": "x\n", "raw": 1}], 1)),
        raises(TypeError, "steps not an int", lambda p: editor.rollback_steps(_stack(p), 1.0)),
    ],
    "ledger_load": [
        value("no ledger", lambda p: editor.ledger_load(p.r + "/fresh")),
        value("steps", lambda p: (editor.ledger_append(p.r, {"x": 1}), editor.ledger_load(p.r))[1]),
        value("unusable ledger", lambda p: (_ledger(p.r, b"{broken"), editor.ledger_load(p.r))[1]),
        raises(TypeError, "not an object", lambda p: (_ledger(p.r, b"[1]"), editor.ledger_load(p.r))[1]),
    ],
    "ledger_append": [
        value("append", lambda p: (_ledger(p.r, b'{"steps": []}'), editor.ledger_append(p.r, {"file": "a.py"}))[1]),
        raises(TypeError, "not a mapping", lambda p: editor.ledger_append(p.r, 5)),
        raises(TypeError, "not JSON", lambda p: editor.ledger_append(p.r, {"bad": {1, 2}})),
        raises(AttributeError, "steps without append", lambda p: (
            _ledger(p.r, b'{"steps": {"a": 1}}'), editor.ledger_append(p.r, {}))[1]),
    ],
    "ledger_mark_rolled_back": [
        value("mark", lambda p: (_ledger(p.r, b'{"steps": [{"n": 1}, {"n": 2}]}'),
                                 editor.ledger_mark_rolled_back(p.r, 1))[1]),
        value("count below 1", lambda p: editor.ledger_mark_rolled_back(p.r, -3)),
        raises(TypeError, "count not an int", lambda p: editor.ledger_mark_rolled_back(p.r, 1.0)),
        raises(AttributeError, "entry not an object", lambda p: (
            _ledger(p.r, b'{"steps": [1]}'), editor.ledger_mark_rolled_back(p.r, 1))[1]),
    ],
    "static_diff": [
        value("every kind of change", lambda p: editor.static_diff(MAP_BEFORE, MAP_AFTER)),
        value("cap of 1", lambda p: editor.static_diff(MAP_BEFORE, MAP_AFTER, cap=1)),
        value("ids that are not exact str", lambda p: editor.static_diff(
            {"edges": [{"caller": _Id("a::f"), "callee": _Id("a::g")}]}, {"symbols": [_Id("a::h")]})),
        value("no change", lambda p: editor.static_diff({}, {})),
        raises(KeyError, "edge without callee", lambda p: editor.static_diff({"edges": [{"caller": "a"}]}, {})),
        raises(TypeError, "unhashable id", lambda p: editor.static_diff({"edges": [{"caller": [], "callee": 1}]}, {})),
        raises(AttributeError, "scope id not a str", lambda p: editor.static_diff({"defs": {1: {}}}, {})),
        raises(TypeError, "cap not an int", lambda p: editor.static_diff({}, {}, "10")),
    ],
}


def run_case(case, project):
    """Makes the call with its patches in place and returns what came of it."""
    saved = dict(vars(editor))
    for name, replacement in case.patch.items():
        setattr(editor, name, replacement)
    try:
        result = case.call(project)
    except Exception as error:
        return type(error)
    finally:
        restore(editor, saved)
    return REFUSAL if isinstance(result, dict) and "error" in result else VALUE


def clean_caches():
    re.purge()
    linecache.clearcache()
    sys._clear_internal_caches()
    for _ in range(3):
        gc.collect()


def tree_sitter_imbalance():
    """How far each tree-sitter object the grammars create moves the reference total on its own.

    tree-sitter 0.25's binding initialises Node and Tree objects twice and never releases the
    reference each object holds to its heap type, so every object it makes raises the total for
    good: by its class's refcount gain for the type references, and by half that again for the
    second initialisation. The gain per class is measured here on plain tree-sitter calls, so the
    checks below can take out exactly what tree-sitter's own objects add (nothing, with a
    tree-sitter that keeps its counts straight) and judge the module on the rest. The module
    never touches these class objects itself, so nothing of its own is taken out."""
    try:
        import tree_sitter
        from tree_sitter_language_pack import get_language
    except ImportError:
        return {}
    language = get_language("python")
    parser = tree_sitter.Parser(language)
    tree = parser.parse(b"x = (\n")
    makers = {tree_sitter.Language: lambda: get_language("python"), tree_sitter.Parser: lambda: tree_sitter.Parser(language),
              tree_sitter.Tree: lambda: parser.parse(b"x = (\n"), tree_sitter.Node: lambda: tree.root_node}
    ratios = {}
    for cls, make in makers.items():
        for _ in range(50):
            make()
        clean_caches()
        total, held = sys.gettotalrefcount(), sys.getrefcount(cls)
        for _ in range(1000):
            make()
        clean_caches()
        gained = sys.getrefcount(cls) - held
        ratios[cls] = (sys.gettotalrefcount() - total) / gained if gained else 0.0
    return ratios


IMBALANCE = tree_sitter_imbalance() if hasattr(sys, "gettotalrefcount") else {}


def counts():
    """(reference total less tree-sitter's own imbalance, live memory blocks)."""
    foreign = sum(ratio * sys.getrefcount(cls) for cls, ratio in IMBALANCE.items())
    return round(sys.gettotalrefcount() - foreign), sys.getallocatedblocks()


def growth(batch):
    """(reference deltas, block deltas) of RUNS repetitions of batch(), after WARMUPS."""
    refs, blocks = [], []
    for _ in range(WARMUPS):
        batch()
    clean_caches()
    last = counts()
    for _ in range(RUNS):
        batch()
        clean_caches()
        now = counts()
        refs.append(now[0] - last[0])
        blocks.append(now[1] - last[1])
        last = counts()
    return refs, blocks


def leaked(deltas):
    # Noise comes and goes; a leak grows on every repetition.
    return all(delta > 0 for delta in deltas)


@pytest.fixture
def project(tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    monkeypatch.chdir(tmp_path)
    root = tmp_path / "proj"
    root.mkdir()
    return Project(tmp_path)


def test_every_function_has_cases():
    assert sorted(set(FUNCTIONS) - set(CASES)) == []


@pytest.mark.parametrize("name", sorted(CASES))
def test_representative_calls_do_not_leak(name, project):
    cases = CASES[name]
    outcomes = [run_case(case, project) for case in cases]
    wrong = [(case.label, outcome) for case, outcome in zip(cases, outcomes) if outcome is not case.expect]
    assert wrong == [], "cases that no longer take the path they are meant to"
    refs, blocks = growth(lambda: [run_case(case, project) for case in cases])
    assert not leaked(refs) and not leaked(blocks), f"references {refs}, blocks {blocks}"


FUZZ_CALLS = 30


@pytest.mark.parametrize("name", sorted(FUNCTIONS))
def test_hostile_calls_do_not_leak(name, tmp_path):
    function = FUNCTIONS[name]
    sandbox = Sandbox(tmp_path / "sandbox")
    saved = dict(vars(editor))
    tamperable = [key for key in saved if not key.startswith("__")]
    seed = sum(map(ord, name))

    def batch():
        values = Values(random.Random(seed), sandbox)
        sandbox.reset()
        values.refresh_pool()
        for _ in range(FUZZ_CALLS):
            sandbox.ensure_cwd()
            args, kwargs = call_shape(values, function)
            if values.rng.random() < 0.2:
                tamper(values, editor, tamperable)
            try:
                function(*args, **kwargs)
            except (Exception, FuzzInterrupt):
                pass
            finally:
                restore(editor, saved)

    cwd = os.getcwd()
    try:
        refs, blocks = growth(batch)
    finally:
        os.chdir(cwd)
    assert not leaked(refs) and not leaked(blocks), f"references {refs}, blocks {blocks}"
