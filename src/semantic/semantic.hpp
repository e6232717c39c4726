// Semantic checks: build contexts and compiler diagnostics for C, C++ and Java, pyflakes for
// Python, and the commit-time gate that reports only the errors a session's edits introduced.
#pragma once
#include <Python.h>

#include "editor/args.hpp"
#include "editor/ref.hpp"

namespace editor::semantic {

// The Python declarations: names, parameters and defaults, read by the bindings and by the
// operations that call one another through the module namespace.
inline constexpr Signature find_exe_sig{"_find_exe", "names"};
inline constexpr Signature repo_root_sig{"_repo_root", "start"};
inline constexpr Signature cpp_context_sig{"_cpp_context", "abs_path"};
inline constexpr Signature java_context_sig{"_java_context", "abs_path"};
inline constexpr Signature compile_errors_sig{"_compile_errors", "exe", "lang", "cfg", "abs_path", "ctx"};
inline constexpr Signature pyflakes_errors_sig{"_pyflakes_errors", "abs_path"};
inline constexpr Signature semantic_errfn_sig{"_semantic_errfn", "abs_path", "lang"};
inline constexpr Signature semantic_delta_check_sig{"_semantic_delta_check", "abs_path", "lang", "before_text"};
inline constexpr Signature commit_time_check_sig{"commit_time_check", "touched"};

// Executables and build contexts.
Ref find_exe(PyObject* module, PyObject* names);
Ref repo_root(PyObject* module, PyObject* start);
Ref cpp_context(PyObject* module, PyObject* abs_path);
Ref java_context(PyObject* module, PyObject* abs_path);

// Analysers: a list of (message, line) pairs, [] when clean, None when not evaluated.
Ref compile_errors(PyObject* module, PyObject* exe, PyObject* lang, PyObject* cfg, PyObject* abs_path,
                   PyObject* ctx);
Ref pyflakes_errors(PyObject* module, PyObject* abs_path);

// The gate.
Ref semantic_errfn(PyObject* module, PyObject* abs_path, PyObject* lang);
Ref semantic_delta_check(PyObject* module, PyObject* abs_path, PyObject* lang, PyObject* before_text);
Ref commit_time_check(PyObject* module, PyObject* touched);

}  // namespace editor::semantic
