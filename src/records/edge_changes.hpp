// The call-edge part of static_diff.
#pragma once
#include <Python.h>

namespace editor::records {

// out["edges_added"] / out["edges_removed"]: "{short(caller)} -> {short(callee)}" for the first
// `cap` pairs, in the order of the full ids, of the (caller, callee) pairs only one map has.
// Each key is present whenever its uncapped list is non-empty.
void put_edge_changes(PyObject* out, PyObject* before, PyObject* after, Py_ssize_t cap);

}  // namespace editor::records
