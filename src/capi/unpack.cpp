// The unpacking behind unpack.hpp, with the interpreter's own messages.
#include <Python.h>

#include "editor/unpack.hpp"

namespace editor::detail {

void unpack(PyObject* value, std::size_t count, Ref* out) {
    Ref items = Ref::steal(PyObject_GetIter(value));
    if (!items) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(value)->tp_iter == nullptr &&
            !PySequence_Check(value)) {
            PyErr_Clear();
            PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(value)->tp_name);
        }
        throw PyError::fetch();
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (!check_bool(PyIter_NextItem(items.get(), out[i].out()))) {
            raise_format(PyExc_ValueError, "not enough values to unpack (expected %zu, got %zu)", count, i);
        }
    }
    Ref extra;
    if (!check_bool(PyIter_NextItem(items.get(), extra.out()))) return;
    // The interpreter names the length only for the containers whose size it can read directly.
    if (PyList_CheckExact(value) || PyTuple_CheckExact(value) || PyDict_CheckExact(value)) {
        const Py_ssize_t size = PyDict_CheckExact(value) ? PyDict_GET_SIZE(value) : Py_SIZE(value);
        raise_format(PyExc_ValueError, "too many values to unpack (expected %zu, got %zd)", count, size);
    }
    raise_format(PyExc_ValueError, "too many values to unpack (expected %zu)", count);
}

}  // namespace editor::detail
