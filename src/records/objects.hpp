// Small operations on the host's plain objects shared by the record operations.
#pragma once
#include <Python.h>

#include "editor/ref.hpp"

namespace editor::records {

// operator.index(number), clipped to the Py_ssize_t range (a count beyond it behaves as the
// nearest representable one, as list slicing treats it). TypeError for a non-integer.
Py_ssize_t clamped_index(PyObject* number);

// An exact str: ids the fast paths may compare and sort as text.
[[nodiscard]] inline bool is_text(PyObject* id) { return PyUnicode_CheckExact(id); }

// mapping.items() as a list of 2-tuples, taken before any of it is used, so nothing the caller
// does to the mapping meanwhile can pull an item from under us.
Ref item_pairs(PyObject* mapping);

// mapping.get(key, fallback).
Ref get_or(PyObject* mapping, const char* key, Ref fallback);

// [short(i) for i in ids if i not in other]: what only `ids` holds, shortened, in its order.
Ref shortened_missing(PyObject* ids, PyObject* other);

}  // namespace editor::records
