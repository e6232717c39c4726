// Binds a vectorcall's arguments to named parameters with the messages a Python `def` gives,
// so a host calling `editor.f(...)` wrongly reads the same TypeError it would read for a
// function written in Python (bar the "Did you mean" hint, which is left out).
#pragma once
#include <Python.h>

#include <array>
#include <cstddef>

namespace editor {

// The arguments of one call, as CPython hands them over (all borrowed for the call).
struct Args {
    PyObject* const* args;
    Py_ssize_t nargsf;
    PyObject* kwnames;
};

// Parameters are positional-or-keyword; the first `required` have no default.
template <std::size_t N>
struct Signature {
    const char* function;
    std::array<const char*, N> params;
    std::size_t required = N;
};

namespace detail {
void bind(const char* function, const char* const* params, std::size_t count, std::size_t required,
          const Args& args, PyObject** out);
}

// TypeError unless `value` is a str (or None, when `none_allowed`), worded as CPython's own
// functions word it: "f() argument 'name' must be str, not int".
void require_str(const char* function, const char* param, PyObject* value, bool none_allowed = false);

// Borrowed argument per parameter, in parameter order; nullptr where an optional one was not
// passed (the operation supplies its default).
template <std::size_t N>
[[nodiscard]] std::array<PyObject*, N> bind(const Signature<N>& sig, const Args& args) {
    std::array<PyObject*, N> out{};
    detail::bind(sig.function, sig.params.data(), N, sig.required, args, out.data());
    return out;
}

}  // namespace editor
