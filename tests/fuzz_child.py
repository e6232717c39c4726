"""The child process of the crash fuzzer (tests/test_crash_fuzz.py starts it).

    python fuzz_child.py SANDBOX TOOLS SEED CALLS LOG

Calls the functions of `editor`, found at run time (every callable of its namespace whose
`__module__` is "editor"), CALLS times with random arguments drawn from SEED, inside the sandbox
directory SANDBOX. Before each call it appends one line "<index> <function> <arguments>" to LOG
and flushes it, so when the process dies the last line names the call that killed it. Some
calls find module attributes replaced by hostile ones (restored afterwards), and the stand-in
compilers in TOOLS print random output. A run that ends prints one JSON summary line.
"""

import faulthandler
import json
import os
import random
import sys
import time
from collections import Counter
from pathlib import Path

from fuzz_values import FuzzInterrupt, Sandbox, Values, call_shape, check_safe, module_functions, restore, tamper

RESET_EVERY = 100
CALL_LIMIT = float(os.environ.get("EDITOR_FUZZ_CALL_LIMIT", 60))  # seconds


def compiler_output(rng):
    """What the stand-in compilers print next: diagnostics of every shape, some of them absurd."""
    paths = ["m.c", "src/k.cpp", "pkg/Main.java", "x"]
    lines = []
    count = rng.choice([0, 1, 3, 50, 3000])
    messages = ["'x' undeclared", "expected ';'", "", " ", "\u2028", "é" * 100]
    if count < 5:
        messages.append("x" * 100000)
    for _ in range(count):
        line_number = rng.choice(["1", "7", "0", "-1", "99999999999999999999999", "", "x", "٣"])
        message = rng.choice(messages)
        shape = rng.randrange(4)
        if shape == 0:
            lines.append(f"{rng.choice(paths)}:{line_number}:3: error: {message}")
        elif shape == 1:
            lines.append(f"{rng.choice(paths)}:{line_number}: error: {message}")
        elif shape == 2:
            lines.append(f"{rng.choice(paths)}:{line_number}:1: fatal error: {message}")
        else:
            lines.append(message)
    data = "\n".join(lines).encode("utf-8", "surrogatepass")
    if rng.random() < 0.2:
        data += bytes(rng.randrange(256) for _ in range(rng.randint(1, 64)))
    return data, rng.choice(["0", "1", "1", "2", "segv"])


def describe(value, budget=300):
    """A short account of an argument that never runs the argument's own code."""
    text = _describe(value, 3)
    return text if len(text) <= budget else text[:budget] + "..."


def _describe(value, depth):
    kind = type(value)
    if kind in (int, float, bool, complex, type(None)):
        return repr(value) if kind is not int or abs(value) < 10**30 else f"<int of {value.bit_length()} bits>"
    if kind in (str, bytes, bytearray):
        return repr(value[:80]) + (f"+{len(value) - 80}" if len(value) > 80 else "")
    if depth == 0:
        return f"<{kind.__name__}>"
    if kind in (list, tuple, set, frozenset):
        items = [_describe(item, depth - 1) for item in list(value)[:5]]
        return f"{kind.__name__}[{', '.join(items)}{', ...' if len(value) > 5 else ''}]"
    if kind is dict:
        items = [f"{_describe(k, depth - 1)}: {_describe(v, depth - 1)}" for k, v in list(value.items())[:5]]
        return "{" + ", ".join(items) + (", ..." if len(value) > 5 else "") + "}"
    return f"<{kind.__name__}>"


def main():
    sandbox_dir, tools, seed, calls, log_path = sys.argv[1:6]
    faulthandler.enable()
    import editor

    rng = random.Random(int(seed))
    sandbox = Sandbox(sandbox_dir)
    sandbox.reset()
    values = Values(rng, sandbox)
    functions = module_functions(editor)
    saved = dict(vars(editor))
    tamperable = [name for name in saved if not name.startswith("__")]
    outcomes = {name: Counter() for name, _ in functions}
    system_errors = []
    seconds = Counter()
    slowest = []
    with open(log_path, "w", encoding="utf-8", errors="backslashreplace") as log:
        for index in range(int(calls)):
            if index % RESET_EVERY == 0:
                sandbox.reset()
                values.refresh_pool()
            else:
                sandbox.ensure_cwd()
            name, function = rng.choice(functions)
            values.texts = []
            args, kwargs = call_shape(values, function)
            replaced = tamper(values, editor, tamperable) if rng.random() < 0.08 else {}
            if rng.random() < 0.5:
                data, code = compiler_output(rng)
                Path(tools, "out").write_bytes(data)
                Path(tools, "rc").write_text(code)
            check_safe((args, kwargs, replaced), sandbox, {id(text) for text in values.texts})
            log.write(f"{index} {name} args={describe(args)} kwargs={describe(kwargs)}"
                      f" replaced={sorted(replaced)}\n")
            log.flush()
            started = time.perf_counter()
            # A call that never returns ends the run with every thread's traceback on stderr.
            faulthandler.dump_traceback_later(CALL_LIMIT, exit=True)
            try:
                function(*args, **kwargs)
                outcome = "returned"
            except (Exception, FuzzInterrupt) as error:
                outcome = type(error).__name__
                if isinstance(error, SystemError):
                    system_errors.append(f"call {index}: {name}: {error}")
            finally:
                faulthandler.cancel_dump_traceback_later()
                restore(editor, saved)
            outcomes[name][outcome] += 1
            spent = time.perf_counter() - started
            seconds[name] += spent
            slowest = sorted(slowest + [(spent, index, name)], reverse=True)[:5]
    os.chdir(sandbox.top)
    print(json.dumps({"calls": int(calls), "outcomes": outcomes, "seconds": seconds, "slowest": slowest,
                      "system_errors": system_errors}))


if __name__ == "__main__":
    main()
