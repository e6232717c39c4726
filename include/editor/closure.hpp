// A built-in function that closes over a few objects: its `self` is the tuple of them, and an
// enum names their positions (its last enumerator, `count`, is how many there are), so the
// function reads them by name.
#pragma once
#include <Python.h>

#include <array>
#include <cstddef>

#include "editor/error.hpp"

namespace editor {

template <typename Members>
using ClosureValues = std::array<PyObject*, static_cast<std::size_t>(Members::count)>;

// The closure tuple holding `values` (borrowed) in the order `Members` names them.
template <typename Members>
[[nodiscard]] Ref make_closure(const ClosureValues<Members>& values) {
    Ref closure = check(PyTuple_New(static_cast<Py_ssize_t>(values.size())));
    for (std::size_t i = 0; i < values.size(); ++i) {
        PyTuple_SET_ITEM(closure.get(), static_cast<Py_ssize_t>(i), Py_NewRef(values[i]));
    }
    return closure;
}

// The member `which` of a closure tuple (borrowed; the tuple keeps it alive).
template <typename Members>
[[nodiscard]] PyObject* member(PyObject* closure, Members which) {
    return PyTuple_GET_ITEM(closure, static_cast<Py_ssize_t>(which));
}

}  // namespace editor
