# Every function of the module, called with hostile arguments (now and then with module attributes
# replaced), in a child process that must never die from a signal, hang or raise SystemError. Run as a
# script, this file is that child: python test_crash_fuzz.py SANDBOX SEED CALLS LOG

import contextlib, faulthandler, functools, gc, inspect, json, os, random, shutil, subprocess, sys
from pathlib import Path

import pytest
from tree_sitter_language_pack import get_parser

import editor
from conftest import module_functions

SEEDS = [int(seed) for seed in os.environ.get("EDITOR_FUZZ_SEEDS", "20261,7").split(",")]
CALLS = int(os.environ.get("EDITOR_FUZZ_CALLS", "2000"))
# What the stand-in compilers print (diagnostics of every shape, some absurd) and how they end.
EXES, ENDS = ["cc", "gcc", "clang", "c++", "g++", "clang++", "javac"], ["exit 0", "exit 1", "kill -SEGV $$"]
OUTPUTS = ["", "m.c:3:3: error: 'x' undeclared", f"k.cpp:{'9' * 30}: fatal error: \u2028", "\udcff:",
           "Main.java:-1: error: x\n" * 3000, "m.c:\u0663:1: error: " + "x" * 9**5, "m.c:0: error:\nm.c:x:"]
FILES = {".git/HEAD": "ref: x\n", "include/u.h": "int s(int);\n", "src/m.c": '#include "u.h"\nint t;\n',
         "src/k.cpp": "int f( {\n", "pkg/Main.java": "package pkg;\nclass Main { int f() { return y; } }\n",
         "a.py": "import os\ndef f(x):\n    return y\n", "b.py": 'P = "<p>hi</div>"\nS = "a { b: c; }"\n',
         "page.html": "<p>hi</b>\n", "s.css": "a { b: c }\n", "app.js": "const g = (x) => x;\n",
         "sub/deep/x.txt": "x\r\ny\rz\n", "bad.py": "x = '\udcff\udcfe'\n"}  # the last not UTF-8 on disk
SNIPPETS = [*FILES.values(), "def f(:\n", "class A { int x = y; }\n", "const x = => ;\n", "b { margin\n",
            "x /* open\n", '"""', "\\\n", *"{)\t\r\x0b\x0c\x1c\x1e\x85\u2028\u2029\x00\ud800\udcff😀\ufeff"]
NAMES = ["a", ".py", ".c", ".java", ".js", ".html", ".css", "sub", "a.py", "link.py", "dirlink", "empty",
         "..", ".", ".git", "new", "%s", *" \\\x00\udc80é\u2028\n*~"]
INTS = [0, 1, -1, 2**31, 2**63 - 1, 2**63, -(2**63) - 1, 2**64, 10**5000, True, 1.5, float("nan"), "1", None]
LANGS = ["python", "c", "cpp", "java", "javascript", "css", "html", "typescript", "no-such", ""]
WORDS = {"mode": ["replace", "insert_before", "insert_after", "", "REPLACE"], "exe": [*EXES, "none", ""],
         "ext": [".py", ".c", ".cpp", ".h", ".java", ".js", ".htm", ".css", ".ts", "", ".PY"], "lang": LANGS,
         "language": LANGS, **dict.fromkeys(["start_line", "end_line", "steps", "count", "cap"], INTS)}
METHODS = ("__eq__ __lt__ __hash__ __bool__ __str__ __index__ __int__ __iter__ __len__ __getitem__ "
           "__contains__ keys items values get append replace split encode startswith").split()
IDS = [f"f.py::{name}" for name in NAMES[:5]]
# The run's one stream of choices, and the paths in the sandbox. No content may begin with "/" or "~" or
# hold "..": contents are taken as paths too, now and then.
rng, pool = random.Random(), []
Boom, Interrupt = type("Boom", (Exception,), {}), type("Interrupt", (BaseException,), {})  # no Exception


def pick(*options):  # one of options, made fresh if it is a maker (a Python function)
    return option() if type(option := rng.choice(options)) is type(pick) else option


