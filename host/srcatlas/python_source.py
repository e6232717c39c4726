"""The record of one Python source: its symbols, calls, imports and module-level definitions.

A record depends on the text alone (never on the file's place in the project), so records can
be shared between files with the same content; relative imports keep their leading dots and are
resolved against the file's place when the index is built.
"""

import ast
import re

_CONSTANT_NAME = re.compile(r"^_?[A-Z][A-Z0-9_]*$")
_DEFS = (ast.FunctionDef, ast.AsyncFunctionDef)


def index_python(text: str) -> dict:
    """{"kind": "python", "symbols": [[qual, kind, line]], "calls": {caller: [target]},
    "imports": {name: [module, attr or None]}, "stars": [module], "defs": {"<module>": ...}}.

    A call target is the dotted text of the called expression ("f", "m.f", "self.f"), or "." and
    the attribute when the receiver is not a plain name chain (`make().run()` gives ".run")."""
    try:
        tree = ast.parse(text.removeprefix("\ufeff"))
    except (SyntaxError, ValueError, RecursionError, MemoryError):
        # A file that does not parse keeps no symbols: the static diff then shows what the
        # breaking edit removed, which is what the model needs to see.
        return {"kind": "python", "symbols": [], "calls": {}, "imports": {}, "stars": [], "defs": {}}
    symbols, calls, module_defs = [], {}, {}
    constants = set()
    for node in tree.body:
        if isinstance(node, _DEFS):
            symbols.append([node.name, "function", node.lineno])
            _add_calls(calls, node.name, node)
        elif isinstance(node, ast.ClassDef):
            symbols.append([node.name, "class", node.lineno])
            for item in node.body:
                if isinstance(item, _DEFS):
                    qual = f"{node.name}.{item.name}"
                    symbols.append([qual, "method", item.lineno])
                    _add_calls(calls, qual, item)
                else:
                    _add_calls(calls, node.name, item)
            for part in node.decorator_list + node.bases + node.keywords:
                _add_calls(calls, "<module>", part)
        else:
            _add_calls(calls, "<module>", node)
            if isinstance(node, (ast.Assign, ast.AnnAssign, ast.AugAssign)) and node.value is not None:
                targets = node.targets if isinstance(node, ast.Assign) else [node.target]
                rhs = ast.get_source_segment(text, node.value) or ""
                for target in targets:
                    for name in _bound_names(target):
                        module_defs.setdefault(name, []).append({"line": node.lineno, "rhs": rhs})
                        if _CONSTANT_NAME.match(name) and name not in constants:
                            constants.add(name)
                            symbols.append([name, "constant", node.lineno])
    imports, stars = _imports(tree)
    calls = {caller: list(targets) for caller, targets in calls.items()}
    return {"kind": "python", "symbols": symbols, "calls": calls, "imports": imports, "stars": stars,
            "defs": {"<module>": module_defs}}


def _imports(tree):
    """Module-wide bindings of import statements; the first binding of a name wins, and the
    breadth-first walk meets top-level statements before those nested in functions."""
    imports, stars = {}, []
    for node in ast.walk(tree):
        if isinstance(node, ast.Import):
            for alias in node.names:
                if alias.asname:
                    imports.setdefault(alias.asname, [alias.name, None])
                else:
                    head = alias.name.split(".")[0]
                    imports.setdefault(head, [head, None])
        elif isinstance(node, ast.ImportFrom):
            module = "." * node.level + (node.module or "")
            for alias in node.names:
                if alias.name == "*":
                    if module not in stars:
                        stars.append(module)
                else:
                    imports.setdefault(alias.asname or alias.name, [module, alias.name])
    return imports, stars


def _bound_names(target):
    if isinstance(target, ast.Name):
        yield target.id
    elif isinstance(target, (ast.Tuple, ast.List)):
        for element in target.elts:
            yield from _bound_names(element)


def _add_calls(calls, caller, node):
    for sub in ast.walk(node):
        if isinstance(sub, ast.Call):
            target = _target(sub.func)
            if target:
                calls.setdefault(caller, {})[target] = None


def _target(func):
    parts = []
    while isinstance(func, ast.Attribute):
        parts.append(func.attr)
        func = func.value
    if isinstance(func, ast.Name):
        parts.append(func.id)
    elif parts:
        parts = [parts[0], ""]
    return ".".join(reversed(parts))
