// The value part of static_diff: module constants and CSS declarations.
#pragma once
#include <Python.h>

namespace editor::records {

// out["values_changed"], out["constants_added"], out["constants_removed"] from the two maps'
// "defs" tables, each present whenever its uncapped list is non-empty, each the first `cap`
// items of its sorted list.
void put_value_changes(PyObject* out, PyObject* before, PyObject* after, Py_ssize_t cap);

}  // namespace editor::records