def answer(value):
    if isinstance(value := pick(value), BaseException):
        raise value
    return value


class Hostile:  # every protocol and attribute raises or answers wrongly, 50 times at most, then raises
    def __init__(self, value):
        self.value, self.uses = value, 0

    def hook(self, *args, **kwargs):
        self.uses += 1  # an endless source of text or items would hang any reader
        return answer(Boom() if self.uses > 50 else self.value)
    for name in "eq lt hash len index int float bool str bytes fspath iter getitem call getattr".split():
        locals()[f"__{name}__"] = hook

    def __next__(self):
        raise self.value if isinstance(self.value, BaseException) else StopIteration


class Node:  # a parse-tree node stand-in: members from a table, raised when they are errors
    def __init__(self, **members):
        self.members = members

    def __getattr__(self, name):
        return answer(self.members.get(name, AttributeError(name)))


class Mutator:  # empties the container it sits in once compared, hashed or printed: borrowed items go stale
    def __init__(self):
        self.victim = pick([anything(0), self, anything(0)], {"a": anything(0), "m": self, "edges": 1})

    def strike(self, *args):  # as __str__ it then answers with the wrong type
        self.victim = self.victim and self.victim.clear()
        return 7
    __eq__ = __hash__ = __str__ = strike


def subclass(base, value):  # an instance of a fresh subclass whose chosen methods raise or answer wrongly
    wrong = lambda *args, _value=pick(anything, Boom(), Interrupt(), "x", 2**100), **kwargs: answer(_value)
    return type("Hostile", (base,), dict.fromkeys(rng.sample(METHODS, 4), wrong))(value)


def path():
    value = rng.choice(pool) + pick("", "", "/", "\0", "/\udcff", "//x") if rng.random() < 0.7 else \
        "".join(rng.choices(NAMES, k=rng.randint(0, 4)))
    return pick(value, value, lambda: value.encode("utf-8", "surrogatepass"), lambda: subclass(str, value),
                lambda: Path(value.replace("\0", "")), lambda: Hostile(pick(value, anything, Boom())))


def text():
    return "".join(rng.choices(SNIPPETS, k=pick(1, 2, 5, 12, 99, 2000)))


def mapping(key, value, size=3):
    with contextlib.suppress(Exception, Interrupt):  # a key that cannot be hashed
        return {key(): value() for _ in range(size)}
    return {}


def anything(depth=2):
    if depth <= 0 or rng.random() < 0.5:
        return pick(lambda: pick(*INTS, Ellipsis, int, object(), len, 1j, b"\xff"), path,
                    text, lambda: subclass(int, 3), lambda: Hostile(pick(anything, Boom(), Interrupt())))
    items, pairs = lambda: [anything(depth - 1) for _ in range(pick(0, 1, 3))], lambda: mapping(path, text)
    nest = lambda inner, _: pick([inner], {"edges": inner, "k": 1})  # 5,000 deep at most
    return pick(items, lambda: tuple(items()), pairs, lambda: subclass(dict, pairs()), node,
                lambda: Mutator().victim, lambda: subclass(pick(list, tuple), items()), lambda: iter(items()),
                lambda: (item for item in items()), lambda: functools.reduce(nest, range(pick(50, 5000)), 0))


def node(depth=3):  # stand-ins whose members raise or hold wrong types; now and then a chain, maybe a loop
    if depth == 3 and rng.random() < 0.04:
        last = Node(type="ERROR", is_missing=False, has_error=True, children=[], start_point=(0, 0))
        link = lambda kid, _: Node(**{**last.members, "type": "x", "children": [kid]})
        last.members["children"] = pick([], [first := functools.reduce(link, range(pick(1000, 50000)), last)])
        return first
    kids, bad = [node(depth - 1) for _ in range(rng.randint(0, depth))], lambda: pick(Boom(), Hostile(0), 3)
    return Node(type=pick("ERROR", "x", lambda: subclass(str, "ERROR"), bad), has_error=pick(True, 0, bad),
                is_missing=pick(False, True, bad), start_point=pick((0, 0), (-1, 2**70), (), bad),
                children=pick(kids, tuple(kids), iter(kids), lambda: [anything(0), *kids], bad))


