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
    module_defs: dict[str, list[dict[str, int | str]]] = {}
    symbols, constants = [], set()
    scan = _Scan()
    for node in tree.body:
        if isinstance(node, _DEFS):
            symbols.append([node.name, "function", node.lineno])
            scan.run(node.name, node)
        elif isinstance(node, ast.ClassDef):
            symbols.append([node.name, "class", node.lineno])
            for item in node.body:
                if isinstance(item, _DEFS):
                    qual = f"{node.name}.{item.name}"
                    symbols.append([qual, "method", item.lineno])
                    scan.run(qual, item)
                else:
                    scan.run(node.name, item)
            for part in node.decorator_list + node.bases + node.keywords:
                scan.run("<module>", part)
        else:
            scan.run("<module>", node)
            if isinstance(node, (ast.Assign, ast.AnnAssign, ast.AugAssign)) and node.value is not None:
                targets = node.targets if isinstance(node, ast.Assign) else [node.target]
                rhs = ast.get_source_segment(text, node.value) or ""
                for target in targets:
                    for name in _bound_names(target):
                        module_defs.setdefault(name, []).append({"line": node.lineno, "rhs": rhs})
                        if _CONSTANT_NAME.match(name) and name not in constants:
                            constants.add(name)
                            symbols.append([name, "constant", node.lineno])
    # An import at the top of the module wins over one of the same name inside a function.
    imports = scan.nested_imports | scan.top_imports
    return {"kind": "python", "symbols": symbols,
            "calls": {caller: list(targets) for caller, targets in scan.calls.items()},
            "imports": imports, "stars": scan.stars, "defs": {"<module>": module_defs}}


class _Scan:
    """One pass over each subtree collecting its calls and import statements. The child fields
    of each node class are looked up once, which makes this several times faster than
    `ast.walk`."""

    _fields: dict = {}

    def __init__(self):
        self.calls, self.top_imports, self.nested_imports, self.stars = {}, {}, {}, []

    def run(self, caller, root):
        found = self.calls.get(caller) or {}
        stack = [root]
        while stack:
            node = stack.pop()
            kind = type(node)
            if kind is ast.Call:
                target = _target(node.func)
                if target:
                    found[target] = None
            elif kind is ast.Import or kind is ast.ImportFrom:
                self._import(node, self.top_imports if node is root else self.nested_imports)
            fields = self._fields.get(kind)
            if fields is None:
                fields = self._fields[kind] = tuple(f for f in getattr(kind, "_fields", ()) if f != "ctx")
            for field in fields:
                value = getattr(node, field, None)
                if type(value) is list:
                    stack.extend(reversed(value))
                elif isinstance(value, ast.AST):
                    stack.append(value)
        if found:
            self.calls[caller] = found

    def _import(self, node, imports):
        if isinstance(node, ast.Import):
            for alias in node.names:
                head = alias.name.split(".")[0]
                imports.setdefault(alias.asname or head, [alias.name if alias.asname else head, None])
            return
        module = "." * node.level + (node.module or "")
        for alias in node.names:
            if alias.name != "*":
                imports.setdefault(alias.asname or alias.name, [module, alias.name])
            elif module not in self.stars:
                self.stars.append(module)


def _bound_names(target):
    if isinstance(target, ast.Name):
        yield target.id
    elif isinstance(target, (ast.Tuple, ast.List)):
        for element in target.elts:
            yield from _bound_names(element)


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
