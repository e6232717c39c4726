#include <Python.h>

#include "editor/error.hpp"
#include "parse/error_counts.hpp"

namespace editor::parse {

ErrorCounts::ErrorCounts() {
    Ref counter = check(PyImport_ImportModuleAttrString("collections", "Counter"));
    counts_ = check(PyObject_CallNoArgs(counter.get()));
    sample_ = check(PyDict_New());
}

void ErrorCounts::count(PyObject* key) {
    Ref current = check(PyObject_GetItem(counts_.get(), key));
    Ref one = check(PyLong_FromLong(1));
    Ref next = check(PyNumber_InPlaceAdd(current.get(), one.get()));
    check(PyObject_SetItem(counts_.get(), key, next.get()));
}

void ErrorCounts::sample(PyObject* key, PyObject* line) {
    check(PyDict_SetDefaultRef(sample_.get(), key, line, nullptr));
}

Ref ErrorCounts::pair() const { return check(PyTuple_Pack(2, counts_.get(), sample_.get())); }

}  // namespace editor::parse
