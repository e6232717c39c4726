"""commit_time_check over a mixed project, timed in turns with the same compiler runs made directly.

Twenty touched files (C, C++, Java, Python), half of them with an error the session introduced.
The floor is the work the gate cannot avoid, on the same project: each compiler process the gate
starts, launched directly with its output captured (twice for each file with errors, the earlier
text written in place and the final one back in between; a scratch class directory per javac
run), plus pyflakes run on the Python texts.
"""

import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

from harness import interleaved, row

import editor
from pyflakes import api

if not hasattr(editor, "_native_language"):
    sys.exit("editor._native_language is missing: build the module with language detection first")

C_OK = "#include \"common.h\"\n\nint value_{i}(int x)\n{{\n    return scale(x, {i});\n}}\n"
C_BAD = "#include \"common.h\"\n\nint value_{i}(int x)\n{{\n    return scale(x, factor_{i});\n}}\n"
CPP_OK = ("#include <string>\n#include <vector>\n#include \"shapes.hpp\"\n\n"
          "std::string name_{i}(const std::vector<Shape>& s) {{ return std::to_string(s.size() + {i}); }}\n")
CPP_BAD = ("#include <string>\n#include <vector>\n#include \"shapes.hpp\"\n\n"
           "std::string name_{i}(const std::vector<Shape>& s) {{ return std::to_string(s.length() + {i}); }}\n")
JAVA_OK = ("package com.acme.app;\n\nimport com.acme.util.Strings;\n\n"
           "class Main{i} {{\n    String greet() {{ return Strings.shout(\"hi\"); }}\n}}\n")
JAVA_BAD = JAVA_OK.replace("Strings.shout", "Strings.whisper")
PY_OK = "import os\n\n\ndef run_{i}(path):\n    return os.path.join(path, 'x')\n"
PY_BAD = "import os\n\n\ndef run_{i}(path):\n    return os.path.join(path, helper_{i})\n"

ROUNDS = 7

# (language, count, earlier text, final text with an error); the first half of each kind errs.
KINDS = [
    ("c", 6, C_OK, C_BAD, "src/c/file_{i}.c"),
    ("cpp", 6, CPP_OK, CPP_BAD, "src/cpp/file_{i}.cpp"),
    ("java", 2, JAVA_OK, JAVA_BAD, "src/main/java/com/acme/app/Main{i}.java"),
    ("python", 6, PY_OK, PY_BAD, "py/mod_{i}.py"),
]


def make_project(root):
    for d in (".git", "include", "target/classes", "target/dependency"):
        (root / d).mkdir(parents=True, exist_ok=True)
    (root / "include" / "common.h").write_text("int scale(int x, int by);\n")
    (root / "include" / "shapes.hpp").write_text("struct Shape { int sides; };\n")
    strings = root / "src/main/java/com/acme/util/Strings.java"
    strings.parent.mkdir(parents=True)
    strings.write_text("package com.acme.util;\n\npublic class Strings {\n"
                       "    public static String shout(String s) { return s.toUpperCase(); }\n}\n")
    touched = {}
    for lang, count, ok, bad, pattern in KINDS:
        for i in range(count):
            path = root / pattern.format(i=i)
            path.parent.mkdir(parents=True, exist_ok=True)
            final = (bad if i < count // 2 else ok).format(i=i)
            path.write_text(final)
            touched[str(path)] = (lang, ok.format(i=i), final)
    return touched


OUT = "<class output directory>"  # stands for javac's scratch directory in a command


def compiler_command(path, lang):
    cfg = editor._COMPILER_LANGS[lang]
    exe = editor._find_exe(cfg["exe"])
    args, cwd = cfg["context"](path)
    if lang == "java":
        return cwd, [exe, "-proc:none", "-nowarn", "-d", OUT, *args, path]
    return cwd, [exe, "-fsyntax-only", cfg["std"], "-w", "-fno-diagnostics-color", *args, path]


def compile_once(cwd, command):
    out = tempfile.mkdtemp(prefix="orvel_jc_") if OUT in command else None
    try:
        subprocess.run([out if part == OUT else part for part in command], cwd=cwd, capture_output=True)
    finally:
        if out:
            shutil.rmtree(out, ignore_errors=True)


def compiler_floor(touched):
    """Each compile the gate makes, the earlier text in place for the second run of a file."""
    for path, (lang, earlier, final) in touched.items():
        if lang == "python":
            continue
        cwd, command = compiler_command(path, lang)
        compile_once(cwd, command)
        if earlier != final:
            Path(path).write_text(earlier)
            compile_once(cwd, command)
            Path(path).write_text(final)


class Quiet:
    def flake(self, m): pass
    def syntaxError(self, *a): pass
    def unexpectedError(self, *a): pass


def pyflakes_floor(touched):
    for path, (lang, earlier, final) in touched.items():
        if lang == "python":
            api.check(final, path, Quiet())
            if earlier != final:
                api.check(earlier, path, Quiet())


def main():
    with tempfile.TemporaryDirectory(prefix="bench_semantic_") as scratch:
        touched = make_project(Path(scratch) / "proj")
        session = {path: earlier for path, (lang, earlier, final) in touched.items()}

        findings = editor.commit_time_check(session)
        assert len(findings) == 10, findings
        for path, (lang, earlier, final) in touched.items():
            assert Path(path).read_text() == final

        def floor():
            compiler_floor(touched)
            pyflakes_floor(touched)

        floor_time, median = interleaved([floor, lambda: editor.commit_time_check(session)], rounds=ROUNDS)
        row("commit_time_check (10 of 20 with errors)", "20 files", median, floor_time, summary="commit_time_check")


if __name__ == "__main__":
    main()
