// Owning reference to a Python object: the one place, with error.hpp's fetch, where reference
// counts are touched by hand.
//
// C API calls we use that STEAL a reference (always feed them `ref.release()` on the same line):
//   PyTuple_SET_ITEM / PyTuple_SetItem, PyList_SET_ITEM / PyList_SetItem, PyModule_Add,
//   PyErr_SetRaisedException, PyException_SetCause / PyException_SetContext.
// Calls that do NOT steal (pass `ref.get()`): PyDict_SetItem, PyList_Append, PyObject_SetAttr,
//   PyModule_AddObjectRef, PyTuple_Pack, the PyObject_Vectorcall arguments.
#pragma once
#include <Python.h>

#include <cassert>
#include <utility>

namespace editor {

class Ref {
public:
    Ref() noexcept = default;
    Ref(Ref&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    Ref& operator=(Ref&& other) noexcept {
        if (this != &other) {
            PyObject* old = std::exchange(p_, std::exchange(other.p_, nullptr));
            Py_XDECREF(old);  // after the swap: a __del__ run here sees a consistent Ref
        }
        return *this;
    }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    ~Ref() { Py_XDECREF(p_); }

    // Adopts a new reference (may be null).
    [[nodiscard]] static Ref steal(PyObject* p) noexcept { return Ref(p); }
    // Takes a strong reference of its own to a borrowed pointer (may be null).
    [[nodiscard]] static Ref borrow(PyObject* p) noexcept { return Ref(Py_XNewRef(p)); }

    [[nodiscard]] Ref dup() const noexcept { return borrow(p_); }
    [[nodiscard]] PyObject* get() const noexcept { return p_; }
    [[nodiscard]] PyObject* release() noexcept { return std::exchange(p_, nullptr); }
    // Out-parameter for APIs that store a new reference (PyDict_GetItemRef and friends).
    [[nodiscard]] PyObject** out() noexcept {
        assert(p_ == nullptr);
        return &p_;
    }
    explicit operator bool() const noexcept { return p_ != nullptr; }

private:
    explicit Ref(PyObject* p) noexcept : p_(p) {}
    PyObject* p_ = nullptr;
};

}  // namespace editor
