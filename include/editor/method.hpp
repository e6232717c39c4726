// The method definition of an exported function whose glue is nothing but argument binding:
// the signature names the parameters, the operation gets them in that order (after the module,
// when it takes one), and what it returns becomes the Python result. Functions that check or
// default their arguments before the operation have a hand-written entry instead.
#pragma once
#include <Python.h>

#include <tuple>
#include <type_traits>

#include "editor/args.hpp"
#include "editor/boundary.hpp"

namespace editor {
namespace detail {

// Calls `Op` with the bound arguments (borrowed; nullptr for an optional one not passed) and
// turns a bool into True/False and nothing into None.
template <auto Op, class... Params>
Ref call_operation(PyObject* module, Params... params) {
    auto invoke = [&] {
        if constexpr (std::is_invocable_v<decltype(Op), PyObject*, Params...>) {
            return Op(module, params...);
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
Ref bind_and_call(PyObject* module, const Args& args) {
    return std::apply([module](auto... params) { return call_operation<Op>(module, params...); }, bind(Sig, args));
}

}  // namespace detail

// `doc` starts with the text signature ("name($module, /, ...)\n--\n\n"), which `inspect` reads.
template <const auto& Sig, auto Op>
PyMethodDef method(const char* doc) {
    constexpr auto function = entry<detail::bind_and_call<Sig, Op>>;
    return {Sig.function, _PyCFunction_CAST(function), METH_FASTCALL | METH_KEYWORDS, doc};
}

// The same for a function whose hand-written entry checks or defaults its arguments itself.
template <Ref (*Impl)(PyObject* module, const Args& args)>
PyMethodDef method(const char* name, const char* doc) {
    return {name, _PyCFunction_CAST(entry<Impl>), METH_FASTCALL | METH_KEYWORDS, doc};
}

}  // namespace editor
