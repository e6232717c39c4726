"""Hostile arguments for the crash fuzzer: a sandbox of files to aim at, and values of every type
and shape a host could pass by mistake.

Everything is drawn from one `random.Random`, so a seed replays the same values in the same
order; objects that answer later (ducks, tampered module functions) carry a generator of their
own, seeded when they are made, so the order in which the module asks them does not shift the
main stream.

Safety first, since the fuzzer runs as root and the module deletes, rewrites and creates files:
a string that could reach the file system names a path inside the sandbox (absolute, without
".."), or is relative without ".." components, or holds no "/" at all (so that even ".." stays
inside: the working directory is two levels inside the sandbox). File contents may hold
anything; only `text()` makes them, and never for a path position. `check_safe` walks every
argument before a call and refuses the call if something slipped through.
"""

import inspect
import os
import random
import shutil
import sys
import zlib
from pathlib import Path

class FuzzError(Exception):
    """What the hostile objects raise."""


class FuzzInterrupt(BaseException):
    """A failure that is not an Exception: handlers for ordinary failures must let it through."""


# ---------------------------------------------------------------------------------------------
# The sandbox

PROJECT = {
    ".git/HEAD": "ref: refs/heads/main\n",
    "include/util.h": "int scale(int x, int by);\n",
    "src/m.c": '#include "util.h"\nint twice(int x) { return scale(x, 2); }\n',
    "src/k.cpp": "#include <vector>\nint n() { std::vector<int> v; return v.size(); }\n",
    "src/broken.c": "int f( {\n",
    "pkg/Main.java": "package pkg;\nclass Main { int f() { return 1; } }\n",
    "a.py": "import os\n\ndef f(x):\n    return undefined_name + x\n",
    "b.py": 'PAGE = "<div><p>hello</p></div>"\nSTYLE = "a { color: red; }"\n',
    "page.html": "<html><body><div><p>hi</p></div></body></html>\n",
    "style.css": "a { color: red; }\nb { margin: 0 }\n",
    "app.js": "function f(a) { return a + 1; }\nconst g = (x) => { return x; };\n",
    "notes.txt": "one\ntwo\r\nthree\rfour\n",
    "data.json": '{"a": [1, 2, 3]}\n',
    "sub/inner.py": "def g():\n    return 1\n",
    "sub/deep/here.txt": "x\n",
}
BINARY = {"bad.py": b"x = '\xff\xfe'\n", "bad.c": b"int \xc3\x28;\n"}
LINKS = {"link.py": "a.py", "dirlink": "sub", "dangling.txt": "missing.txt"}


class Sandbox:
    """A directory tree the fuzzed calls may do anything to, rebuilt on demand."""

    def __init__(self, top):
        self.top = Path(top).resolve()
        self.proj = self.top / "proj"
        self.cwd = self.proj / "sub" / "deep"
        self.state = self.top / "state"
        self.tmp = self.top / "tmp"

    def reset(self):
        self.top.mkdir(parents=True, exist_ok=True)
        os.chdir(self.top)
        for name in ("proj", "proj2"):
            path = self.top / name
            if path.is_symlink() or path.is_file():
                path.unlink()
            elif path.exists():
                shutil.rmtree(path)
        for relative, text in PROJECT.items():
            path = self.proj / relative
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="utf-8")
        for relative, data in BINARY.items():
            (self.proj / relative).write_bytes(data)
        for relative, target in LINKS.items():
            (self.proj / relative).symlink_to(target)
        (self.proj / "empty").mkdir()
        (self.top / "proj2").mkdir()
        (self.top / "proj2" / "x.py").write_text("x = 1\n", encoding="utf-8")
        for directory in (self.state, self.tmp):
            if not directory.is_dir():
                directory.unlink(missing_ok=True)
                directory.mkdir()
        os.chdir(self.cwd)

    def ensure_cwd(self):
        """Back into the working directory, rebuilding the tree if a call removed it."""
        if not self.cwd.is_dir():
            self.reset()
        os.chdir(self.cwd)

    def paths(self):
        """Absolute paths of what is there now and of a few names that are not (yet)."""
        found = [str(self.top)]
        for folder, dirs, files in os.walk(self.top):
            dirs.sort()
            found += [os.path.join(folder, name) for name in sorted(dirs + files)]
        found += [str(self.proj / name) for name in ("new.py", "new.c", "newdir/new.js", "x/y/z.html")]
        return found


