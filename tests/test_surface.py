"""What the host sees on import: names in binding order, signatures, stubs, call errors."""

import ast
import inspect
from pathlib import Path

import pytest

import editor

STUBS = Path(__file__).resolve().parent.parent / "editor.pyi"

# Every name of the namespace in binding order, with the parameter list of each function.
NAMESPACE = [
    ("difflib", None), ("json", None), ("os", None), ("re", None), ("shutil", None),
    ("subprocess", None), ("tempfile", None), ("time", None), ("Path", None),
    ("projstore", None), ("run_deep", None), ("LEDGER_NAME", None),
    ("_within_root", "(root, path)"),
    ("resolve_target", "(root, path_str, known_paths)"),
    ("apply_block", "(root, abs_path, start_line, end_line, content, mode='replace', anchor=None)"),
    ("_first_error_node", "(node)"),
    ("_all_error_nodes", "(node, out)"),
    ("_treesitter_error", "(language, text)"),
    ("_treesitter_error_counts", "(language, text)"),
    ("_WEB_KIND_LANG", None), ("_WEB_EXT_LANG", None),
    ("_native_language", "(ext)"),
    ("_web_error_counts", "(text)"),
    ("_GCC_DIAG", None), ("_JAVAC_DIAG", None), ("_CPP_SRC_EXT", None),
    ("_find_exe", "(names)"),
    ("_repo_root", "(start)"),
    ("_cpp_context", "(abs_path)"),
    ("_PKG_RE", None),
    ("_java_context", "(abs_path)"),
    ("_COMPILER_LANGS", None),
    ("_compile_errors", "(exe, lang, cfg, abs_path, ctx)"),
    ("_PYFLAKES_ERROR_TYPES", None),
    ("_pyflakes_errors", "(abs_path)"),
    ("_semantic_errfn", "(abs_path, lang)"),
    ("_semantic_delta_check", "(abs_path, lang, before_text)"),
    ("commit_time_check", "(touched)"),
    ("session_diff", "(touched)"),
    ("syntax_check", "(abs_path, before_text=None)"),
    ("create_file", "(root, abs_path, content)"),
    ("delete_file", "(root, abs_path)"),
    ("take_snapshot", "(raw_data, abs_path)"),
    ("rollback_steps", "(snapshots, steps)"),
    ("ledger_load", "(root)"),
    ("ledger_append", "(root, entry)"),
    ("ledger_mark_rolled_back", "(root, count)"),
    ("static_diff", "(before, after, cap=10)"),
]
ORDER = [name for name, _ in NAMESPACE]
BOUND = [name for name in vars(editor) if not (name.startswith("__") and name.endswith("__"))]
FUNCTIONS = [(name, sig) for name, sig in NAMESPACE if sig is not None]


def stub_signatures():
    tree = ast.parse(STUBS.read_text(encoding="utf-8"))
    found = {}
    for node in tree.body:
        if isinstance(node, ast.FunctionDef):
            args = node.args
            defaults = [None] * (len(args.args) - len(args.defaults)) + list(args.defaults)
            found[node.name] = [
                (a.arg, None if d is None else ast.literal_eval(d)) for a, d in zip(args.args, defaults)
            ]
            assert not (args.vararg or args.kwarg or args.kwonlyargs or args.posonlyargs), node.name
    return found


def test_every_name_is_bound_in_namespace_order():
    assert BOUND == ORDER


def test_imports_and_constants():
    import deeprun
    import json
    import pathlib
    import projstore

    assert editor.json is json and editor.Path is pathlib.Path
    assert editor.projstore is projstore and editor.run_deep is deeprun.run_deep
    assert editor.LEDGER_NAME == "rollback_ledger.json"


@pytest.mark.parametrize(("name", "signature"), FUNCTIONS)
def test_signature_module_and_stub(name, signature):
    function = getattr(editor, name)
    assert str(inspect.signature(function)) == signature
    assert function.__module__ == "editor"
    assert function.__doc__ and "--\n" not in function.__doc__
    stub = stub_signatures()[name]
    params = inspect.signature(function).parameters.values()
    assert stub == [(p.name, None if p.default is p.empty else p.default) for p in params]
    assert all(p.kind is p.POSITIONAL_OR_KEYWORD for p in params)


def test_module_has_design_docstring():
    assert "line-addressed" in editor.__doc__ and "rollback" in editor.__doc__.lower()


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda: editor.resolve_target(), "resolve_target() missing 3 required positional arguments: "
                                          "'root', 'path_str', and 'known_paths'"),
        (lambda: editor.resolve_target("/r"), "resolve_target() missing 2 required positional arguments: "
                                              "'path_str' and 'known_paths'"),
        (lambda: editor._within_root("/r"), "_within_root() missing 1 required positional argument: 'path'"),
        (lambda: editor._within_root("/r", "/r", "/x"), "_within_root() takes 2 positional arguments "
                                                        "but 3 were given"),
        (lambda: editor._within_root("/r", path="/r", extra=1), "_within_root() got an unexpected "
                                                                "keyword argument 'extra'"),
        (lambda: editor._within_root("/r", root="/r"), "_within_root() got multiple values for "
                                                       "argument 'root'"),
    ],
)
def test_call_errors_read_like_a_python_def(call, message):
    with pytest.raises(TypeError) as caught:
        call()
    assert str(caught.value) == message


def test_every_parameter_can_be_passed_by_name(tmp_path):
    assert editor._within_root(path=str(tmp_path / "a"), root=str(tmp_path)) is True
    resolved = editor.resolve_target(known_paths=["src/a.py"], path_str="a.py", root=str(tmp_path))
    assert resolved == str(tmp_path / "src" / "a.py")
