// The method definition of an exported function, made from its one declaration: the signature
// names the function and its parameters (with the defaults' literals), the docstring's text
// signature line is written from it at compile time, and the operation gets the bound arguments
// in parameter order (after the module, or the closure tuple, when it takes one). What the
// operation returns becomes the Python result.
#pragma once
#include <Python.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <tuple>
#include <type_traits>

#include "editor/args.hpp"
#include "editor/boundary.hpp"

namespace editor {

// A string literal as a template argument: the docstring's body.
template <std::size_t N>
struct Text {
    char chars[N];
    constexpr Text(const char (&text)[N]) { std::copy_n(text, N, chars); }  // NOLINT: implicit by design
};

namespace detail {

// Writes "name($self, /, a, b=default)\n--\n\n" and the body to `out` (when given); returns the
// length. `inspect` reads that line as the signature.
template <std::size_t N>
constexpr std::size_t write_doc(const Signature<N>& sig, const char* self, const char* body, char* out) {
    std::size_t length = 0;
    auto put = [&](const char* text) {
        for (; *text; ++text, ++length) {
            if (out) out[length] = *text;
        }
    };
    put(sig.function);
    put("(");
    put(self);
    put(", /");
    for (const Param& param : sig.params) {
        put(", ");
        put(param.name);
        if (param.fallback) {
            put("=");
            put(param.fallback);
        }
    }
    put(")\n--\n\n");
    put(body);
    return length;
}

template <const auto& Sig, Text Self, Text Body>
inline constexpr auto doc = [] {
    std::array<char, write_doc(Sig, Self.chars, Body.chars, nullptr) + 1> out{};
    write_doc(Sig, Self.chars, Body.chars, out.data());
    return out;
}();

// Calls `Op` with the bound arguments (borrowed) and turns a bool into True/False and nothing
// into None.
template <auto Op, class... Params>
Ref call_operation(PyObject* self, Params... params) {
    auto invoke = [&] {
        if constexpr (std::is_invocable_v<decltype(Op), PyObject*, Params...>) {
            return Op(self, params...);
        } else {
            return Op(params...);
        }
    };
    using Result = decltype(invoke());
    if constexpr (std::is_void_v<Result>) {
        invoke();
        return Ref::borrow(Py_None);
    } else if constexpr (std::is_same_v<Result, bool>) {
        return Ref::borrow(invoke() ? Py_True : Py_False);
    } else {
        return invoke();
    }
}

template <const auto& Sig, auto Op>
Ref bind_and_call(PyObject* self, const Args& args) {
    auto bound = bind(Sig, args);
    return std::apply([self](auto... params) { return call_operation<Op>(self, params...); }, bound.values);
}

template <const auto& Sig, auto Op, Text Self, Text Body>
PyMethodDef method() {
    constexpr auto function = entry<bind_and_call<Sig, Op>>;
    return {Sig.function, _PyCFunction_CAST(function), METH_FASTCALL | METH_KEYWORDS, doc<Sig, Self, Body>.data()};
}

}  // namespace detail

// A module function; `Body` is the docstring after the signature line.
template <const auto& Sig, auto Op, Text Body>
PyMethodDef method() {
    return detail::method<Sig, Op, "$module", Body>();
}

// A function whose `self` is a closure tuple (see closure.hpp) instead of the module.
template <const auto& Sig, auto Op, Text Body>
PyMethodDef closure_method() {
    return detail::method<Sig, Op, "$self", Body>();
}

// The function object of `def` bound to `self`, its `__module__` the module's name (which
// resolves the defaults of its text signature).
[[nodiscard]] inline Ref make_function(PyMethodDef& def, PyObject* self, PyObject* module) {
    Ref module_name = check(PyModule_GetNameObject(module));
    return check(PyCFunction_NewEx(&def, self, module_name.get()));
}

}  // namespace editor