def check_safe(value, sandbox, exempt):
    """Raises AssertionError if any string reachable from `value` could name a path outside the
    sandbox. Strings whose id is in `exempt` are file contents, never used as paths. Containers
    are read through their base classes, so replaced methods are not run."""
    top = str(sandbox.top)
    pending, seen = [value], set()
    while pending:
        item = pending.pop()
        if id(item) in seen:
            continue
        seen.add(id(item))
        if isinstance(item, (bytes, bytearray)):
            item = os.fsdecode(bytes(item))
        elif isinstance(item, Path):
            item = str(item)
        if isinstance(item, str):
            if id(item) in exempt:
                continue
            text = str.__add__("", item)
            if "/" not in text:
                continue
            assert ".." not in text.split("/"), f"unsafe path {text!r}"
            # "~name/..." is a plain relative name unless it expands (a root called "~" gives
            # the state directory "~-<hash>"); only an expanding one reaches a home directory.
            absolute = text.startswith("/") or os.path.expanduser(text) != text
            assert not absolute or text == top or text.startswith(top + "/"), f"unsafe path {text!r}"
        elif isinstance(item, dict):
            pending.extend(dict.keys(item))
            pending.extend(dict.values(item))
        elif isinstance(item, list):
            pending.extend(list.copy(item))
        elif isinstance(item, tuple):
            pending.extend(tuple.__getitem__(item, i) for i in range(tuple.__len__(item)))
        elif isinstance(item, (set, frozenset)):
            pending.extend(frozenset.union(frozenset(), item) if isinstance(item, frozenset) else set.copy(item))
        elif hasattr(item, "__dict__") and isinstance(vars(item), dict):
            pending.extend(vars(item).values())


# ---------------------------------------------------------------------------------------------
# Texts

SNIPPETS = [
    "def f(:\n", "x = 1\n", "print(undefined_name)\n", "return 5\n", "class A:\n    pass\n",
    "    indented = True\n", "if x:\n", "lambda: (yield)\n", "f'{x!r:>{w}}'\n", "async def g(): await h()\n",
    'html = "<div><p>hi</div>"\n', "css = '''a { color: red; }'''\n", "js = 'function f() { return 1; }'\n",
    "int main(void) { return 0; }\n", "int f( {\n", '#include "nothing.h"\n', "struct S { int a; };\n",
    "template <class T> T id(T t) { return t; }\n", "package pkg;\n", "class A { void f() { int x = y; } }\n",
    "import java.util.List;\n", "function f() { return 1; }\n", "const x = => ;\n", "let y = [1, 2,\n",
    "<html><body><div>\n", "</div></body></html>\n", "<p>unclosed\n", "a { color: red; }\n", "b { margin\n",
    "@media (max-width: 10px) { a { b: c } }\n", "// comment\n", "/* open comment\n", "# comment\n",
    '"""\n', "'''\n", "\\\n", "{", "}", "(", ")", "[", "]", ";", "\t", " ", "\n", "\r\n", "\r", "\x0b", "\x0c",
    "\x1c", "\x85", "\u2028", "\u2029", "\x00", "\ud800", "\udcff", "é", "İ", "ß", "😀", "\u0301", "\ufeff",
]
LINE_BREAKS = ["\n", "\r\n", "\r", "\x0b", "\x0c", "\x1c", "\x1d", "\x1e", "\x85", "\u2028", "\u2029"]
NAME_PIECES = [
    "a", "b", "x", "py", ".py", ".c", ".cpp", ".java", ".js", ".html", ".css", ".txt", ".PY", "A", "App",
    "sub", "src", "pkg", "a.py", "b.py", "link.py", "dirlink", "empty", "notes.txt", "..", ".", "-", "_",
    " ", "\\", "\x00", "\udc80", "\ud800", "é", "İ", "ß", "😀", "\u2028", "\n", "\r", "*", "?", "[", "'",
    '"', "{", "}", "%s", "%U", "~", ".git", "new",
]

