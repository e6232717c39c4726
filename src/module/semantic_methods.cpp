// Python-facing glue of the semantic checks.
#include <Python.h>

#include "editor/method.hpp"
#include "module/methods.hpp"
#include "semantic/semantic.hpp"

namespace editor::methods {

PyMethodDef find_exe = method<semantic::find_exe_sig, semantic::find_exe,
    "Full path of the first of names found on the executable search path, or None.">();

PyMethodDef repo_root = method<semantic::repo_root_sig, semantic::repo_root,
    "Nearest directory at or above start (a Path; a file starts at its directory)\n"
    "holding a '.git' entry, looking at most 50 directories up; else start's directory.">();

PyMethodDef cpp_context = method<semantic::cpp_context_sig, semantic::cpp_context,
    "(args, cwd) for a syntax-only compile of a C or C++ source file: '-I' for the\n"
    "repository root, its include/ and src/, and the file's directory, each once and\n"
    "only if present; cwd is the root. None for headers and other suffixes.">();

PyMethodDef java_context = method<semantic::java_context_sig, semantic::java_context,
    "(args, cwd) for javac: '-sourcepath' at the directory holding the file's package\n"
    "(when the directories mirror it, else the file's own), and '-cp' with earlier\n"
    "Maven or Gradle classes and target/dependency jars. None for other suffixes and\n"
    "unreadable files.">();

PyMethodDef compile_errors = method<semantic::compile_errors_sig, semantic::compile_errors,
    "Run the compiler exe in syntax-only mode over abs_path in the build context ctx\n"
    "and return its error lines as (message, line) pairs: [] when it compiles clean,\n"
    "None when the run cannot be evaluated (missing compiler, crash, 60 s time-out,\n"
    "no readable error line).">();

PyMethodDef pyflakes_errors = method<semantic::pyflakes_errors_sig, semantic::pyflakes_errors,
    "pyflakes' semantic errors in the Python file (undefined names, misplaced return\n"
    "and the like) as (message, line) pairs; style findings and syntax errors are\n"
    "dropped. None when pyflakes is missing or fails, or the file cannot be read.">();

PyMethodDef semantic_errfn = method<semantic::semantic_errfn_sig, semantic::semantic_errfn,
    "(label, errfn) of the analyser for a file of language lang, with the compiler and\n"
    "build context found now; None when there is none here.">();

PyMethodDef semantic_delta_check = method<semantic::semantic_delta_check_sig, semantic::semantic_delta_check,
    "The first error of the file that its earlier text before_text did not have as\n"
    "often, as '<label> error: <message> (line <n>)'; None when there is none or the\n"
    "file cannot be judged. The earlier text is analysed at the same path and the\n"
    "current text is always put back.">();

PyMethodDef commit_time_check = method<semantic::commit_time_check_sig, semantic::commit_time_check,
    "Judge every file the session touched, in its final state, against its text at\n"
    "first touch (touched: {absolute path: text, or None for a created file}).\n"
    "\n"
    "Returns one '<file name>: <finding>' entry per file whose edits introduced a\n"
    "compiler or pyflakes error, in the order of touched. Files are briefly put back\n"
    "to their earlier text on disk: do not edit them while this runs.">();

}  // namespace editor::methods
