// `a, b, c = value` with the host's own semantics: any iterable, consumed lazily, and the exact
// ValueError / TypeError texts the interpreter gives, so a host object that does not unpack
// fails the way it would in a Python-written module.
#pragma once
#include <Python.h>

#include <array>
#include <cstddef>

#include "editor/error.hpp"

namespace editor {

namespace detail {
void unpack(PyObject* value, std::size_t count, Ref* out);
}

template <std::size_t N>
[[nodiscard]] std::array<Ref, N> unpack(PyObject* value) {
    std::array<Ref, N> out;
    detail::unpack(value, N, out.data());
    return out;
}

}  // namespace editor
