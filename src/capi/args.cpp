// The binder behind args.hpp: matches a vectorcall to named parameters with the messages a
// Python `def` gives.
#include <Python.h>

#include <cstring>
#include <string>

#include "editor/args.hpp"
#include "editor/error.hpp"

namespace editor::detail {
namespace {

[[noreturn]] void too_many_positional(const char* function, std::size_t count, std::size_t required,
                                      Py_ssize_t given) {
    const char* verb = given == 1 ? "was" : "were";
    if (required == count) {
        raise_format(PyExc_TypeError, "%s() takes %zu positional argument%s but %zd %s given", function, count,
                     count == 1 ? "" : "s", given, verb);
    }
    raise_format(PyExc_TypeError, "%s() takes from %zu to %zu positional arguments but %zd %s given", function,
                 required, count, given, verb);
}

// "'a'", "'a' and 'b'", "'a', 'b', and 'c'": the listing a Python def uses.
[[noreturn]] void missing(const char* function, const Param* params, std::size_t required,
                          PyObject** out) {
    std::size_t total = 0;
    for (std::size_t i = 0; i < required; ++i) total += out[i] == nullptr;
    std::string names;
    std::size_t listed = 0;
    for (std::size_t i = 0; i < required; ++i) {
        if (out[i] != nullptr) continue;
        if (listed > 0) names += total == 2 ? " and " : (listed + 1 == total ? ", and " : ", ");
        names += '\'';
        names += params[i].name;
        names += '\'';
        ++listed;
    }
    raise_format(PyExc_TypeError, "%s() missing %zu required positional argument%s: %s", function, total,
                 total == 1 ? "" : "s", names.c_str());
}

// The value of a default written as a Python literal (see Param).
Ref literal_value(const char* literal) {
    if (std::strcmp(literal, "None") == 0) return Ref::borrow(Py_None);
    if (literal[0] == '\'') {
        return check(PyUnicode_FromStringAndSize(literal + 1, static_cast<Py_ssize_t>(std::strlen(literal)) - 2));
    }
    return check(PyLong_FromString(literal, nullptr, 10));
}

}  // namespace

void bind(const char* function, const Param* params, std::size_t count, std::size_t required,
          const Args& args, PyObject** out, Ref* defaults) {
    const Py_ssize_t given = PyVectorcall_NARGS(args.nargsf);
    if (given > static_cast<Py_ssize_t>(count)) too_many_positional(function, count, required, given);
    for (Py_ssize_t i = 0; i < given; ++i) out[i] = args.args[i];

    const Py_ssize_t keywords = args.kwnames ? PyTuple_GET_SIZE(args.kwnames) : 0;
    for (Py_ssize_t k = 0; k < keywords; ++k) {
        PyObject* name = PyTuple_GET_ITEM(args.kwnames, k);
        std::size_t index = 0;
        while (index < count && !PyUnicode_EqualToUTF8(name, params[index].name)) ++index;
        if (index == count) {
            raise_format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", function, name);
        }
        if (out[index] != nullptr) {
            raise_format(PyExc_TypeError, "%s() got multiple values for argument '%s'", function,
                         params[index].name);
        }
        out[index] = args.args[given + k];
    }

    for (std::size_t i = 0; i < required; ++i) {
        if (out[i] == nullptr) missing(function, params, required, out);
    }
    for (std::size_t i = required; i < count; ++i) {
        if (out[i] == nullptr) out[i] = (defaults[i] = literal_value(params[i].fallback)).get();
    }
}

}  // namespace editor::detail

namespace editor {

void require_str(const char* function, const char* param, PyObject* value, bool none_allowed) {
    if (PyUnicode_Check(value) || (none_allowed && value == Py_None)) return;
    const std::string what = std::string(function) + "() argument '" + param + "'";
    raise_wrong_type(what.c_str(), none_allowed ? "str or None" : "str", value);
}

}  // namespace editor
