// The bridge from the C API's error conventions to C++ exceptions. `PyError` owns the raised
// exception object from the moment it is thrown, so no Python error is pending while C++
// destructors run; the boundary (boundary.hpp) puts it back exactly once.
#pragma once
#include <Python.h>

#include <exception>

#include "editor/ref.hpp"

namespace editor {

class PyError : public std::exception {
public:
    // Takes the pending Python error. Must only be called while one is pending.
    [[nodiscard]] static PyError fetch() noexcept {
        assert(PyErr_Occurred());
        return PyError(Ref::steal(PyErr_GetRaisedException()));
    }
    // Hands the exception back to the interpreter as the pending error.
    void restore() noexcept { PyErr_SetRaisedException(exc_.release()); }
    // The exception object itself (borrowed), for handlers that inspect it.
    [[nodiscard]] PyObject* value() const noexcept { return exc_.get(); }
    // True when the exception is an instance of `type` (a class or tuple of classes).
    [[nodiscard]] bool matches(PyObject* type) const noexcept {
        return PyErr_GivenExceptionMatches(exc_.get(), type) != 0;
    }
    const char* what() const noexcept override { return "Python exception"; }

private:
    explicit PyError(Ref exc) noexcept : exc_(std::move(exc)) {}
    Ref exc_;
};

// Raises `type(message)` and throws it; for refusals that are Python exceptions.
[[noreturn]] inline void raise(PyObject* type, const char* message) {
    PyErr_SetString(type, message);
    throw PyError::fetch();
}

// Raises `type` with a PyErr_Format message and throws it.
template <typename... Values>
[[noreturn]] void raise_format(PyObject* type, const char* format, Values... values) {
    PyErr_Format(type, format, values...);
    throw PyError::fetch();
}

// TypeError "<what> must be <expected>, not <type>", the type named as the host's own argument
// checks name it ("None" for None).
[[noreturn]] inline void raise_wrong_type(const char* what, const char* expected, PyObject* value) {
    raise_format(PyExc_TypeError, "%s must be %s, not %s", what, expected,
                 value == Py_None ? "None" : Py_TYPE(value)->tp_name);
}

// NULL means an error is pending.
[[nodiscard]] inline Ref check(PyObject* p) {
    if (p == nullptr) throw PyError::fetch();
    return Ref::steal(p);
}
// -1 means an error is pending (SetItem, Append, module adds, ...).
inline void check(int status) {
    if (status < 0) throw PyError::fetch();
}
// 1 / 0 / -1 (IsTrue, RichCompareBool, Contains, GetItemRef, GetOptionalAttr, ...).
[[nodiscard]] inline bool check_bool(int status) {
    if (status < 0) throw PyError::fetch();
    return status == 1;
}
// bool(object), as the host decides it.
[[nodiscard]] inline bool truthy(PyObject* object) { return check_bool(PyObject_IsTrue(object)); }
// -2 means an error, -1 "not found" (PyUnicode_Find, PyUnicode_FindChar).
[[nodiscard]] inline Py_ssize_t check_find(Py_ssize_t index) {
    if (index == -2) throw PyError::fetch();
    return index;
}
// -1 is both a value and an error (PyLong_AsSsize_t, PyUnicode_Compare, ...).
template <typename T>
[[nodiscard]] T check_value(T value) {
    if (value == static_cast<T>(-1) && PyErr_Occurred()) throw PyError::fetch();
    return value;
}

}  // namespace editor
