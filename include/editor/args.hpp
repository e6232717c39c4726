// Binds a vectorcall's arguments to named parameters with the messages a Python `def` gives,
// so a host calling `editor.f(...)` wrongly reads the same TypeError it would read for a
// function written in Python (bar the "Did you mean" hint, which is left out).
#pragma once
#include <Python.h>

#include <array>
#include <cstddef>

#include "editor/ref.hpp"

namespace editor {

// The arguments of one call, as CPython hands them over (all borrowed for the call).
struct Args {
    PyObject* const* args;
    Py_ssize_t nargsf;
    PyObject* kwnames;
};

// One positional-or-keyword parameter. An optional one carries its default as a Python literal
// (None, an integer or a single-quoted str without escapes): the text signature shows that text
// and the binder passes its value when the argument is left out.
struct Param {
    constexpr Param(const char* name, const char* fallback = nullptr) : name(name), fallback(fallback) {}  // NOLINT
    const char* name;
    const char* fallback;
};

// The declaration of one function: its Python name and its parameters, optional ones last,
// e.g. Signature{"f", "a", Param{"b", "None"}}.
template <std::size_t N>
struct Signature {
    template <typename... Params>
    constexpr explicit Signature(const char* function, Params... params) : function(function), params{Param(params)...} {}

    const char* function;
    std::array<Param, N> params;

    [[nodiscard]] constexpr std::size_t required() const {
        std::size_t count = 0;
        while (count < N && params[count].fallback == nullptr) ++count;
        return count;
    }
};

template <typename... Params>
Signature(const char*, Params...) -> Signature<sizeof...(Params)>;

// Borrowed argument per parameter, in parameter order, with the defaults it had to create.
template <std::size_t N>
struct Bound {
    std::array<PyObject*, N> values{};
    std::array<Ref, N> defaults;
};

namespace detail {
void bind(const char* function, const Param* params, std::size_t count, std::size_t required,
          const Args& args, PyObject** out, Ref* defaults);
}

// TypeError unless `value` is a str (or None, when `none_allowed`), worded as CPython's own
// functions word it: "f() argument 'name' must be str, not int".
void require_str(const char* function, const char* param, PyObject* value, bool none_allowed = false);

// Binds a call to `sig`; keep the result alive while its values are used.
template <std::size_t N>
[[nodiscard]] Bound<N> bind(const Signature<N>& sig, const Args& args) {
    Bound<N> bound;
    detail::bind(sig.function, sig.params.data(), N, sig.required(), args, bound.values.data(),
                 bound.defaults.data());
    return bound;
}

}  // namespace editor