KINDS = {**dict.fromkeys(["root", "path", "path_str", "abs_path", "start"], path), "raw_data": anything,
         **dict.fromkeys(["content", "text", "before_text", "anchor"], text),
         **dict.fromkeys(["before", "after"], lambda: {"symbols": dict.fromkeys(IDS, 1), "defs": {IDS[0]: {}},
                                                       "edges": [dict(caller=pick(*IDS), callee=IDS[1])]}),
         "node": lambda: pick(node, lambda: get_parser(pick(*LANGS[:7])).parse(
             text().encode("utf-8", "surrogatepass")).root_node),
         "touched": lambda: mapping(path, text), "names": lambda: [pick(*WORDS["exe"]), "x"][:pick(0, 1, 2)],
         "entry": lambda: mapping(path, anything, 2), "ctx": lambda: ([pick("-I", path), path()], path()),
         "cfg": lambda: {**pick(*editor._COMPILER_LANGS.values()), pick("exe", "std", "diag"): anything(0)},
         "snapshots": lambda: [dict(ts=0.0, path=pick(None, path), text_before=pick(None, text), raw=1)] * 3,
         "known_paths": lambda: [pick("a.py", "src/m.c", path) for _ in range(pick(0, 3, 12))]}


def arguments(function):  # mostly of each parameter's kind; some calls miss one, add one, or a bad keyword
    params = list(inspect.signature(function).parameters)
    known = lambda name: pick(*WORDS[name]) if name in WORDS else KINDS.get(name, anything)()
    # Anything at all as the names to look up would only time the standard library's search.
    given = {name: known(name) if name == "names" or rng.random() < 0.8 else anything() for name in params
             if rng.random() > 0.03}
    args = [given.pop(name) for name in params[:rng.randint(0, len(params))] if name in given]
    roll = rng.random()
    return args + [anything(1)] * (roll < 0.03), {**given, **({"bogus": 1} if roll > 0.97 else {})}


# Refuses a call if a string it could take as a path leads outside the sandbox; containers are read
# through the collector's view of them, so no hostile method runs.
def check_safe(value, top):
    pending, seen = [value], set()
    while pending:
        if isinstance(item := pending.pop(), (str, bytes, Path)):
            whole = str.__add__("", os.fsdecode(item) if isinstance(item, bytes) else os.fspath(item))
            for text in {whole.replace("\0", ""), whole.partition("\0")[0]}:  # as Python and as C read it
                inside = text[:1] not in "/~" or text == str(top) or text.startswith(f"{top}/")
                assert "/" not in text or (".." not in text.split("/") and inside), f"unsafe path {whole!r}"
        elif isinstance(item, (list, tuple, dict, Node, Hostile, Mutator)) and id(item) not in seen:
            seen.add(id(item))
            pending += gc.get_referents(item)


# A fresh project (with links, one dangling) beside fresh home, temporary and state folders, and stand-in
# compilers that print diagnostics and exit with a status or crash.
def reset(top):
    shutil.rmtree(top, ignore_errors=True)
    stubs = {f"../bin/{exe}": f"#!/bin/sh\n/bin/cat <<E\n{pick(*OUTPUTS)}\nE\n{pick(*ENDS)}" for exe in EXES}
    folders = dict.fromkeys(["empty", "../home", "../tmp", "../state"])
    for relative, content in {**FILES, **stubs, **folders}.items():
        (where := top / "proj" / relative).parent.mkdir(parents=True, exist_ok=True)
        where.mkdir() if content is None else where.write_text(content, errors="surrogateescape")
        where.chmod(0o755)
    for link, target in {"link.py": "a.py", "dirlink": "sub", "dangling": "gone"}.items():
        (top / "proj" / link).symlink_to(target)
    pool[:] = [str(top), *map(str, sorted(top.rglob("*"))), str(top / "proj/new.py")]


