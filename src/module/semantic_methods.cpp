// Python-facing glue of the semantic checks.
#include <Python.h>

#include "editor/boundary.hpp"
#include "module/methods.hpp"
#include "semantic/semantic.hpp"

namespace editor::methods {
namespace {

Ref find_exe_impl(PyObject* module, const Args& args) {
    static constexpr Signature<1> sig{"_find_exe", {"names"}};
    auto [names] = bind(sig, args);
    return semantic::find_exe(module, names);
}

Ref repo_root_impl(PyObject* module, const Args& args) {
    static constexpr Signature<1> sig{"_repo_root", {"start"}};
    auto [start] = bind(sig, args);
    return semantic::repo_root(module, start);
}

Ref cpp_context_impl(PyObject* module, const Args& args) {
    static constexpr Signature<1> sig{"_cpp_context", {"abs_path"}};
    auto [abs_path] = bind(sig, args);
    return semantic::cpp_context(module, abs_path);
}

Ref java_context_impl(PyObject* module, const Args& args) {
    static constexpr Signature<1> sig{"_java_context", {"abs_path"}};
    auto [abs_path] = bind(sig, args);
    return semantic::java_context(module, abs_path);
}

Ref compile_errors_impl(PyObject* module, const Args& args) {
    static constexpr Signature<5> sig{"_compile_errors", {"exe", "lang", "cfg", "abs_path", "ctx"}};
    auto [exe, lang, cfg, abs_path, ctx] = bind(sig, args);
    return semantic::compile_errors(module, exe, lang, cfg, abs_path, ctx);
}

Ref pyflakes_errors_impl(PyObject* module, const Args& args) {
    static constexpr Signature<1> sig{"_pyflakes_errors", {"abs_path"}};
    auto [abs_path] = bind(sig, args);
    return semantic::pyflakes_errors(module, abs_path);
}

Ref semantic_errfn_impl(PyObject* module, const Args& args) {
    static constexpr Signature<2> sig{"_semantic_errfn", {"abs_path", "lang"}};
    auto [abs_path, lang] = bind(sig, args);
    return semantic::semantic_errfn(module, abs_path, lang);
}

Ref semantic_delta_check_impl(PyObject* module, const Args& args) {
    static constexpr Signature<3> sig{"_semantic_delta_check", {"abs_path", "lang", "before_text"}};
    auto [abs_path, lang, before_text] = bind(sig, args);
    return semantic::semantic_delta_check(module, abs_path, lang, before_text);
}

Ref commit_time_check_impl(PyObject* module, const Args& args) {
    static constexpr Signature<1> sig{"commit_time_check", {"touched"}};
    auto [touched] = bind(sig, args);
    return semantic::commit_time_check(module, touched);
}

}  // namespace

PyMethodDef find_exe = {
    "_find_exe", _PyCFunction_CAST(entry<find_exe_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("_find_exe($module, /, names)\n--\n\n"
              "Full path of the first of names found on the executable search path, or None.")};

PyMethodDef repo_root = {
    "_repo_root", _PyCFunction_CAST(entry<repo_root_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("_repo_root($module, /, start)\n--\n\n"
              "Nearest directory at or above start (a Path; a file starts at its directory)\n"
              "holding a '.git' entry, looking at most 50 directories up; else start's directory.")};

PyMethodDef cpp_context = {
    "_cpp_context", _PyCFunction_CAST(entry<cpp_context_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("_cpp_context($module, /, abs_path)\n--\n\n"
              "(args, cwd) for a syntax-only compile of a C or C++ source file: '-I' for the\n"
              "repository root, its include/ and src/, and the file's directory, each once and\n"
              "only if present; cwd is the root. None for headers and other suffixes.")};

PyMethodDef java_context = {
    "_java_context", _PyCFunction_CAST(entry<java_context_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("_java_context($module, /, abs_path)\n--\n\n"
              "(args, cwd) for javac: '-sourcepath' at the directory holding the file's package\n"
              "(when the directories mirror it, else the file's own), and '-cp' with earlier\n"
              "Maven or Gradle classes and target/dependency jars. None for other suffixes and\n"
              "unreadable files.")};

PyMethodDef compile_errors = {
    "_compile_errors", _PyCFunction_CAST(entry<compile_errors_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("_compile_errors($module, /, exe, lang, cfg, abs_path, ctx)\n--\n\n"
              "Run the compiler exe in syntax-only mode over abs_path in the build context ctx\n"
              "and return its error lines as (message, line) pairs: [] when it compiles clean,\n"
              "None when the run cannot be evaluated (missing compiler, crash, 60 s time-out,\n"
              "no readable error line).")};

PyMethodDef pyflakes_errors = {
    "_pyflakes_errors", _PyCFunction_CAST(entry<pyflakes_errors_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("_pyflakes_errors($module, /, abs_path)\n--\n\n"
              "pyflakes' semantic errors in the Python file (undefined names, misplaced return\n"
              "and the like) as (message, line) pairs; style findings and syntax errors are\n"
              "dropped. None when pyflakes is missing or fails, or the file cannot be read.")};

PyMethodDef semantic_errfn = {
    "_semantic_errfn", _PyCFunction_CAST(entry<semantic_errfn_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("_semantic_errfn($module, /, abs_path, lang)\n--\n\n"
              "(label, errfn) of the analyser for a file of language lang, with the compiler and\n"
              "build context found now; None when there is none here.")};

PyMethodDef semantic_delta_check = {
    "_semantic_delta_check", _PyCFunction_CAST(entry<semantic_delta_check_impl>),
    METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("_semantic_delta_check($module, /, abs_path, lang, before_text)\n--\n\n"
              "The first error of the file that its earlier text before_text did not have as\n"
              "often, as '<label> error: <message> (line <n>)'; None when there is none or the\n"
              "file cannot be judged. The earlier text is analysed at the same path and the\n"
              "current text is always put back.")};

PyMethodDef commit_time_check = {
    "commit_time_check", _PyCFunction_CAST(entry<commit_time_check_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("commit_time_check($module, /, touched)\n--\n\n"
              "Judge every file the session touched, in its final state, against its text at\n"
              "first touch (touched: {absolute path: text, or None for a created file}).\n"
              "\n"
              "Returns one '<file name>: <finding>' entry per file whose edits introduced a\n"
              "compiler or pyflakes error, in the order of touched. Files are briefly put back\n"
              "to their earlier text on disk: do not edit them while this runs.")};

}  // namespace editor::methods
