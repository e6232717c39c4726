"""A minimal code indexer: the stand-in for the host's `srcatlas`.

It indexes the Python and CSS sources of a project into a raw IR, a plain JSON-serialisable
dict holding one record per file, and builds from that IR the enriched map the static diff
reads:

- "edges": call edges {"caller": id, "callee": id}, callees resolved by name within the project;
- "symbols": {id: {"kind", "line"}} for functions, classes, methods and module constants;
- "defs": {scope id: {name: [{"line", "rhs"}]}} for module scopes ("{file}::<module>") and CSS
  declaration scopes ("{file}::css::{selector}").

Ids are "{file}::{qualified name}" with the file relative to the root, "/"-separated.
`update` re-parses one file and returns a new IR; it never changes the IR it was given, so an
IR held by a snapshot stays exactly as it was taken.
"""

import ast
import os
import re
from pathlib import Path

SCHEMA = 3
_CONSTANT_NAME = re.compile(r"^_?[A-Z][A-Z0-9_]*$")
_SKIP_DIRS = {".git", ".venv", "__pycache__", "node_modules", "build"}


def build(root):
    """The raw IR of the files under `root` (symbols and definitions for Python and CSS)."""
    files = {}
    for path in sorted(Path(root).rglob("*")):
        if _SKIP_DIRS.intersection(path.relative_to(root).parts[:-1]) or not path.is_file():
            continue
        files[path.relative_to(root).as_posix()] = _index_file(path)
    return {"schema": SCHEMA, "files": files}


def update(raw, root, abs_path):
    """A new raw IR with the file at `abs_path` re-parsed, or with it (and, for a removed
    directory, everything below it) dropped when it is gone."""
    rel = Path(os.path.relpath(abs_path, root)).as_posix()
    if os.path.isfile(abs_path):
        files = dict(raw["files"])
        files[rel] = _index_file(Path(abs_path))
    else:
        files = {k: v for k, v in raw["files"].items() if k != rel and not k.startswith(rel + "/")}
    return {"schema": SCHEMA, "files": files}


def enrich(raw):
    """The enriched map (edges, symbols, defs) of a raw IR, without reading any file."""
    symbols, defs = {}, {}
    for rel, record in raw["files"].items():
        for qual, kind, line in record.get("symbols", []):
            symbols[f"{rel}::{qual}"] = {"kind": kind, "line": line}
        for scope, names in record.get("defs", {}).items():
            defs[f"{rel}::{scope}"] = {name: [dict(d) for d in entries] for name, entries in names.items()}
    return {"edges": _resolve_edges(raw["files"], symbols), "symbols": symbols, "defs": defs}


def _index_file(path):
    """The file's record: symbols and definitions for Python and CSS, presence for the rest."""
    suffix = path.suffix.lower()
    if suffix not in (".py", ".css"):
        return {"kind": "file"}
    try:
        text = path.read_text(encoding="utf-8")
    except (OSError, UnicodeDecodeError):
        return {"kind": "file"}
    if suffix == ".py":
        return _index_python(text)
    if suffix == ".css":
        return {"kind": "css", "defs": _css_scopes(text)}
    return {"kind": "file"}


# --- Python -----------------------------------------------------------------------------

