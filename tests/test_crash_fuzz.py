"""Every function of the module, called with hostile arguments (now and then with module attributes
replaced), in a child process that must never die from a signal, hang or raise SystemError. Run as a
script, this file is that child: python test_crash_fuzz.py SANDBOX SEED CALLS LOG"""

import faulthandler, inspect, json, os, random, shutil, signal, subprocess, sys
from pathlib import Path

import pytest

import editor
from conftest import module_functions

SEEDS = [int(seed) for seed in os.environ.get("EDITOR_FUZZ_SEEDS", "20261,7").split(",")]
CALLS = int(os.environ.get("EDITOR_FUZZ_CALLS", "2000"))
TIME_LIMIT = max(300, CALLS // 5)  # seconds for a whole run, generous for the sanitizers
# Stand-in compilers print what the child last wrote to `out` beside them and exit with `rc` (or crash).
STUB = '#!/bin/sh\n/bin/cat "${0%/*}/out"\nc=$(/bin/cat "${0%/*}/rc")\n[ "$c" = segv ] && kill -SEGV $$\nexit "${c:-0}"\n'
FILES = {".git/HEAD": "ref: x\n", "include/u.h": "int s(int);\n", "src/m.c": '#include "u.h"\nint t() { return s(1); }\n',
         "src/k.cpp": "int f( {\n", "pkg/Main.java": "package pkg;\nclass Main { int f() { return y; } }\n",
         "a.py": "import os\ndef f(x):\n    return nope + x\n", "b.py": 'P = "<div><p>hi</div>"\nS = "a { b: c; }"\n',
         "page.html": "<p>hi</b>\n", "s.css": "a { b: c }\n", "app.js": "const g = (x) => x;\n", "sub/deep/x.txt": "x\r\ny\rz\n"}
SNIPPETS = ["def f(:\n", "x = 1\n", 'h = "<div><p>hi</div>"\n', "int f( {\n", '#include "no.h"\n', "class A { int x = y; }\n",
            "const x = => ;\n", "b { margin\n", "/* open\n", '"""\n', "\\\n", "{", ")", "\t", "\r\n", "\r", "\x0b", "\x0c", "\x1c",
            "\x85", "\u2028", "\x00", "\ud800", "\udcff", "é", "😀", "\u0301", "\ufeff"]
NAMES = ["a", ".py", ".c", ".java", ".js", ".html", ".css", "sub", "a.py", "link.py", "dirlink", "empty", "..", ".", " ", "\\",
         "\x00", "\udc80", "é", "\u2028", "\n", "*", "%s", "~", ".git", "new"]
INTS = [0, 1, -1, 2, 7, 2**31, 2**63 - 1, 2**63, -(2**63) - 1, 2**64, 10**30, 10**5000, True, 1.5, float("nan"), "1", None]
WORDS = {"mode": ["replace", "insert_before", "insert_after", "", "REPLACE"],
         "ext": [".py", ".c", ".cpp", ".h", ".java", ".js", ".htm", ".css", ".ts", "", ".PY"],
         "lang": ["python", "c", "cpp", "java", "javascript", "css", "html", "typescript", "no-such", ""],
         "exe": ["cc", "gcc", "clang", "c++", "g++", "clang++", "javac", "none", ""]}
WORDS["language"] = WORDS["lang"]


class Boom(Exception): pass
class Interrupt(BaseException): """Not an Exception: handlers for ordinary failures must let it through."""


def answer(value):
    if isinstance(value, BaseException):
        raise value
    return value


class Hostile:
    """Every protocol and attribute raises or answers with the wrong type; as a callable it answers
    50 times at most (an endless source of text would hang any reader), as an iterator it ends."""
    def __init__(self, value): self.value, self.calls = value, 0
    def hook(self, *args, **kwargs): return answer(self.value)
    for name in "eq ne lt gt hash len index int float bool str repr format bytes fspath iter getitem contains add".split():
        locals()[f"__{name}__"] = hook
    def __call__(self, *args, **kwargs): self.calls += 1; return answer(Boom() if self.calls > 50 else self.value)
    def __next__(self): answer(self.value if isinstance(self.value, BaseException) else StopIteration())
    def __getattr__(self, name): return answer(AttributeError(name)) if name.startswith("__") else self.hook()


class Node:
    """A parse-tree node stand-in, or any duck: members from a table, raised when they are errors."""
    def __init__(self, **members): self.members = members
    def __getattr__(self, name): return answer(self.members.get(name, AttributeError(name)))


class Mutator:
    """Empties the container it sits in once compared, hashed or printed: borrowed items go stale."""
    victim = None
    def strike(self, *args): self.victim = self.victim and self.victim.clear()
    def __eq__(self, other): return self.strike() or False
    def __hash__(self): return self.strike() or 7
    def __str__(self): return self.strike() or "m"


METHODS = {str: "replace split encode startswith __eq__ __hash__ __str__ __getitem__ __iter__",
           int: "__index__ __int__ __eq__ __lt__ __hash__ __bool__ __str__", tuple: "__iter__ __len__ __getitem__ __hash__",
           dict: "__getitem__ __iter__ keys items values get __len__ __contains__", list: "__iter__ __len__ __getitem__ append __eq__"}


class Values:
    """Random arguments from one seed; a string that may name a path names one in the sandbox."""
    def __init__(self, rng, top): self.rng, self.top, self.texts = rng, Path(top), set()
    def pick(self, *makers): return self.rng.choice(makers)()
    def name(self): return "".join(self.rng.choices(NAMES, k=self.rng.randint(0, 4)))
    def later(self): return Values(random.Random(self.rng.random()), self.top)  # its own stream: asked in any order

    def subclass(self, base, value):
        """A fresh subclass with a few methods raising or answering wrongly (a hash that is no int, or huge)."""
        table = {name: lambda self, *a, _v=self.later(), _x=self.rng.choice([None, Boom(), Interrupt(), "x", 2**100]), **k:
                 answer(_v.any(1) if _x is None else _x) for name in self.rng.sample(METHODS[base].split(), self.rng.randint(1, 3))}
        return type("Hostile" + base.__name__, (base,), table)(value)

    def answers(self):
        later = self.later()
        return lambda *args, **kwargs: answer(later.pick(Boom, Interrupt, *[lambda: later.any(1)] * 8))

    def path(self):
        rng = self.rng
        value = self.name() if rng.random() < 0.3 else rng.choice(Values.pool) + rng.choice(["", "", "/", "\x00", "/\udcff", "//x"])
        return self.pick(lambda: value, lambda: value, lambda: value.encode("utf-8", "surrogatepass"), lambda: Path(value.replace("\0", "")),
                         lambda: self.subclass(str, value), lambda: type("P", (), {"__fspath__": lambda s, v=self.pick(lambda: value, self.scalar, Boom): answer(v)})())

    def text(self, cut=False):
        rng = self.rng
        value = "".join(rng.choices(SNIPPETS, k=rng.choice([1, 5, 12, 12, 99, 2000]))) if rng.random() < 0.9 else rng.choice([*FILES.values()])
        value = value[(at := rng.randint(0, len(value))):at + rng.randint(0, 30)] if cut else value
        self.texts.add(id(value))  # contents, never taken as paths
        return value

    def scalar(self):
        rng = self.rng
        return self.pick(lambda: rng.choice(INTS), self.name, self.path, self.text, lambda: self.subclass(int, 3), self.answers,
                         lambda: Hostile(rng.choice([Boom(), Interrupt(), None, 3, "x", b"x", -1, 2**70])),
                         lambda: Node(**{n: self.any(0) for n in ["type", "children", "items", "get", "append"][:rng.randint(0, 5)]}),
                         lambda: rng.choice([Ellipsis, int, object(), len, 1j, range(3), b"\xff", bytearray(b"a")]))

    def any(self, depth=2):
        rng, size = self.rng, self.rng.choice([0, 1, 3])
        if depth <= 0 or rng.random() < 0.5:
            return self.scalar()
        items = lambda: [self.any(depth - 1) for _ in range(size)]
        return self.pick(items, lambda: tuple(items()), lambda: self.mapping(self.scalar, lambda: self.any(depth - 1), size),
                         lambda: self.subclass(dict, {self.name(): self.any(depth - 1)}), self.node, self.nested, self.mutator,
                         lambda: self.subclass(rng.choice([list, tuple]), items()), lambda: (x for x in items()))

    def mapping(self, key, value, size):
        result = {}
        for _ in range(size):
            try:
                result[key()] = value()
            except (Exception, Interrupt):  # an unhashable or hostile key: left out
                pass
        return result

    def nested(self):
        value = None
        for _ in range(self.rng.choice([50, 5000])):
            value = [value] if self.rng.random() < 0.5 else {"edges": value, "k": 1}
        return value

    def mutator(self):
        mutator = Mutator()
        mutator.victim = self.rng.choice([[self.any(0), mutator, self.any(0)], {"a": self.any(0), "m": mutator, "edges": 1}])
        return mutator.victim

    def node(self, depth=3):
        """A tree of stand-ins; sometimes a long chain whose last node leads back to the first."""
        rng, pick = self.rng, lambda *options: self.rng.choice(options)
        if depth == 3 and rng.random() < 0.04:
            node = last = Node(type="ERROR", is_missing=False, has_error=True, children=[], start_point=(0, 0))
            for _ in range(rng.choice([1000, 50000])):
                node = Node(type="x", is_missing=False, has_error=True, children=[node], start_point=(1, 1))
            last.members["children"] = pick([], [node])
            return node
        kids = [self.node(depth - 1) for _ in range(rng.randint(0, 3 if depth else 0))]
        return Node(type=pick("ERROR", "x", None, 3, Hostile(Boom()), self.subclass(str, "ERROR"), Boom()),
                    is_missing=pick(False, True, "yes", Hostile(Boom()), Boom()), has_error=pick(True, False, Hostile(None), Boom()),
                    start_point=pick((0, 0), (-1, 0), (2**70, 0), (), None, (Hostile(Boom()), 0), Boom()),
                    children=pick(kids, tuple(kids), iter(kids), None, 5, Hostile(Boom()), Boom(), [self.scalar()] + kids))

    def param(self, name):
        """A value for parameter `name`: mostly of the right kind, sometimes anything."""
        rng, path, text, parse = self.rng, self.path, self.text, lambda lang: __import__("tree_sitter_language_pack").get_parser(lang).parse
        ids = lambda: [f"f.py::{self.name()}" for _ in range(3)]
        kinds = dict(root=path, path=path, path_str=path, abs_path=path, start=lambda: Path(rng.choice(Values.pool)), content=text, text=text,
                     before_text=text, anchor=lambda: text(cut=True), node=lambda: self.pick(self.node, lambda: parse(
                         rng.choice(WORDS["lang"][:7]))(text().encode("utf-8", "surrogatepass")).root_node),
                     out=lambda: self.pick(list, tuple, lambda: self.subclass(list, []), lambda: Node(append=Hostile(Boom()))),
                     names=lambda: tuple(rng.choices(WORDS["exe"], k=rng.randint(0, 3))), touched=lambda: self.mapping(path, text, 3),
                     cfg=lambda: {**rng.choice([*editor._COMPILER_LANGS.values()]), rng.choice(["exe", "std", "diag", "context"]): self.any(1)},
                     ctx=lambda: ([rng.choice(["-I", "-cp", path()]) for _ in range(2)], path()), raw_data=self.any,
                     snapshots=lambda: [dict(ts=0.0, path=pick(None, path), text_before=pick(None, text), raw=self.any(1)) for _ in range(3)],
                     known_paths=lambda: [rng.choice(["a.py", "sub/deep/x.txt", "src/m.c", self.name()]) for _ in range(rng.choice([0, 3, 12]))],
                     entry=lambda: self.mapping(self.scalar, self.any, 2), before=lambda: static(ids()), after=lambda: static(ids()))
        pick = lambda *options: (lambda option: option() if callable(option) else option)(rng.choice(options))
        static = lambda ids: {"edges": [{"caller": rng.choice(ids), "callee": rng.choice(ids)} for _ in range(3)],
                              "symbols": dict.fromkeys(ids, 1), "defs": {i: {"X": [{"rhs": self.any(0)}]} for i in ids}}
        if name in WORDS or name in ("start_line", "end_line", "steps", "count", "cap"):
            return rng.choice(WORDS.get(name, INTS))
        return kinds[name]() if name in kinds and rng.random() < 0.8 else self.any()

    def call(self, function):
        """Arguments for one call; now and then one missing, one too many, or an unknown keyword."""
        rng, params = self.rng, list(inspect.signature(function).parameters)
        given = {param: self.param(param) for param in params if rng.random() > 0.03}
        args = [given.pop(param) for param in params[:rng.randint(0, len(params))] if param in given]
        roll = rng.random()
        return args + [self.any(1)] * (roll < 0.03), {**given, **({"bogus": 1} if roll > 0.97 else {})}


def check_safe(value, top, exempt):
    """Refuses a call if a string it could take as a path leads outside the sandbox (contents are
    exempt by id); containers are read through their base classes, so no hostile method runs."""
    pending, seen = [value], set()
    while pending:
        item = pending.pop()
        if id(item) in seen or id(item) in exempt:
            continue
        seen.add(id(item))
        if isinstance(item, (str, bytes, bytearray, Path)):
            whole = str.__add__("", os.fsdecode(bytes(item)) if isinstance(item, (bytes, bytearray)) else os.fspath(item))
            for text in {whole.replace("\0", ""), whole.partition("\0")[0]}:  # as Python and as C read it
                inside = text == str(top) or text.startswith(f"{top}/") or not (text[:1] == "/" or os.path.expanduser(text) != text)
                assert "/" not in text or (".." not in text.split("/") and inside), f"unsafe path {whole!r}"
        elif isinstance(item, (dict, list, tuple, set, frozenset, Node)):
            pending += ([*dict.keys(item), *dict.values(item)] if isinstance(item, dict) else [*item.members.values()] if
                        isinstance(item, Node) else [*tuple.__iter__(item)] if isinstance(item, tuple) else
                        [*set.union(set(), item)] if isinstance(item, (set, frozenset)) else list.copy(item))


def reset(top):
    for child in ("proj", "home", "tmp", "state"):
        (top / child).unlink() if (top / child).is_symlink() or (top / child).is_file() else shutil.rmtree(top / child, True)
        (top / child).mkdir(parents=True)
    for relative, text in FILES.items():
        (top / "proj" / relative).parent.mkdir(parents=True, exist_ok=True)
        (top / "proj" / relative).write_text(text)
    (top / "proj/bad.py").write_bytes(b"x = '\xff\xfe'\n")
    (top / "proj/empty").mkdir()
    for link, target in {"link.py": "a.py", "dirlink": "sub", "dangling.txt": "missing.txt"}.items():
        (top / "proj" / link).symlink_to(target)
    Values.pool = [str(top), *map(str, sorted(top.rglob("*"))), str(top / "proj/new.py")]


def hostile_calls(top, seed, calls, functions):
    """(index, name, function, args, kwargs, replaced) per call, made in the sandbox; some calls find
    one or two module attributes replaced, all restored after the call."""
    rng, saved, top = random.Random(seed), dict(vars(editor)), Path(top)
    for index in range(calls):
        if index % 100 == 0 or not (top / "proj/sub/deep").is_dir():
            reset(top)
        os.chdir(top / "proj/sub/deep")
        values, (name, function) = Values(rng, top), rng.choice(functions)
        args, kwargs = values.call(function)
        replaced = {key: values.pick(values.answers, lambda: Hostile(Boom()), values.any) for key in
                    rng.sample([key for key in saved if key[:2] != "__"], rng.randint(1, 2))} if rng.random() < 0.08 else {}
        check_safe((args, kwargs, replaced), top, values.texts)
        try:
            vars(editor).update(replaced)
            yield index, name, function, args, kwargs, replaced
        finally:
            [delattr(editor, key) for key in set(vars(editor)) - set(saved)]
            vars(editor).update(saved)


def child(top, seed, calls, log_path):
    faulthandler.enable()
    rng, called, system_errors, tools = random.Random(-int(seed)), set(), [], Path(shutil.which("gcc")).parent
    with open(log_path, "w", errors="backslashreplace") as log:
        for index, name, function, args, kwargs, replaced in hostile_calls(top, int(seed), int(calls), module_functions(editor)):
            if rng.random() < 0.5:  # diagnostics of every shape for the stand-in compilers, some absurd
                count = rng.choice([0, 1, 3, 3000])
                lines = [rng.choice(["m.c:{}:3: error: {}", "k.cpp:{}: fatal error: {}", "Main.java:{}: error: {}", "{1}"]).format(
                    rng.choice(["1", "0", "-1", "9" * 30, "", "x", "٣"]), rng.choice(["'x' undeclared", "", "\u2028", "x" * (9**5 // (count + 1))]))
                    for _ in range(count)]
                (tools / "out").write_bytes("\n".join(lines).encode("utf-8", "surrogatepass") + rng.randbytes(rng.choice([0, 0, 64])))
                (tools / "rc").write_text(rng.choice(["0", "1", "2", "segv"]))
            log.write(f"{index} {name} args={object.__repr__(args)} kwargs={sorted(kwargs)} replaced={sorted(replaced)}\n")
            log.flush()
            faulthandler.dump_traceback_later(float(os.environ.get("EDITOR_FUZZ_CALL_LIMIT", 60)), exit=True)
            try:
                function(*args, **kwargs)
            except (Exception, Interrupt) as error:
                system_errors += [f"call {index}: {name}: {error!r:.500}"] if isinstance(error, SystemError) else []
            finally:
                faulthandler.cancel_dump_traceback_later()
                called.add(name)
    os.chdir(top)
    print(json.dumps({"called": sorted(called), "system_errors": system_errors}))


@pytest.mark.parametrize("seed", SEEDS)
def test_random_calls_never_kill_the_interpreter(tmp_path, seed):
    (tmp_path / "bin").mkdir()
    for name in WORDS["exe"][:7]:
        (tmp_path / "bin" / name).write_text(STUB)
        (tmp_path / "bin" / name).chmod(0o755)
    env = dict(os.environ, PATH=str(tmp_path / "bin"), HOME=str(tmp_path / "sandbox/home"), TMPDIR=str(tmp_path / "sandbox/tmp"),
               EDITOR_STATE_HOME=str(tmp_path / "sandbox/state"), PYTHONHASHSEED="0", PYTHONPATH=os.pathsep.join(sys.path))
    env.pop("XDG_STATE_HOME", None)
    command = [sys.executable, __file__, str(tmp_path / "sandbox"), str(seed), str(CALLS), str(tmp_path / "log")]
    try:
        run = subprocess.run(command, env=env, cwd=tmp_path, capture_output=True, text=True, errors="replace", timeout=TIME_LIMIT)
        status, stdout, stderr = run.returncode, run.stdout, run.stderr
    except subprocess.TimeoutExpired as expired:
        status, stdout, stderr = f"still running after {TIME_LIMIT} s", "", (expired.stderr or b"").decode(errors="replace")
    last = (tmp_path / "log").read_text(errors="replace").splitlines()[-1:] if (tmp_path / "log").exists() else []
    why = f"signal {signal.Signals(-status).name}" if isinstance(status, int) and status < 0 else f"status {status}"
    replay = (f"{why}; last call started: {last}\nreplay: EDITOR_FUZZ_SEEDS={seed} EDITOR_FUZZ_CALLS={CALLS} "
              f"python -m pytest tests/{Path(__file__).name}\nchild stderr (tail):\n{stderr[-3000:]}")
    assert status == 0, replay
    # A SystemError is the interpreter catching the module breaking its own return contract.
    assert json.loads(stdout.splitlines()[-1]) == {"called": sorted(dict(module_functions(editor))), "system_errors": []}, replay


@pytest.mark.leaks(only=True)
@pytest.mark.parametrize("name", sorted(dict(module_functions(editor))))
def test_hostile_calls_do_not_leak(name, tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    monkeypatch.setenv("HOME", str(tmp_path / "home"))
    monkeypatch.chdir(tmp_path)
    for _, _, function, args, kwargs, _ in hostile_calls(tmp_path, sum(map(ord, name)), 6, [(name, getattr(editor, name))]):
        try:
            function(*args, **kwargs)
        except (Exception, Interrupt):
            pass


if __name__ == "__main__":
    child(Path(sys.argv[1]), *sys.argv[2:])
