"""Crash fuzzing: every function of the module, called with hostile arguments (some calls with module
attributes replaced), in a child process that must never die from a signal, hang or raise
SystemError. Seeds from EDITOR_FUZZ_SEEDS, calls per seed from EDITOR_FUZZ_CALLS; a failure prints
the command that replays it. Run as a script, this file is that child:
    python test_crash_fuzz.py SANDBOX SEED CALLS LOG
The same calls, in-process, are the leak pass's probe of the exception paths."""

import faulthandler, inspect, json, os, random, shutil, signal, subprocess, sys
from collections import Counter
from pathlib import Path

import pytest

import editor
from conftest import module_functions

SEEDS = [int(seed) for seed in os.environ.get("EDITOR_FUZZ_SEEDS", "20261,7").split(",")]
CALLS = int(os.environ.get("EDITOR_FUZZ_CALLS", "2000"))
TIME_LIMIT = max(300, CALLS // 5)  # seconds for a whole run, generous for the sanitizers
# Stand-in compilers print what the child last put in their directory's out file and exit with rc.
STUB = '#!/bin/sh\n/bin/cat "${0%/*}/out" 2>/dev/null\nc=$(/bin/cat "${0%/*}/rc" 2>/dev/null)\n[ "$c" = segv ] && kill -SEGV $$\nexit "${c:-0}"\n'
COMPILERS = ["cc", "gcc", "clang", "c++", "g++", "clang++", "javac"]
FILES = {".git/HEAD": "ref: x\n", "include/u.h": "int s(int);\n", "src/m.c": '#include "u.h"\nint t(int x) { return s(x); }\n',
         "src/k.cpp": "int f( {\n", "pkg/Main.java": "package pkg;\nclass Main { int f() { return y; } }\n",
         "a.py": "import os\ndef f(x):\n    return undefined + x\n", "b.py": 'P = "<div><p>hi</div>"\nS = "a { color: red; }"\n',
         "page.html": "<html><body><p>hi</body></html>\n", "s.css": "a { b: c }\n", "app.js": "const g = (x) => { return x; };\n",
         "notes.txt": "one\ntwo\r\nthree\rfour\n", "sub/deep/x.txt": "x\n"}
SNIPPETS = ["def f(:\n", "x = 1\n", "print(nope)\n", 'h = "<div><p>hi</div>"\n', "int f( {\n", '#include "no.h"\n',
            "class A { void f() { int x = y; } }\n", "const x = => ;\n", "<p>open\n", "b { margin\n", "/* open\n", '"""\n',
            "\\\n", "{", ")", "\t", "\r\n", "\r", "\x0b", "\x0c", "\x1c", "\x85", "\u2028", "\x00", "\ud800", "\udcff", "é", "😀",
            "\u0301", "\ufeff"]
NAMES = ["a", ".py", ".c", ".cpp", ".java", ".js", ".html", ".css", "sub", "a.py", "link.py", "dirlink", "empty", "..", ".",
         " ", "\\", "\x00", "\udc80", "é", "\u2028", "\n", "*", "%s", "~", ".git", "new"]
INTS = [0, 1, -1, 2, 7, 2**31, 2**63 - 1, 2**63, -(2**63) - 1, 2**64, 10**30, -sys.maxsize - 1, 10**5000, True, 1.5, float("nan"), "1"]
WORDS = {"mode": ["replace", "insert_before", "insert_after", "", "REPLACE"], "ext": [".py", ".c", ".cpp", ".h", ".java", ".js", ".htm", ".css", ".ts", "", ".PY"],
         "language": ["python", "c", "cpp", "java", "javascript", "css", "html", "typescript", "no-such", ""], "exe": COMPILERS + ["none", ""]}
WORDS["lang"] = WORDS["language"]


class Boom(Exception):
    pass


class Interrupt(BaseException):
    """Not an Exception: handlers for ordinary failures must let it through."""


def answer(value):
    if isinstance(value, BaseException):
        raise value
    return value


class Hostile:
    """Every protocol, and every attribute, raises or answers with the wrong type; a callable that
    answers at most 50 times, an iterator that ends at once."""
    def __init__(self, value): self.value, self.calls = value, 0
    def hook(self, *args, **kwargs): return answer(self.value)
    for name in "eq ne lt gt hash len index int float bool str repr format bytes fspath iter getitem contains add radd".split():
        locals()[f"__{name}__"] = hook
    def __call__(self, *args, **kwargs):
        self.calls += 1
        return answer(Boom("too often") if self.calls > 50 else self.value)
    def __next__(self): answer(self.value if isinstance(self.value, BaseException) else StopIteration())
    def __getattr__(self, name): return self.hook() if not name.startswith("__") else answer(AttributeError(name))


class Node:
    """A parse-tree node stand-in (or any duck): members from a table, raised when they are errors."""
    def __init__(self, **members): self.members = members
    def __getattr__(self, name): return answer(self.members.get(name, AttributeError(name)))


class Mutator:
    """Empties the container it sits in as soon as it is compared, hashed or printed: borrowed
    references read before that are stale afterwards."""
    victim = None
    def strike(self, *args): self.victim = self.victim.clear() if self.victim is not None else None
    def __eq__(self, other): return self.strike() or False
    def __hash__(self): return self.strike() or 7
    def __str__(self): return self.strike() or "m"


def subclass(base, value, rng, values):
    """A fresh subclass of `base` with a few methods raising or answering wrongly (hash: no int, huge)."""
    names = {str: "replace split encode startswith __eq__ __hash__ __str__ __getitem__ __iter__", int: "__index__ __int__ __eq__ __lt__ __hash__ __bool__ __str__",
             dict: "__getitem__ __iter__ keys items values get __len__ __contains__", list: "__iter__ __len__ __getitem__ append __contains__ __eq__",
             tuple: "__iter__ __len__ __getitem__ __hash__"}[base].split()
    table = {name: (lambda answer_, rng_: lambda self, *a, **k: answer(values.any(1, rng_) if answer_ is None else answer_))(
             rng.choice([None, Boom(name), Interrupt(name), "x", 2**100, -1]), random.Random(rng.random())) for name in rng.sample(names, rng.randint(1, 3))}
    return type("Hostile" + base.__name__, (base,), table)(value)


class Values:
    """Random arguments from one seed; every string that may name a path stays inside the sandbox."""
    def __init__(self, rng, top): self.rng, self.top, self.texts = rng, Path(top), set()

    def pick(self, *makers): return self.rng.choice(makers)()

    def name(self): return "".join(self.rng.choices(NAMES, k=self.rng.randint(0, 4)))

    def path(self):
        rng = self.rng
        value = self.name() if rng.random() < 0.3 else rng.choice(Values.pool) + rng.choice(["", "", "", "/", "\x00", "/\udcff", "//x"])
        return self.pick(lambda: value, lambda: value, lambda: value, lambda: value.encode("utf-8", "surrogatepass"),
                         lambda: Path(value.replace("\x00", "")), lambda: subclass(str, value, rng, self),
                         lambda: type("FakePath", (), {"__fspath__": lambda self, v=rng.choice([value, 3, None, Boom()]): answer(v)})())

    def text(self, cut=False):
        rng = self.rng
        value = "".join(rng.choices(SNIPPETS, k=rng.choice([1, 5, 12, 2000]))) if rng.random() < 0.9 else rng.choice(list(FILES.values()))
        value = value[(at := rng.randint(0, len(value))):at + rng.randint(0, 30)] if cut else value
        self.texts.add(id(value))
        return value

    def scalar(self):
        rng = self.rng
        return self.pick(lambda: None, lambda: rng.choice(INTS), self.name, self.path, self.text, lambda: subclass(int, 3, rng, self),
                         lambda: Hostile(rng.choice([Boom(), Interrupt(), None, 3, "x", b"x", -1, 2**70])),
                         lambda: Node(**{n: self.any(0) for n in "type children items get append keys".split()[:rng.randint(0, 6)]}),
                         lambda: rng.choice([Ellipsis, int, object(), len, 1j, range(3), b"\xff", bytearray(b"a")]))

    def any(self, depth=2, rng=None):
        if rng is not None:
            return Values(rng, self.top).any(depth)
        rng, size = self.rng, self.rng.choice([0, 1, 3])
        if depth <= 0 or rng.random() < 0.5:
            return self.scalar()
        items = lambda: [self.any(depth - 1) for _ in range(size)]
        return self.pick(items, lambda: tuple(items()), lambda: self.mapping(self.scalar, lambda: self.any(depth - 1), size),
                         lambda: subclass(dict, {self.name(): self.any(depth - 1)}, rng, self), lambda: subclass(rng.choice([list, tuple]), items(), rng, self),
                         lambda: (x for x in items()), self.nested, self.mutator, self.node)

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
        mutator.victim = self.rng.choice([[self.any(0), mutator, self.any(0)], {"a": self.any(0), "m": mutator, "edges": self.any(0)}])
        return mutator.victim

    def node(self, depth=3):
        """A tree of stand-ins, sometimes one long chain or one whose child leads back to its parent."""
        rng = self.rng
        if depth == 3 and rng.random() < 0.1:
            node = top = Node(type="ERROR", is_missing=False, has_error=True, children=[], start_point=(0, 0))
            for _ in range(rng.choice([1000, 50000])):
                node = Node(type="x", is_missing=False, has_error=True, children=[node], start_point=(1, 1))
            top.members["children"] = rng.choice([[], [node]])
            return node
        pick = lambda *options: rng.choice(options)
        kids = [self.node(depth - 1) for _ in range(rng.randint(0, 3 if depth else 0))]
        return Node(type=pick("ERROR", "x", None, 3, Hostile(Boom()), subclass(str, "ERROR", rng, self), Boom()),
                    is_missing=pick(False, False, True, "yes", Hostile(Boom()), Boom()), has_error=pick(True, True, False, Hostile(None), Boom()),
                    start_point=pick((0, 0), (5, 1), (-1, 0), (2**70, 0), (), None, (Hostile(Boom()), 0), Boom()),
                    children=pick(kids, kids, tuple(kids), iter(kids), None, 5, Hostile(Boom()), Boom(), [self.scalar()] + kids))

    def real_node(self):
        from tree_sitter_language_pack import get_parser
        return get_parser(self.rng.choice(["python", "c", "javascript", "html", "css", "java"])).parse(
            self.text().encode("utf-8", "surrogatepass")).root_node

    def snapshot(self):
        return {"ts": 0.0, "path": self.rng.choice([None, self.path()]), "text_before": self.rng.choice([None, self.text()]), "raw": self.any(1)}

    def static_map(self):
        ids = [f"f.py::{self.name()}" for _ in range(3)]
        return {"edges": [{"caller": self.rng.choice(ids), "callee": self.rng.choice(ids)} for _ in range(3)],
                "symbols": {i: 1 for i in ids}, "defs": {i: {"X": [{"rhs": self.any(0)}]} for i in ids}}

    def param(self, name):
        """A value for parameter `name`: mostly of the right kind, sometimes anything."""
        rng = self.rng
        kinds = {"root": self.path, "path": self.path, "path_str": self.path, "abs_path": self.path, "start": lambda: Path(rng.choice(Values.pool)),
                 "content": self.text, "text": self.text, "before_text": self.text, "anchor": lambda: self.text(cut=True),
                 "start_line": lambda: rng.choice(INTS + [None, 2, 3]), "end_line": lambda: rng.choice(INTS + [None]), "steps": lambda: rng.choice(INTS),
                 "count": lambda: rng.choice(INTS), "cap": lambda: rng.choice(INTS), "node": lambda: self.pick(self.real_node, self.node),
                 "out": lambda: self.pick(list, tuple, lambda: subclass(list, [], rng, self), lambda: Node(append=Hostile(Boom()))),
                 "names": lambda: tuple(rng.choices(WORDS["exe"], k=rng.randint(0, 3))), "touched": lambda: self.mapping(self.path, self.text, 3),
                 "cfg": lambda: {**rng.choice(list(editor._COMPILER_LANGS.values())), **{rng.choice(["exe", "std", "diag", "context"]): self.any(1)}},
                 "ctx": lambda: ([rng.choice(["-I", "-cp", self.path()]) for _ in range(2)], self.path()), "snapshots": lambda: [self.snapshot() for _ in range(3)],
                 "known_paths": lambda: [rng.choice(["a.py", "sub/deep/x.txt", "src/m.c", self.name()]) for _ in range(rng.choice([0, 3, 12]))],
                 "entry": lambda: self.mapping(self.scalar, lambda: self.any(1), 2), "raw_data": lambda: self.any(1), "before": self.static_map, "after": self.static_map}
        if name in WORDS:
            return rng.choice(WORDS[name])
        return kinds[name]() if name in kinds and rng.random() < 0.8 else self.any()

    def call(self, function):
        """Arguments for one call, now and then missing one, one too many, unknown or doubled."""
        rng, params = self.rng, list(inspect.signature(function).parameters)
        given = {param: self.param(param) for param in params if rng.random() > 0.03}
        split = rng.randint(0, len(params))
        args = [given.pop(param) for param in params[:split] if param in given]
        roll = rng.random()
        return args + [self.any(1)] * (roll < 0.03), {**given, **({"bogus": 1} if roll > 0.97 else {})}

    def answers(self):
        """A callable answering each call with a fresh random value, or an error."""
        rng = random.Random(self.rng.random())
        return lambda *args, **kwargs: answer(rng.choice([Boom(), Interrupt()])) if rng.random() < 0.1 else Values(rng, self.top).any(1)


def check_safe(value, top, exempt):
    """Refuses a call if a string it could take as a path leads outside the sandbox (file contents,
    by id in `exempt`, are not paths); containers are read through their base classes."""
    pending, seen = [value], set()
    while pending:
        item = pending.pop()
        if id(item) in seen or id(item) in exempt:
            continue
        seen.add(id(item))
        if isinstance(item, (str, bytes, bytearray, Path)):
            whole = str.__add__("", os.fsdecode(bytes(item)) if isinstance(item, (bytes, bytearray)) else str(item) if isinstance(item, Path) else item)
            for text in {whole.replace("\x00", ""), whole.partition("\x00")[0]}:  # as Python and as C read it
                inside = text == str(top) or text.startswith(f"{top}/") or not (text.startswith("/") or os.path.expanduser(text) != text)
                assert "/" not in text or (".." not in text.split("/") and inside), f"unsafe path {whole!r}"
        elif isinstance(item, (dict, list, tuple, set, frozenset)):
            pending.extend([*dict.keys(item), *dict.values(item)] if isinstance(item, dict) else
                           [tuple.__getitem__(item, i) for i in range(tuple.__len__(item))] if isinstance(item, tuple) else list(set.union(set(), item)) if isinstance(item, (set, frozenset)) else list.copy(item))
        elif isinstance(item, Node):
            pending.extend(item.members.values())


def reset(top):
    for child in ("proj", "home", "tmp", "state"):
        path = top / child
        path.unlink() if path.is_symlink() or path.is_file() else shutil.rmtree(path, ignore_errors=True)
        path.mkdir(parents=True)
    for relative, text in FILES.items():
        (top / "proj" / relative).parent.mkdir(parents=True, exist_ok=True)
        (top / "proj" / relative).write_text(text)
    (top / "proj/bad.py").write_bytes(b"x = '\xff\xfe'\n")
    (top / "proj/empty").mkdir()
    for link, target in {"link.py": "a.py", "dirlink": "sub", "dangling.txt": "missing.txt"}.items():
        (top / "proj" / link).symlink_to(target)


def hostile_calls(top, seed, calls, functions):
    """(index, name, function, args, kwargs, replaced) for each call, in the sandbox's working
    directory; some calls find one or two module attributes replaced, restored after the call."""
    rng, saved, top = random.Random(seed), dict(vars(editor)), Path(top)
    tamperable = [name for name in saved if not name.startswith("__")]
    for index in range(calls):
        if index % 100 == 0 or not (top / "proj/sub/deep").is_dir():
            reset(top)
            Values.pool = [str(top)] + [str(path) for path in sorted(top.rglob("*"))] + [str(top / "proj/new.py")]
        os.chdir(top / "proj/sub/deep")
        values = Values(rng, top)
        name, function = rng.choice(functions)
        args, kwargs = values.call(function)
        replaced = {key: values.pick(values.answers, lambda: Hostile(Boom()), values.any)
                    for key in rng.sample(tamperable, rng.randint(1, 2))} if rng.random() < 0.08 else {}
        check_safe((args, kwargs, replaced), top, values.texts)
        try:
            vars(editor).update(replaced)
            yield index, name, function, args, kwargs, replaced
        finally:
            for key in set(vars(editor)) - set(saved):
                delattr(editor, key)
            vars(editor).update(saved)


def compiler_output(rng):
    """Diagnostics of every shape, some absurd, and an exit status (or a crash) for the stand-ins."""
    count = rng.choice([0, 1, 3, 3000])
    lines = [rng.choice(["m.c:{}:3: error: {}", "src/k.cpp:{}: error: {}", "pkg/Main.java:{}:1: fatal error: {}", "{1}"]).format(
        rng.choice(["1", "0", "-1", "99999999999999999999999", "", "x", "٣"]), rng.choice(["'x' undeclared", "", "\u2028", "é" * 100, "x" * (90000 // (count + 1))]))
        for _ in range(count)]
    return "\n".join(lines).encode("utf-8", "surrogatepass") + rng.randbytes(rng.choice([0, 0, 0, 64])), rng.choice(["0", "1", "2", "segv"])


def child(top, seed, calls, log_path):
    faulthandler.enable()
    rng, outcomes, system_errors, tools = random.Random(-int(seed)), Counter(), [], Path(shutil.which("gcc")).parent
    with open(log_path, "w", errors="backslashreplace") as log:
        for index, name, function, args, kwargs, replaced in hostile_calls(top, int(seed), int(calls), module_functions(editor)):
            if rng.random() < 0.5:
                data, status = compiler_output(rng)
                (tools / "out").write_bytes(data), (tools / "rc").write_text(status)
            log.write(f"{index} {name} args={object.__repr__(args)} kwargs={sorted(kwargs)} replaced={sorted(replaced)}\n")
            log.flush()
            faulthandler.dump_traceback_later(float(os.environ.get("EDITOR_FUZZ_CALL_LIMIT", 60)), exit=True)
            try:
                function(*args, **kwargs)
                outcomes[name, "returned"] += 1
            except (Exception, Interrupt) as error:
                outcomes[name, type(error).__name__] += 1
                system_errors += [f"call {index}: {name}: {error!r:.500}"] if isinstance(error, SystemError) else []
            finally:
                faulthandler.cancel_dump_traceback_later()
    os.chdir(top)
    print(json.dumps({"called": sorted({name for name, _ in outcomes}), "system_errors": system_errors}))


@pytest.mark.parametrize("seed", SEEDS)
def test_random_calls_never_kill_the_interpreter(tmp_path, seed):
    bin_dir, log = tmp_path / "bin", tmp_path / "calls.log"
    bin_dir.mkdir()
    for name in COMPILERS:
        (bin_dir / name).write_text(STUB)
        (bin_dir / name).chmod(0o755)
    env = dict(os.environ, PATH=str(bin_dir), HOME=str(tmp_path / "sandbox/home"), TMPDIR=str(tmp_path / "sandbox/tmp"),
               EDITOR_STATE_HOME=str(tmp_path / "sandbox/state"), PYTHONHASHSEED="0", PYTHONPATH=os.pathsep.join(sys.path))
    env.pop("XDG_STATE_HOME", None)
    command = [sys.executable, __file__, str(tmp_path / "sandbox"), str(seed), str(CALLS), str(log)]
    try:
        run = subprocess.run(command, env=env, cwd=tmp_path, capture_output=True, text=True, errors="replace", timeout=TIME_LIMIT)
        status, stdout, stderr = run.returncode, run.stdout, run.stderr
    except subprocess.TimeoutExpired as expired:
        status, stdout, stderr = f"still running after {TIME_LIMIT} s", "", (expired.stderr or b"").decode(errors="replace")
    last = log.read_text(errors="replace").splitlines()[-1:] if log.exists() else []
    why = f"signal {signal.Signals(-status).name}" if isinstance(status, int) and status < 0 else f"status {status}"
    replay = (f"{why}; last call started: {last}\nreplay: EDITOR_FUZZ_SEEDS={seed} EDITOR_FUZZ_CALLS={CALLS} "
              f"python -m pytest tests/{Path(__file__).name}\nchild stderr (tail):\n{stderr[-3000:]}")
    assert status == 0, replay
    summary = json.loads(stdout.splitlines()[-1])
    # A SystemError is the interpreter catching the module breaking its own return contract.
    assert summary["system_errors"] == [], replay
    assert summary["called"] == sorted(name for name, _ in module_functions(editor)), replay


@pytest.mark.leaks(only=True)
@pytest.mark.parametrize("name", [name for name, _ in module_functions(editor)])
def test_hostile_calls_do_not_leak(name, tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    monkeypatch.setenv("HOME", str(tmp_path / "home"))
    monkeypatch.chdir(tmp_path)
    for _, _, function, args, kwargs, _ in hostile_calls(tmp_path, sum(map(ord, name)), 30, [(name, editor.__dict__[name])]):
        try:
            function(*args, **kwargs)
        except (Exception, Interrupt):
            pass


if __name__ == "__main__":
    child(Path(sys.argv[1]), *sys.argv[2:])