INT_EDGES = [0, 1, -1, 2, 3, 7, 10, 255, 2**31 - 1, 2**31, 2**63 - 1, 2**63, -(2**63), -(2**63) - 1,
             2**64, 10**30, -(10**30), sys.maxsize, -sys.maxsize - 1, 10**5000]
FLOATS = [0.0, -0.0, 1.0, 1.5, -1.0, float("nan"), float("inf"), float("-inf"), 1e308, 5e-324]
LANGUAGES = ["python", "c", "cpp", "java", "javascript", "css", "html", "typescript", "json", "rust",
             "no-such-grammar", "", "PYTHON"]
EXTENSIONS = [".py", ".c", ".cpp", ".h", ".java", ".js", ".html", ".css", ".ts", ".md", ".PY", "", ".", "py",
              ".tar.gz", ".c++", ".cp", ".hpp"]
MODES = ["replace", "insert_before", "insert_after", "REPLACE", "", "insert", "delete"]
EXES = ["gcc", "cc", "c++", "g++", "clang", "clang++", "javac", "no-such-compiler", "", " "]


def as_bytes(text):
    """Bytes for any str, lone surrogates included."""
    return text.encode("utf-8", "surrogatepass")


# ---------------------------------------------------------------------------------------------
# Hostile objects


class Hostile:
    """Every protocol raises, or gives an answer of the wrong type."""

    def __init__(self, outcome):
        self._outcome = outcome  # "raise", "interrupt" or a value returned from every hook

    def _answer(self, *args, **kwargs):
        if self._outcome == "raise":
            raise FuzzError("hostile")
        if self._outcome == "interrupt":
            raise FuzzInterrupt("hostile")
        return self._outcome

    __eq__ = __ne__ = __lt__ = __le__ = __gt__ = __ge__ = _answer
    __hash__ = __len__ = __index__ = __int__ = __float__ = __bool__ = _answer
    __str__ = __repr__ = __format__ = __bytes__ = __fspath__ = _answer
    __iter__ = __getitem__ = __contains__ = _answer
    __add__ = __radd__ = __truediv__ = __rtruediv__ = __mod__ = _answer

    def __call__(self, *args, **kwargs):
        # Called as a source of text (tree-sitter reads from a callable until it answers
        # nothing), the same answer forever would be an endless text: it answers a few times.
        self._calls = getattr(self, "_calls", 0) + 1
        if self._calls > 50:
            raise FuzzError("hostile: called too often")
        return self._answer()

    def __next__(self):
        # As an iterator it ends at once: an endless one would hang any caller, not just ours.
        if self._outcome in ("raise", "interrupt"):
            self._answer()
        raise StopIteration

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        return self._answer()


class Duck:
    """Any attribute exists: a value, a method giving values, or an error; the same answer for
    the same name every time."""

    def __init__(self, values, seed):
        self._values, self._seed = values, seed

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        rng = random.Random(self._seed ^ zlib.crc32(as_bytes(name)))
        roll = rng.random()
        if roll < 0.25:
            raise (AttributeError if roll < 0.15 else FuzzError)(name)
        return self._values.fork(rng).any(depth=1) if roll < 0.55 else Answers(self._values, rng.getrandbits(64))


class Answers:
    """A callable that answers each call with a fresh random value (or an error)."""

    def __init__(self, values, seed):
        self._values, self._rng = values, random.Random(seed)

    def __call__(self, *args, **kwargs):
        roll = self._rng.random()
        if roll < 0.12:
            raise (FuzzError if roll < 0.1 else FuzzInterrupt)("answer")
        return self._values.fork(self._rng).any(depth=1)


class Mutator:
    """Empties the container it sits in as soon as the module compares, hashes, prints or asks
    it anything: borrowed items read before that are stale afterwards."""

    victim = None

    def _strike(self, *args, **kwargs):
        victim, self.victim = self.victim, None
        if victim is not None:
            victim.clear()
        return False

    __eq__ = _strike

    def __hash__(self):
        return self._strike() or 7

    def __str__(self):
        return self._strike() or "mutator"

    __repr__ = __str__

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        return self._strike


class FakePath:
    """An os.PathLike whose __fspath__ answers with a given value (or raises)."""

    def __init__(self, value):
        self._value = value

    def __fspath__(self):
        if isinstance(self._value, BaseException):
            raise self._value
        return self._value


