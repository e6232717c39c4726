"""Hostile arguments for the crash fuzzer: a sandbox of files to aim at, and values of every type
and shape a host could pass by mistake.

Everything here is drawn from one `random.Random`, so a seed replays the same values in the same
order; objects that answer later (ducks, tampered module functions) carry a generator of their
own, seeded when they are made, so the order in which the module happens to ask them does not
shift the main stream.

Safety first, since the fuzzer runs as root and the module deletes, rewrites and creates files:
a string that could reach the file system either names a path inside the sandbox (absolute,
without ".."), or is relative without ".." components, or holds no "/" at all (so that even ".."
stays inside: the working directory is two levels inside the sandbox). Texts meant as file contents may hold anything; they are produced by `text()`
alone and kept out of path positions. `check_safe` walks every argument before a call and
refuses the call if something slipped through.
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


def crc(text):
    return zlib.crc32(as_bytes(text))


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
        rng = random.Random(self._seed ^ crc(name))
        roll = rng.random()
        if roll < 0.15:
            raise AttributeError(name)
        if roll < 0.25:
            raise FuzzError(name)
        if roll < 0.55:
            return self._values.fork(rng).any(depth=1)
        return Answers(self._values, rng.getrandbits(64))


class Answers:
    """A callable that answers each call with a fresh random value (or an error)."""

    def __init__(self, values, seed):
        self._values, self._rng = values, random.Random(seed)

    def __call__(self, *args, **kwargs):
        roll = self._rng.random()
        if roll < 0.1:
            raise FuzzError("answer")
        if roll < 0.12:
            raise FuzzInterrupt("answer")
        return self._values.fork(self._rng).any(depth=1)


class Mutator:
    """Empties the container it sits in as soon as the module compares, hashes, prints or asks
    it anything: borrowed items read before that are stale afterwards."""

    def __init__(self):
        self.victim = None

    def _strike(self, *args, **kwargs):
        victim, self.victim = self.victim, None
        if victim is not None:
            victim.clear()
        return False

    def __eq__(self, other):
        return self._strike()

    def __hash__(self):
        self._strike()
        return 7

    def __str__(self):
        self._strike()
        return "mutator"

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
        try:
            value = self._members[name]
        except KeyError:
            raise AttributeError(name) from None
        if isinstance(value, BaseException):
            raise value
        return value


class Unpicky(list):
    """A list whose `append` is replaced (the scans' `out` argument)."""

    def __init__(self, behaviour):
        super().__init__()
        self._behaviour = behaviour

    def append(self, item):
        if self._behaviour == "raise":
            raise FuzzError("append")
        if self._behaviour == "clear":
            self.clear()
        return super().append(item)


def hostile_subclass(base, value, rng, values):
    """An instance of a fresh subclass of `base` holding `value`, with some of its methods
    replaced by ones that raise or answer with the wrong type."""
    names = {
        str: ["replace", "lower", "upper", "strip", "split", "rsplit", "encode", "startswith", "endswith",
              "__eq__", "__hash__", "__str__", "__format__", "__getitem__", "__iter__", "__add__"],
        int: ["__index__", "__int__", "__eq__", "__lt__", "__gt__", "__le__", "__ge__", "__hash__", "__bool__",
              "__format__", "__str__", "__add__"],
        dict: ["__getitem__", "__iter__", "keys", "items", "values", "get", "__len__", "__contains__", "pop",
               "setdefault", "__eq__"],
        list: ["__iter__", "__len__", "__getitem__", "pop", "append", "__contains__", "__eq__", "clear"],
        tuple: ["__iter__", "__len__", "__getitem__", "__eq__", "__hash__"],
    }[base]
    replaced = {}
    for name in rng.sample(names, rng.randint(1, 3)):
        replaced[name] = Answers(values, rng.getrandbits(64)) if name != "__hash__" else _bad_hash(rng)
    cls = type(f"Hostile{base.__name__.title()}", (base,), {k: _as_method(v) for k, v in replaced.items()})
    return cls(value)


def _as_method(answers):
    def method(self, *args, **kwargs):
        return answers(*args, **kwargs)
    return method


def _bad_hash(rng):
    outcome = rng.choice(["raise", "str", "big", "negative"])

    def answer(*args, **kwargs):
        if outcome == "raise":
            raise FuzzError("hash")
        if outcome == "str":
            return "not an int"
        return 2**100 if outcome == "big" else -1
    return answer


# ---------------------------------------------------------------------------------------------
# Calls

UNKNOWN = "__fuzz_unknown__"


def module_functions(module):
    """(name, function) of every function the module defines, in namespace order."""
    return [(name, value) for name, value in vars(module).items()
            if callable(value) and not isinstance(value, type) and getattr(value, "__module__", None) == module.__name__]


def call_shape(values, function):
    """Positional and keyword arguments for one call, now and then a wrong call shape."""
    rng = values.rng
    params = list(inspect.signature(function).parameters)
    given = {}
    for param in params:
        given[param] = values.for_param(param)
    if rng.random() < 0.05 and given:
        given.pop(rng.choice(list(given)))  # a missing argument
    split = rng.randint(0, len(params))
    args, kwargs = [], {}
    for index, param in enumerate(params):
        if param not in given:
            continue
        if index < split and len(args) == index:
            args.append(given[param])
        else:
            kwargs[param] = given[param]
    roll = rng.random()
    if roll < 0.03:
        args.append(values.any(1))  # one too many
    elif roll < 0.06:
        kwargs[UNKNOWN] = values.any(0)
    elif roll < 0.08 and args:
        kwargs[params[0]] = args[0]  # given twice
    return args, kwargs


def tamper(values, module, names):
    """Replaces one or two module attributes with hostile stand-ins; returns the new values."""
    rng = values.rng
    replaced = {}
    for name in rng.sample(names, rng.randint(1, 2)):
        kind = rng.random()
        replaced[name] = Answers(values, rng.getrandbits(64)) if kind < 0.5 else values.any(1)
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

    def __init__(self, rng, sandbox):
        self.rng = rng
        self.sandbox = sandbox
        self.texts = []  # the contents made for the current call (exempt from the path check)
        self._pool = sandbox.paths()

    def fork(self, rng):
        """The same generator drawing from another stream (for objects that answer later)."""
        other = Values.__new__(Values)
        other.rng, other.sandbox, other.texts, other._pool = rng, self.sandbox, [], self._pool
        return other

    def refresh_pool(self):
        self._pool = self.sandbox.paths()

    # -- scalars ---------------------------------------------------------------------------------

    def name(self):
        """A string without "/": it can only name something in the working directory."""
        rng = self.rng
        text = "".join(rng.choice(NAME_PIECES) for _ in range(rng.randint(0, 4)))
        assert "/" not in text
        return text

    def path(self):
        rng = self.rng
        roll = rng.random()
        if roll < 0.7:
            value = rng.choice(self._pool)
            if rng.random() < 0.1 and value != str(self.sandbox.top):
                value += rng.choice(["/", "/.", "\x00", "\udcff", "//", "/x"])
            return value
        return self.name()

    def path_object(self):
        """A path in one of the forms a host might pass: str, bytes, Path, PathLike."""
        rng = self.rng
        value = self.path()
        roll = rng.random()
        if roll < 0.6:
            return value
        if roll < 0.7:
            return as_bytes(value)
        if roll < 0.85:
            return Path(value.replace("\x00", ""))
        if roll < 0.9:
            return hostile_subclass(str, value, rng, self)
        return FakePath(rng.choice([value, as_bytes(value), 3, None, FuzzError("fspath")]))

    def text(self):
        rng = self.rng
        roll = rng.random()
        if roll < 0.05:
            value = ""
        elif roll < 0.1:
            # A large file: many lines of one snippet with breaks of every kind.
            line = rng.choice(SNIPPETS).rstrip("\n")
            value = "".join(line + rng.choice(LINE_BREAKS) for _ in range(rng.randint(200, 2000)))
        elif roll < 0.2:
            path = Path(rng.choice(self._pool))
            try:
                value = path.read_text(encoding="utf-8") if path.is_file() else ""
            except (OSError, UnicodeDecodeError):
                value = ""
            value = self._mutate(value)
        else:
            value = "".join(rng.choice(SNIPPETS) for _ in range(rng.randint(1, 12)))
            if rng.random() < 0.3:
                value = self._mutate(value)
        self.texts.append(value)
        return value

    def _mutate(self, text):
        rng = self.rng
        chars = list(text)
        for _ in range(rng.randint(1, 5)):
            at = rng.randint(0, len(chars))
            if rng.random() < 0.5 and chars:
                del chars[min(at, len(chars) - 1)]
            else:
                chars.insert(at, rng.choice(SNIPPETS))
        return "".join(chars)

    def integer(self):
        rng = self.rng
        roll = rng.random()
        if roll < 0.5:
            return rng.randint(-3, 12)
        if roll < 0.8:
            return rng.choice(INT_EDGES)
        if roll < 0.85:
            return rng.choice([True, False])
        if roll < 0.9:
            return hostile_subclass(int, rng.randint(0, 5), rng, self)
        return rng.choice([1.0, "1", b"1", None, 1 + 0j])

    def scalar(self):
        rng = self.rng
        kind = rng.randrange(14)
        if kind == 0:
            return None
        if kind == 1:
            return rng.choice([True, False])
        if kind == 2:
            return self.integer()
        if kind == 3:
            return rng.choice(FLOATS)
        if kind in (4, 5):
            return self.name()
        if kind == 6:
            return as_bytes(self.name()) if rng.random() < 0.8 else bytearray(as_bytes(self.name()))
        if kind == 7:
            return self.path()
        if kind == 8:
            return Hostile(rng.choice(["raise", "raise", "interrupt", None, 3, "x", b"x", -1, 2**70]))
        if kind == 9:
            return Duck(self, rng.getrandbits(64))
        if kind == 10:
            return rng.choice([Ellipsis, NotImplemented, int, str, object(), object, len, 1j, range(3)])
        if kind == 11:
            return Answers(self, rng.getrandbits(64))
        if kind == 12:
            return hostile_subclass(str, self.name(), rng, self)
        return self.path_object()

    # -- containers ------------------------------------------------------------------------------

    def any(self, depth=3):
        rng = self.rng
        if depth <= 0 or rng.random() < 0.55:
            return self.scalar()
        kind = rng.randrange(9)
        size = rng.choice([0, 1, 2, 3, 5])
        if kind == 0:
            return [self.any(depth - 1) for _ in range(size)]
        if kind == 1:
            return tuple(self.any(depth - 1) for _ in range(size))
        if kind == 2:
            return self.mapping(depth - 1, size)
        if kind == 3:
            return self.nested()
        if kind == 4:
            return self.with_mutator(depth - 1)
        if kind == 5:
            base = rng.choice([dict, list, tuple])
            items = self.mapping(depth - 1, size) if base is dict else [self.any(depth - 1) for _ in range(size)]
            return hostile_subclass(base, items, rng, self)
        if kind == 6:
            return self.node()
        if kind == 7:
            return self.set_of(size)
        later = self.fork(random.Random(rng.getrandbits(64)))
        return (later.any(depth - 1) for _ in range(size))

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
        rng = self.rng
        depth = rng.choice([50, 1000, 5000])
        value = self.scalar()
        for _ in range(depth):
            value = [value] if rng.random() < 0.5 else {"edges": value, "k": 1}
        return value

    def with_mutator(self, depth):
        mutator = Mutator()
        if self.rng.random() < 0.5:
            container = [self.any(depth) for _ in range(2)] + [mutator] + [self.any(depth)]
        else:
            container = {self.name(): self.any(depth), "m": mutator, self.name() + "2": self.any(depth)}
        mutator.victim = container
        return container

    def node(self, depth=None):
        """A tree of node stand-ins; sometimes one long chain, or children that lead back to
        their ancestor (an endless tree, which the scans must give up on)."""
        rng = self.rng
        if depth is None:
            roll = rng.random()
            if roll < 0.05:
                return self._chain(rng.choice([1000, 50000]))
            if roll < 0.07:
                return self._cycle()
            depth = rng.randint(0, 4)
        members = {
            "type": rng.choice(["ERROR", "x", "ERROR", "module", None, 3, Hostile("raise"),
                                hostile_subclass(str, "ERROR", rng, self), FuzzError("type")]),
            "is_missing": rng.choice([False, False, True, None, "yes", Hostile("raise"), FuzzError("missing")]),
            "has_error": rng.choice([True, True, False, 1, Hostile("raise"), Hostile(None), FuzzError("flag")]),
            "start_point": rng.choice([(0, 0), (5, 1), (-1, 0), (2**70, 0), (), None, "row", [3],
                                       Hostile("raise"), (Hostile("raise"), 0), FuzzError("point")]),
        }
        if depth > 0:
            kids = [self.node(depth - 1) for _ in range(rng.randint(0, 3))]
            members["children"] = rng.choice([kids, kids, tuple(kids), iter(kids), None, 5, "abc",
                                              Hostile("raise"), FuzzError("children"),
                                              [self.scalar()] + kids])
        else:
            members["children"] = rng.choice([[], (), None])
        return Node(members)

    def _cycle(self):
        top = Node({"type": "x", "is_missing": False, "has_error": True, "children": []})
        middle = Node({"type": "x", "is_missing": False, "has_error": True, "children": [top]})
        top._members["children"] = [Node({"type": "x", "is_missing": False, "has_error": False}), middle]
        return top

    def _chain(self, length):
        node = Node({"type": "ERROR", "is_missing": False, "has_error": True, "children": []})
        for _ in range(length):
            node = Node({"type": "x", "is_missing": False, "has_error": True, "children": [node]})
        return node

    def real_node(self):
        """A node of a real tree-sitter parse, when the grammars are installed."""
        try:
            from tree_sitter_language_pack import get_parser
        except ImportError:
            return self.node()
        language = self.rng.choice(["python", "c", "javascript", "html", "css", "java"])
        tree = get_parser(language).parse(self.text().encode("utf-8", "surrogatepass"))
        node = tree.root_node
        for _ in range(self.rng.randint(0, 3)):
            if not node.children:
                break
            node = self.rng.choice(node.children)
        return node

    # -- by parameter ----------------------------------------------------------------------------

    def for_param(self, name):
        """A value for parameter `name`: mostly one of the right kind, sometimes anything."""
        rng = self.rng
        make = getattr(self, "param_" + name, None)
        if make is None or rng.random() < 0.2:
            return self.any()
        return make()

    param_root = param_path = param_path_str = param_abs_path = param_p = path_object
    param_content = param_text = text

    def param_before_text(self):
        return None if self.rng.random() < 0.3 else self.text()

    def param_anchor(self):
        rng = self.rng
        if rng.random() < 0.3:
            return None
        text = self.text()
        at = rng.randint(0, len(text))
        anchor = text[at:at + rng.randint(0, 40)]
        self.texts.append(anchor)
        return anchor

    param_start_line = param_end_line = param_steps = param_count = param_cap = integer

    def param_mode(self):
        return self.rng.choice(MODES)

    def param_language(self):
        return self.rng.choice(LANGUAGES)

    param_lang = param_language

    def param_ext(self):
        return self.rng.choice(EXTENSIONS)

    def param_known_paths(self):
        rng = self.rng
        proj = str(self.sandbox.proj) + "/"
        ids = [p[len(proj):] for p in self._pool if p.startswith(proj)]
        known = [rng.choice(ids + [self.name()]) for _ in range(rng.choice([0, 1, 3, 12]))]
        if rng.random() < 0.2:
            known.append(self.scalar())
        return known

    def param_node(self):
        return self.real_node() if self.rng.random() < 0.3 else self.node()

    def param_out(self):
        rng = self.rng
        return rng.choice([[], [], Unpicky("raise"), Unpicky("clear"), Unpicky("ok"), (), None, Duck(self, 1)])

    def param_names(self):
        rng = self.rng
        names = tuple(rng.choice(EXES) for _ in range(rng.randint(0, 3)))
        return names if rng.random() < 0.8 else list(names)

    def param_exe(self):
        return self.rng.choice(EXES)

    def param_cfg(self):
        import editor

        rng = self.rng
        table = getattr(editor, "_COMPILER_LANGS", {})
        base = dict(table[rng.choice(list(table))]) if table else {}
        for key in rng.sample(list(base), rng.randint(0, 2)):
            base[key] = self.any(1)
        return base

    def param_ctx(self):
        rng = self.rng
        args = [rng.choice(["-I", "-cp", self.path(), self.name()]) for _ in range(rng.randint(0, 4))]
        return rng.choice([(args, self.path()), [args, self.path()], (args,), None, (self.any(1), self.path())])

    def param_start(self):
        value = self.path_object()
        return Path(value) if isinstance(value, str) and "\x00" not in value else value

    def param_touched(self):
        rng = self.rng
        touched = {}
        for _ in range(rng.randint(0, 4)):
            touched[self.path()] = None if rng.random() < 0.2 else self.text()
        return touched

    def param_snapshots(self):
        rng = self.rng
        records = []
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
