// Calling the host: names looked up in the module namespace at the moment of the call (so a host
// that replaces a module attribute changes what the operations use), attribute chains, and
// vectorcalls with borrowed arguments.
#pragma once
#include <Python.h>

#include <array>
#include <initializer_list>
#include <vector>

#include "editor/error.hpp"

namespace editor {

// The module's current binding of `name`; NameError, as for a Python global, when unbound.
[[nodiscard]] inline Ref ns(PyObject* module, const char* name) {
    Ref value;
    if (!check_bool(PyDict_GetItemStringRef(PyModule_GetDict(module), name, value.out()))) {
        PyErr_Format(PyExc_NameError, "name '%s' is not defined", name);
        throw PyError::fetch();
    }
    return value;
}

[[nodiscard]] inline Ref attr(PyObject* object, const char* name) {
    return check(PyObject_GetAttrString(object, name));
}

// `module.<first>.<rest>...` resolved now, e.g. ns_attr(m, "os", "path", "realpath").
template <typename... Names>
[[nodiscard]] Ref ns_attr(PyObject* module, const char* first, Names... rest) {
    Ref value = ns(module, first);
    ((value = attr(value.get(), rest)), ...);
    return value;
}

// callable(*args) with borrowed arguments.
template <typename... Objects>
[[nodiscard]] Ref call(PyObject* callable, Objects... args) {
    std::array<PyObject*, sizeof...(args) + 1> argv{nullptr, args...};
    return check(PyObject_Vectorcall(callable, argv.data() + 1,
                                     sizeof...(args) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

// One `name=value` argument of call_kw (both borrowed).
struct Keyword {
    const char* name;
    PyObject* value;
};

// callable(*args, **keywords) with borrowed arguments. The keyword names are interned here rather
// than kept in module state: the module has none, and these calls sit next to file I/O.
[[nodiscard]] inline Ref call_kw(PyObject* callable, std::initializer_list<PyObject*> args,
                                 std::initializer_list<Keyword> keywords) {
    Ref names = check(PyTuple_New(static_cast<Py_ssize_t>(keywords.size())));
    std::vector<PyObject*> argv{nullptr};
    argv.insert(argv.end(), args.begin(), args.end());
    Py_ssize_t index = 0;
    for (const Keyword& keyword : keywords) {
        PyTuple_SET_ITEM(names.get(), index++, check(PyUnicode_InternFromString(keyword.name)).release());
        argv.push_back(keyword.value);
    }
    return check(PyObject_Vectorcall(callable, argv.data() + 1,
                                     args.size() | PY_VECTORCALL_ARGUMENTS_OFFSET, names.get()));
}

// object.name(*args), looked up on the object as Python would.
template <typename... Objects>
[[nodiscard]] Ref call_method(PyObject* object, const char* name, Objects... args) {
    Ref method = attr(object, name);
    return call(method.get(), args...);
}

[[nodiscard]] inline Ref str(const char* utf8) { return check(PyUnicode_FromString(utf8)); }

}  // namespace editor