# Makes the calls in the sandbox, some finding one or two module attributes replaced (restored after);
# returns the SystemErrors seen (the module breaking its own return contract).
def run_calls(top, seed, calls, functions, log=None):
    rng.seed(seed)
    saved, system_errors, limit = dict(vars(editor)), [], float(os.environ.get("EDITOR_FUZZ_CALL_LIMIT", 60))
    for index in range(calls):
        if index % 100 == 0 or not (top / "proj/sub/deep").is_dir():
            reset(top)
        os.chdir(top / "proj/sub/deep")
        name, function = rng.choice(functions)
        args, kwargs = arguments(function)
        keys = rng.sample([key for key in saved if key[0] != "_"], pick(1, 2)) if rng.random() < 0.08 else ()
        replaced = {key: pick(anything, lambda: Hostile(pick(Boom(), Interrupt(), anything))) for key in keys}
        check_safe((args, kwargs, replaced), top)
        kinds = [type(value).__name__ for value in (*args, *kwargs.values())]
        print(index, name, kinds, sorted(kwargs), sorted(replaced), file=log, flush=True)
        faulthandler.dump_traceback_later(limit, exit=True)  # a new call's watchdog replaces the last one's
        vars(editor).update(replaced)
        try:
            function(*args, **kwargs)
        except (Exception, Interrupt) as error:
            system_errors += [f"call {index}: {name}: {error!r:.500}"] * isinstance(error, SystemError)
        vars(editor).update(saved)
    faulthandler.cancel_dump_traceback_later()
    return system_errors


@pytest.mark.parametrize("seed", SEEDS)
def test_random_calls_never_kill_the_interpreter(tmp_path, seed):
    sandbox, log = tmp_path / "sandbox", tmp_path / "log"
    env = dict(os.environ, PATH=str(sandbox / "bin"), HOME=str(sandbox / "home"), TMPDIR=str(sandbox / "tmp"),
               EDITOR_STATE_HOME=str(sandbox / "state"), PYTHONHASHSEED="0", PYTHONPATH=":".join(sys.path))
    env.pop("XDG_STATE_HOME", None)
    command = [sys.executable, __file__, str(sandbox), str(seed), str(CALLS), str(log)]
    # The watchdog ends a hung call; the time-out, a child stuck between calls (generous for the sanitizers).
    run = subprocess.run(command, env=env, capture_output=True, text=True, errors="replace",
                         timeout=300 + CALLS)
    status, lines = run.returncode, log.read_text(errors="replace").splitlines() if log.exists() else []
    replay = (f"status {status} (negative: killed by that signal); last call started: {lines[-1:]}\n"
              f"replay: EDITOR_FUZZ_SEEDS={seed} EDITOR_FUZZ_CALLS={CALLS} python -m pytest "
              f"tests/{Path(__file__).name}\nchild stderr (tail):\n{run.stderr[-3000:]}")
    called, everything = {line.split(" ")[1] for line in lines}, set(dict(module_functions(editor)))
    # Alive, every function called, no SystemError.
    assert (status, called, run.stdout.splitlines()[-1:]) == (0, everything, ["[]"]), replay


@pytest.mark.leaks(only=True)
@pytest.mark.parametrize("name", sorted(dict(module_functions(editor))))
def test_hostile_calls_do_not_leak(name, tmp_path, monkeypatch):
    monkeypatch.setenv("EDITOR_STATE_HOME", str(tmp_path / "state"))
    monkeypatch.setenv("HOME", str(tmp_path / "home"))
    monkeypatch.chdir(tmp_path)
    assert run_calls(tmp_path / "sandbox", sum(map(ord, name)), 6, [(name, getattr(editor, name))]) == []


if __name__ == "__main__":
    faulthandler.enable()
    with open(sys.argv[4], "w", errors="backslashreplace") as log:
        top, seed, calls = Path(sys.argv[1]), *map(int, sys.argv[2:4])
        print(json.dumps(run_calls(top, seed, calls, module_functions(editor), log)))