def _index_python(text):
    try:
        tree = ast.parse(text)
    except (SyntaxError, ValueError):
        # A file that does not parse keeps no symbols: the static diff then shows what the
        # breaking edit removed, which is what the model needs to see.
        return {"kind": "python", "symbols": [], "calls": [], "imports": {}, "defs": {}}
    symbols, calls, module_defs, imports = [], [], {}, {}
    for node in tree.body:
        if isinstance(node, (ast.Import, ast.ImportFrom)):
            for alias in node.names:
                imports[alias.asname or alias.name.split(".")[0]] = alias.name
        elif isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)):
            symbols.append((node.name, "function", node.lineno))
            calls += _calls_in(node, node.name, None)
        elif isinstance(node, ast.ClassDef):
            symbols.append((node.name, "class", node.lineno))
            for item in node.body:
                if isinstance(item, (ast.FunctionDef, ast.AsyncFunctionDef)):
                    qual = f"{node.name}.{item.name}"
                    symbols.append((qual, "method", item.lineno))
                    calls += _calls_in(item, qual, node.name)
        elif isinstance(node, (ast.Assign, ast.AnnAssign, ast.AugAssign)) and node.value is not None:
            targets = node.targets if isinstance(node, ast.Assign) else [node.target]
            rhs = ast.get_source_segment(text, node.value) or ""
            for target in targets:
                for name in _bound_names(target):
                    module_defs.setdefault(name, []).append({"line": node.lineno, "rhs": rhs})
                    if _CONSTANT_NAME.match(name) and not any(s[0] == name for s in symbols):
                        symbols.append((name, "constant", node.lineno))
        if not isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
            calls += _calls_in(node, "<module>", None)
    return {"kind": "python", "symbols": symbols, "calls": calls, "imports": imports,
            "defs": {"<module>": module_defs}}


def _bound_names(target):
    if isinstance(target, ast.Name):
        yield target.id
    elif isinstance(target, (ast.Tuple, ast.List)):
        for element in target.elts:
            yield from _bound_names(element)


def _calls_in(node, caller, class_name):
    """(caller, callee name, receiver class or None) for each call under `node`."""
    found = []
    for sub in ast.walk(node):
        if not isinstance(sub, ast.Call):
            continue
        func = sub.func
        if isinstance(func, ast.Name):
            found.append((caller, func.id, None))
        elif isinstance(func, ast.Attribute):
            on_self = isinstance(func.value, ast.Name) and func.value.id == "self"
            found.append((caller, func.attr, class_name if on_self else ""))
    return found


def _resolve_edges(files, symbols):
    """Call edges whose callee is a function, class or method of the project, by name."""
    by_name = {}
    for sid, info in symbols.items():
        if info["kind"] != "constant":
            by_name.setdefault(sid.rsplit("::", 1)[1].rsplit(".", 1)[-1], []).append(sid)
    edges, seen = [], set()
    for rel, record in files.items():
        for caller, name, receiver in record.get("calls", []):
            candidates = by_name.get(name, [])
            if receiver:  # self.name(): a method of the caller's own class
                candidates = [c for c in candidates if c == f"{rel}::{receiver}.{name}"]
            elif receiver is None:  # a bare name: this file first, then an imported one
                local = [c for c in candidates if c.startswith(f"{rel}::")]
                candidates = local or (candidates if name in record.get("imports", {}) else [])
            if len(candidates) != 1:
                continue  # unresolved or ambiguous: no edge rather than a wrong one
            pair = (f"{rel}::{caller}", candidates[0])
            if pair not in seen:
                seen.add(pair)
                edges.append({"caller": pair[0], "callee": pair[1]})
    return edges


# --- CSS --------------------------------------------------------------------------------

_CSS_COMMENT = re.compile(r"/\*.*?\*/", re.S)


def _css_scopes(text):
    """{"css::{selector}": {property: [{"line", "rhs"}]}} for each rule, at-rules nested."""
    clean = _CSS_COMMENT.sub(lambda m: re.sub(r"[^\n]", " ", m.group()), text)
    scopes, stack, start = {}, [], 0
    for match in re.finditer(r"[{};]", clean):
        chunk = clean[start:match.start()]
        if match.group() == "{":
            stack.append(" ".join(chunk.split()))
        elif stack:
            if ":" in chunk:
                name, _, value = chunk.partition(":")
                line = clean.count("\n", 0, start + len(chunk) - len(chunk.lstrip())) + 1
                scope = scopes.setdefault("css::" + " ".join(stack), {})
                scope.setdefault(name.strip(), []).append({"line": line, "rhs": value.strip()})
            if match.group() == "}":
                stack.pop()
        start = match.end()
    return scopes
