// try/finally for code that calls back into the host: the cleanup runs whether the body
// returned or threw, and, as in a Python `finally`, an exception raised by the cleanup is the
// one that propagates.
#pragma once
#include <Python.h>

#include <utility>

namespace editor::semantic {

template <typename Body, typename Cleanup>
auto with_finally(Body&& body, Cleanup&& cleanup) -> decltype(body()) {
    decltype(body()) result;
    try {
        result = body();
    } catch (...) {
        cleanup();
        throw;
    }
    cleanup();
    return result;
}

}  // namespace editor::semantic