class Node:
    """A parse-tree node stand-in whose members may be right, wrong-typed or raising."""

    def __init__(self, members):
        self._members = members

    def __getattr__(self, name):
        if name not in self._members:
            raise AttributeError(name)
        if isinstance(self._members[name], BaseException):
            raise self._members[name]
        return self._members[name]


class Unpicky(list):
    """A list whose `append` is replaced (the scans' `out` argument): it raises, or empties the
    list first, or just appends."""

    def __init__(self, behaviour):
        super().__init__()
        self._behaviour = behaviour

    def append(self, item):
        if self._behaviour == "raise":
            raise FuzzError("append")
        if self._behaviour == "clear":
            self.clear()
        return super().append(item)


SUBCLASS_METHODS = {
    str: ["replace", "lower", "upper", "strip", "split", "rsplit", "encode", "startswith", "endswith",
          "__eq__", "__hash__", "__str__", "__format__", "__getitem__", "__iter__", "__add__"],
    int: ["__index__", "__int__", "__eq__", "__lt__", "__gt__", "__le__", "__ge__", "__hash__", "__bool__",
          "__format__", "__str__", "__add__"],
    dict: ["__getitem__", "__iter__", "keys", "items", "values", "get", "__len__", "__contains__", "pop",
           "setdefault", "__eq__"],
    list: ["__iter__", "__len__", "__getitem__", "pop", "append", "__contains__", "__eq__", "clear"],
    tuple: ["__iter__", "__len__", "__getitem__", "__eq__", "__hash__"],
}


def hostile_subclass(base, value, rng, values):
    """An instance of a fresh subclass of `base` holding `value`, with one to three of its
    methods replaced by ones that raise or answer with the wrong type (a hash that raises, is no
    int, or is out of range)."""
    methods = {}
    for name in rng.sample(SUBCLASS_METHODS[base], rng.randint(1, 3)):
        answer = rng.choice([FuzzError("hash"), "not an int", 2**100, -1]) if name == "__hash__" else None
        methods[name] = _as_method(Answers(values, rng.getrandbits(64)) if answer is None else _constant(answer))
    return type(f"Hostile{base.__name__.title()}", (base,), methods)(value)


def _as_method(answers):
    return lambda self, *args, **kwargs: answers(*args, **kwargs)


def _constant(answer):
    def call(*args, **kwargs):
        if isinstance(answer, BaseException):
            raise answer
        return answer
    return call


# ---------------------------------------------------------------------------------------------
# Calls

UNKNOWN = "__fuzz_unknown__"


def module_functions(module):
    """(name, function) of every function the module defines, in namespace order."""
    return [(name, value) for name, value in vars(module).items()
            if callable(value) and not isinstance(value, type) and getattr(value, "__module__", None) == module.__name__]


def call_shape(values, function):
    """Positional and keyword arguments for one call, now and then a wrong call shape: an
    argument missing, one too many, an unknown keyword, or one given twice."""
    rng = values.rng
    params = list(inspect.signature(function).parameters)
    given = {param: values.for_param(param) for param in params}
    if rng.random() < 0.05 and given:
        given.pop(rng.choice(list(given)))
    split = rng.randint(0, len(params))
    args, kwargs = [], {}
    for index, param in enumerate(params):
        if param in given and index < split and len(args) == index:
            args.append(given[param])
        elif param in given:
            kwargs[param] = given[param]
    roll = rng.random()
    if roll < 0.03:
        args.append(values.any(1))
    elif roll < 0.06:
        kwargs[UNKNOWN] = values.any(0)
    elif roll < 0.08 and args:
        kwargs[params[0]] = args[0]
    return args, kwargs


def tamper(values, module, names):
    """Replaces one or two module attributes with hostile stand-ins; returns the new values."""
    rng = values.rng
    replaced = {name: Answers(values, rng.getrandbits(64)) if rng.random() < 0.5 else values.any(1)
                for name in rng.sample(names, rng.randint(1, 2))}
    for name, value in replaced.items():
        setattr(module, name, value)
    return replaced


def restore(module, saved):
    for name in list(vars(module)):
        if name not in saved:
            delattr(module, name)
    for name, value in saved.items():
        if vars(module).get(name) is not value:
            setattr(module, name, value)


# ---------------------------------------------------------------------------------------------
# The generator


