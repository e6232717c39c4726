#pragma once
#include <Python.h>

namespace editor::module {

// The Py_mod_exec slot: runs the module body.
int exec(PyObject* module) noexcept;

}  // namespace editor::module
