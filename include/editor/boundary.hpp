// Where C++ meets the interpreter: every function pointer handed to CPython goes through one of
// these wrappers, so no C++ exception ever unwinds into interpreter frames.
#pragma once
#include <Python.h>

#include <new>

#include "editor/args.hpp"
#include "editor/error.hpp"

namespace editor {

// Converts whatever is in flight into the pending Python error.
inline void set_error_from_current_exception() noexcept {
    try {
        throw;
    } catch (PyError& e) {
        e.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_SystemError, e.what());
    } catch (...) {
        PyErr_SetString(PyExc_SystemError, "unexpected C++ exception");
    }
}

// The METH_FASTCALL | METH_KEYWORDS entry of one exported function; `Impl` takes the module
// and the call's arguments and returns a new reference.
template <Ref (*Impl)(PyObject* module, const Args& args)>
PyObject* entry(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) noexcept {
    try {
        Ref result = Impl(module, Args{args, nargs, kwnames});
        assert(result && !PyErr_Occurred());
        return result.release();
    } catch (...) {
        set_error_from_current_exception();
    }
    assert(PyErr_Occurred());
    return nullptr;
}

// The Py_mod_exec shape of the same wrapper.
template <void (*Impl)(PyObject* module)>
int exec_entry(PyObject* module) noexcept {
    try {
        Impl(module);
        assert(!PyErr_Occurred());
        return 0;
    } catch (...) {
        set_error_from_current_exception();
    }
    return -1;
}

}  // namespace editor
