// The (counts, sample) pair both counting scans return: a collections.Counter from error key to
// number of errors, in the order keys were first counted, and a plain dict from key to the line
// of its first error. Both are fresh objects owned by the caller.
#pragma once
#include <Python.h>

#include "editor/ref.hpp"

namespace editor::parse {

class ErrorCounts {
public:
    // Imports Counter from the host's collections now, so a replaced Counter is the one used.
    ErrorCounts();
    // counts[key] += 1, through the Counter's own item protocol.
    void count(PyObject* key);
    // sample.setdefault(key, line): the first line seen for a key stays.
    void sample(PyObject* key, PyObject* line);
    // The pair (counts, sample).
    [[nodiscard]] Ref pair() const;

private:
    Ref counts_;
    Ref sample_;
};

}  // namespace editor::parse
