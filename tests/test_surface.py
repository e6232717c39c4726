"""What the host sees: the stubbed names and signatures, call errors and bad input raised as Python raises them."""

import ast
import inspect
from pathlib import Path

import pytest

import editor

STUBS = ast.parse((Path(__file__).resolve().parent.parent / "editor.pyi").read_text(encoding="utf-8"))
STUBBED = {node.name: node.args for node in STUBS.body if isinstance(node, ast.FunctionDef)}
DECLARED = {node.target.id for node in STUBS.body if isinstance(node, ast.AnnAssign)}
OWN = {name for name, value in vars(editor).items() if getattr(value, "__module__", None) == "editor"}


def test_the_stubs_declare_exactly_what_the_module_defines():
    assert OWN == set(STUBBED) and DECLARED <= set(vars(editor))


@pytest.mark.parametrize("name", sorted(STUBBED))
def test_signature_matches_the_stub(name):
    args = STUBBED[name]
    assert not (args.vararg or args.kwarg or args.kwonlyargs or args.posonlyargs)
    defaults = [inspect.Parameter.empty] * (len(args.args) - len(args.defaults))
    defaults += [ast.literal_eval(d) for d in args.defaults]
    stub = [(a.arg, inspect.Parameter.POSITIONAL_OR_KEYWORD, d) for a, d in zip(args.args, defaults)]
    assert [(p.name, p.kind, p.default) for p in inspect.signature(getattr(editor, name)).parameters.values()] == stub
    # A docstring that still holds the signature block means the host could not read it.
    assert getattr(editor, name).__doc__ and "--\n" not in getattr(editor, name).__doc__


class OddLower(str):
    # Its matching form is not a str: once read as one instead of raising.
    def replace(self, old, new):
        return self

    def lower(self):
        return 12345


# A str is a TypeError's text.
@pytest.mark.parametrize(
    ("function", "args", "kwargs", "error"),
    [
        ("resolve_target", (), {},
         "{}() missing 3 required positional arguments: 'root', 'path_str', and 'known_paths'"),
        ("resolve_target", ("/r",), {}, "{}() missing 2 required positional arguments: 'path_str' and 'known_paths'"),
        ("_within_root", ("/r",), {}, "{}() missing 1 required positional argument: 'path'"),
        ("_within_root", ("/r", "/r", "/x"), {}, "{}() takes 2 positional arguments but 3 were given"),
        ("static_diff", ({}, {}, 1, 2), {}, "{}() takes from 2 to 3 positional arguments but 4 were given"),
        ("_within_root", ("/r",), {"path": "/r", "extra": 1}, "{}() got an unexpected keyword argument 'extra'"),
        ("_within_root", ("/r",), {"root": "/r"}, "{}() got multiple values for argument 'root'"),
        ("apply_block", ("/r", Path("/"), 1, None, "X"), {}, "{}() argument 'abs_path' must be str, not PosixPath"),
        ("apply_block", ("/r", "/r/f", 1, None, None), {}, "{}() argument 'content' must be str, not None"),
        ("apply_block", ("/r", "/r/f", 1, None, "X"), {"anchor": b"b"},
         "{}() argument 'anchor' must be str or None, not bytes"),
        ("_within_root", ("/r", "/r/a\0b"), {}, ValueError("lstat: embedded null character in path")),
        ("_within_root", (b"/r", b"/r/a"), {}, "path must be str, not bytes"),
        ("resolve_target", ("/r", 3, []), {}, AttributeError("'int' object has no attribute 'replace'")),
        ("resolve_target", ("/r", "a.py", ["a.py", 7]), {}, AttributeError("'int' object has no attribute 'replace'")),
        ("resolve_target", ("/r", "a.py", None), {}, "'NoneType' object is not iterable"),
        ("resolve_target", (None, "a.py", ["a.py"]), {}, "expected str, bytes or os.PathLike object, not NoneType"),
        ("resolve_target", ("/r", OddLower("a.py"), ["x.py"]), {}, 'can only concatenate str (not "int") to str'),
    ],
)
def test_call_errors_and_bad_input_raise_as_python_would(function, args, kwargs, error):
    error = error if isinstance(error, Exception) else TypeError(error.format(function))
    with pytest.raises(type(error)) as caught:
        getattr(editor, function)(*args, **kwargs)
    assert str(caught.value) == str(error)
