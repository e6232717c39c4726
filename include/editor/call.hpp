// Calling Python objects: attribute lookups and vectorcalls with borrowed arguments.
#pragma once
#include <Python.h>

#include <array>
#include <initializer_list>
#include <vector>

#include "editor/error.hpp"

namespace editor {

[[nodiscard]] inline Ref attr(PyObject* object, const char* name) {
    return check(PyObject_GetAttrString(object, name));
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
