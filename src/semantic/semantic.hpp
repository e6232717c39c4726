// Semantic checks: build contexts and compiler diagnostics for C, C++ and Java, pyflakes for
// Python, and the commit-time gate that reports only the errors a session's edits introduced.
#pragma once
#include <Python.h>

#include "editor/ref.hpp"

namespace editor::semantic {

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
