import ast
import inspect
from pathlib import Path

import pytest

import editor

SIGNATURES = {
    "session_diff": "(touched)",
    "take_snapshot": "(raw_data, abs_path)",
    "rollback_steps": "(snapshots, steps)",
    "ledger_load": "(root)",
    "ledger_append": "(root, entry)",
    "ledger_mark_rolled_back": "(root, count)",
    "static_diff": "(before, after, cap=10)",
}
STUBS = {node.name: node for node in ast.parse((Path(__file__).parent.parent / "editor.pyi").read_text()).body
         if isinstance(node, ast.FunctionDef)}


@pytest.mark.parametrize("name, signature", SIGNATURES.items())
def test_signature_module_and_stub(name, signature):
    function = getattr(editor, name)
    assert str(inspect.signature(function)) == signature
    assert function.__module__ == "editor" and "--" not in function.__doc__
    stub = STUBS[name].args
    defaults = ", ".join(f"{a.arg}={ast.literal_eval(d)}" if d else a.arg
                         for a, d in zip(stub.args, [None] * (len(stub.args) - len(stub.defaults)) + stub.defaults))
    assert f"({defaults})" == signature


def test_record_operations_are_bound_in_namespace_order():
    assert [n for n in vars(editor) if n in {*SIGNATURES, "resolve_target", "LEDGER_NAME"}] == [
        "LEDGER_NAME", "resolve_target", *SIGNATURES]