class Values:
    """Random arguments, safe to aim at the sandbox."""

    def __init__(self, rng, sandbox, pool=None):
        self.rng, self.sandbox = rng, sandbox
        self.texts = []  # the contents made for the current call (exempt from the path check)
        self._pool = sandbox.paths() if pool is None else pool

    def fork(self, rng):
        """The same generator drawing from another stream (for objects that answer later)."""
        return Values(rng, self.sandbox, self._pool)

    def refresh_pool(self):
        self._pool = self.sandbox.paths()

    def weighted(self, *choices):
        """Calls one of `choices`, (weight, maker) pairs, picked by weight."""
        roll = self.rng.random() * sum(weight for weight, _ in choices)
        for weight, make in choices:
            roll -= weight
            if roll < 0:
                return make()
        return choices[-1][1]()

    # -- scalars ---------------------------------------------------------------------------------

    def name(self):
        """A string without "/": it can only name something in the working directory."""
        text = "".join(self.rng.choice(NAME_PIECES) for _ in range(self.rng.randint(0, 4)))
        assert "/" not in text
        return text

    def path(self):
        rng = self.rng
        if rng.random() >= 0.7:
            return self.name()
        value = rng.choice(self._pool)
        if rng.random() < 0.1 and value != str(self.sandbox.top):
            value += rng.choice(["/", "/.", "\x00", "\udcff", "//", "/x"])
        return value

    def path_object(self):
        """A path in one of the forms a host might pass: str, bytes, Path, PathLike."""
        rng, value = self.rng, self.path()
        return self.weighted(
            (0.6, lambda: value), (0.1, lambda: as_bytes(value)), (0.15, lambda: Path(value.replace("\x00", ""))),
            (0.05, lambda: hostile_subclass(str, value, rng, self)),
            (0.1, lambda: FakePath(rng.choice([value, as_bytes(value), 3, None, FuzzError("fspath")]))))

    def text(self):
        rng = self.rng
        value = self.weighted(
            (0.05, lambda: ""),
            # A large file: many lines of one snippet with breaks of every kind.
            (0.05, lambda: "".join(rng.choice(SNIPPETS).rstrip("\n") + rng.choice(LINE_BREAKS)
                                   for _ in range(rng.randint(200, 2000)))),
            (0.1, lambda: self._mutate(self._file_text(Path(rng.choice(self._pool))))),
            (0.8, lambda: self._snippets()))
        self.texts.append(value)
        return value

    def _snippets(self):
        value = "".join(self.rng.choice(SNIPPETS) for _ in range(self.rng.randint(1, 12)))
        return self._mutate(value) if self.rng.random() < 0.3 else value

    @staticmethod
    def _file_text(path):
        try:
            return path.read_text(encoding="utf-8") if path.is_file() else ""
        except (OSError, UnicodeDecodeError):
            return ""

    def _mutate(self, text):
        rng, chars = self.rng, list(text)
        for _ in range(rng.randint(1, 5)):
            at = rng.randint(0, len(chars))
            if rng.random() < 0.5 and chars:
                del chars[min(at, len(chars) - 1)]
            else:
                chars.insert(at, rng.choice(SNIPPETS))
        return "".join(chars)

    def integer(self):
        rng = self.rng
        return self.weighted(
            (0.5, lambda: rng.randint(-3, 12)), (0.3, lambda: rng.choice(INT_EDGES)),
            (0.05, lambda: rng.choice([True, False])), (0.05, lambda: hostile_subclass(int, rng.randint(0, 5), rng, self)),
            (0.1, lambda: rng.choice([1.0, "1", b"1", None, 1 + 0j])))

    def scalar(self):
        rng = self.rng
        return self.weighted(
            (1, lambda: None), (1, lambda: rng.choice([True, False])), (1, self.integer),
            (1, lambda: rng.choice(FLOATS)), (2, self.name), (1, self.path), (1, self.path_object),
            (1, lambda: as_bytes(self.name()) if rng.random() < 0.8 else bytearray(as_bytes(self.name()))),
            (1, lambda: Hostile(rng.choice(["raise", "raise", "interrupt", None, 3, "x", b"x", -1, 2**70]))),
            (1, lambda: Duck(self, rng.getrandbits(64))), (1, lambda: Answers(self, rng.getrandbits(64))),
            (1, lambda: rng.choice([Ellipsis, NotImplemented, int, str, object(), object, len, 1j, range(3)])),
            (1, lambda: hostile_subclass(str, self.name(), rng, self)))

    # -- containers ------------------------------------------------------------------------------

    def any(self, depth=3):
        rng = self.rng
        if depth <= 0 or rng.random() < 0.55:
            return self.scalar()
        size = rng.choice([0, 1, 2, 3, 5])

        def items():
            return [self.any(depth - 1) for _ in range(size)]

        def generator():  # its items are drawn as the module reads them, from a stream of their own
            later = self.fork(random.Random(rng.getrandbits(64)))
            return (later.any(depth - 1) for _ in range(size))

        return self.weighted(
            (1, items), (1, lambda: tuple(items())), (1, lambda: self.mapping(depth - 1, size)), (1, self.nested),
            (1, lambda: self.with_mutator(depth - 1)), (1, self.node), (1, lambda: self.set_of(size)),
            (1, lambda: hostile_subclass(dict, self.mapping(depth - 1, size), rng, self)),
            (1, lambda: hostile_subclass(rng.choice([list, tuple]), items(), rng, self)), (1, generator))

    def set_of(self, size):
        result = set()
        for _ in range(size):
            try:
                result.add(self.scalar())
            except (Exception, FuzzInterrupt):  # unhashable or hostile: left out
                pass
        return result

    def mapping(self, depth, size):
        result = {}
        for _ in range(size):
            key = self.name() if self.rng.random() < 0.7 else self.scalar()
            try:
                result[key] = self.any(depth)
            except (Exception, FuzzInterrupt):  # an unhashable or hostile key: left out
                pass
        return result

    def nested(self):
        """A list or dict nested thousands deep."""
        value = self.scalar()
        for _ in range(self.rng.choice([50, 1000, 5000])):
            value = [value] if self.rng.random() < 0.5 else {"edges": value, "k": 1}
        return value

    def with_mutator(self, depth):
        mutator = Mutator()
        if self.rng.random() < 0.5:
            mutator.victim = [self.any(depth), self.any(depth), mutator, self.any(depth)]
        else:
            mutator.victim = {self.name(): self.any(depth), "m": mutator, self.name() + "2": self.any(depth)}
        return mutator.victim

    def node(self, depth=None):
        """A tree of node stand-ins; sometimes one long chain, or children that lead back to
        their ancestor (an endless tree, which the scans must give up on)."""
        rng = self.rng
        if depth is None:
            roll = rng.random()
            if roll < 0.05:
                node = Node({"type": "ERROR", "is_missing": False, "has_error": True, "children": []})
                for _ in range(rng.choice([1000, 50000])):
                    node = Node({"type": "x", "is_missing": False, "has_error": True, "children": [node]})
                return node
            if roll < 0.07:
                top = Node({"type": "x", "is_missing": False, "has_error": True, "children": []})
                middle = Node({"type": "x", "is_missing": False, "has_error": True, "children": [top]})
                top._members["children"] = [Node({"type": "x", "is_missing": False, "has_error": False}), middle]
                return top
            depth = rng.randint(0, 4)
        members = {
            "type": rng.choice(["ERROR", "x", "ERROR", "module", None, 3, Hostile("raise"),
                                hostile_subclass(str, "ERROR", rng, self), FuzzError("type")]),
            "is_missing": rng.choice([False, False, True, None, "yes", Hostile("raise"), FuzzError("missing")]),
            "has_error": rng.choice([True, True, False, 1, Hostile("raise"), Hostile(None), FuzzError("flag")]),
            "start_point": rng.choice([(0, 0), (5, 1), (-1, 0), (2**70, 0), (), None, "row", [3],
                                       Hostile("raise"), (Hostile("raise"), 0), FuzzError("point")]),
            "children": rng.choice([[], (), None]),
        }
        if depth > 0:
            kids = [self.node(depth - 1) for _ in range(rng.randint(0, 3))]
            members["children"] = rng.choice([kids, kids, tuple(kids), iter(kids), None, 5, "abc",
                                              Hostile("raise"), FuzzError("children"), [self.scalar()] + kids])
        return Node(members)

    def real_node(self):
        """A node of a real tree-sitter parse, when the grammars are installed."""
        try:
            from tree_sitter_language_pack import get_parser
        except ImportError:
            return self.node()
        language = self.rng.choice(["python", "c", "javascript", "html", "css", "java"])
        node = get_parser(language).parse(as_bytes(self.text())).root_node
        for _ in range(self.rng.randint(0, 3)):
            if not node.children:
                break
            node = self.rng.choice(node.children)
        return node

    # -- by parameter ----------------------------------------------------------------------------

    def for_param(self, name):
        """A value for parameter `name`: mostly one of the right kind, sometimes anything."""
        make = getattr(self, "param_" + name, None)
        return self.any() if make is None or self.rng.random() < 0.2 else make()

    param_root = param_path = param_path_str = param_abs_path = param_p = path_object
    param_content = param_text = text
    param_start_line = param_end_line = param_steps = param_count = param_cap = integer

    def param_start(self):
        value = self.path_object()
        return Path(value) if isinstance(value, str) and "\x00" not in value else value

    def param_before_text(self):
        return None if self.rng.random() < 0.3 else self.text()

    def param_anchor(self):
        if self.rng.random() < 0.3:
            return None
        text = self.text()
        at = self.rng.randint(0, len(text))
        self.texts.append(text[at:at + self.rng.randint(0, 40)])
        return self.texts[-1]

    def param_mode(self):
        return self.rng.choice(MODES)

    def param_language(self):
        return self.rng.choice(LANGUAGES)

    param_lang = param_language

    def param_ext(self):
        return self.rng.choice(EXTENSIONS)

    def param_exe(self):
        return self.rng.choice(EXES)

    def param_names(self):
        names = tuple(self.rng.choice(EXES) for _ in range(self.rng.randint(0, 3)))
        return names if self.rng.random() < 0.8 else list(names)

    def param_known_paths(self):
        rng, proj = self.rng, str(self.sandbox.proj) + "/"
        ids = [p[len(proj):] for p in self._pool if p.startswith(proj)] + [self.name()]
        return [rng.choice(ids) for _ in range(rng.choice([0, 1, 3, 12]))] + ([self.scalar()] if rng.random() < 0.2 else [])

    def param_node(self):
        return self.real_node() if self.rng.random() < 0.3 else self.node()

    def param_out(self):
        return self.rng.choice([[], [], Unpicky("raise"), Unpicky("clear"), Unpicky("ok"), (), None, Duck(self, 1)])

    def param_cfg(self):
        import editor

        table = getattr(editor, "_COMPILER_LANGS", {})
        base = dict(table[self.rng.choice(list(table))]) if table else {}
        for key in self.rng.sample(list(base), self.rng.randint(0, 2)):
            base[key] = self.any(1)
        return base

    def param_ctx(self):
        rng = self.rng
        args = [rng.choice(["-I", "-cp", self.path(), self.name()]) for _ in range(rng.randint(0, 4))]
        return rng.choice([(args, self.path()), [args, self.path()], (args,), None, (self.any(1), self.path())])

    def param_touched(self):
        return {self.path(): None if self.rng.random() < 0.2 else self.text() for _ in range(self.rng.randint(0, 4))}

    def param_snapshots(self):
        rng, records = self.rng, []
        for _ in range(rng.randint(0, 4)):
            record = {"ts": rng.choice([0.0, 1.5, None]), "path": rng.choice([None, self.path()]),
                      "text_before": None if rng.random() < 0.3 else self.text(), "raw": self.any(1)}
            if rng.random() < 0.15:
                record.pop(rng.choice(list(record)))
            records.append(record)
        return records

    def param_raw_data(self):
        return self.any(2)

    def param_entry(self):
        return self.mapping(2, self.rng.randint(0, 4))

    def param_before(self):
        rng = self.rng
        names = [f"f.py::{self.name()}" for _ in range(rng.randint(0, 4))]
        return {
            "edges": [{"caller": rng.choice(names or ["a"]), "callee": rng.choice(names or ["b"])}
                      for _ in range(rng.randint(0, 5))],
            "symbols": {n: self.any(1) for n in names},
            "defs": {n: {"kind": rng.choice(["function", "const", "class"]), "value": self.any(0)} for n in names},
        }

    param_after = param_before
