// The host's names as the module sees them: looked up in the module namespace at the moment of
// the call, so a host that replaces a module attribute changes what the operations use.
#pragma once
#include <Python.h>

#include <cstddef>

#include "editor/args.hpp"
#include "editor/call.hpp"

namespace editor {

// The module's current binding of `name`; NameError, as for a Python global, when unbound.
[[nodiscard]] inline Ref ns(PyObject* module, const char* name) {
    Ref value;
    if (!check_bool(PyDict_GetItemStringRef(PyModule_GetDict(module), name, value.out()))) {
        raise_format(PyExc_NameError, "name '%s' is not defined", name);
    }
    return value;
}

// The module's current binding of the function `callee` declares.
template <std::size_t N>
[[nodiscard]] Ref ns(PyObject* module, const Signature<N>& callee) {
    return ns(module, callee.function);
}

// `module.<first>.<rest>...` resolved now, e.g. ns_attr(m, "os", "path", "realpath").
template <typename... Names>
[[nodiscard]] Ref ns_attr(PyObject* module, const char* first, Names... rest) {
    Ref value = ns(module, first);
    ((value = attr(value.get(), rest)), ...);
    return value;
}

}  // namespace editor
