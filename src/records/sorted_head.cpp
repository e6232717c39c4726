// static_diff's lists can hold 100k shortened ids while only the first few sorted ones are
// shown. For exact strs the host's order is code-point order, a strict total order in which
// two items compare equal only when their values are equal, so selecting the first `stop`
// by a partial sort gives exactly the values sorted() would put there. Anything else (str
// subclasses with comparisons of their own, mixed types) is sorted by the host.
#include <Python.h>

#include <algorithm>
#include <vector>

#include "editor/error.hpp"
#include "records/objects.hpp"
#include "records/sorted_head.hpp"

namespace editor::records {
namespace {

// PyUnicode_Compare cannot fail on two exact str objects.
bool text_less(PyObject* a, PyObject* b) { return PyUnicode_Compare(a, b) < 0; }

}  // namespace

Py_ssize_t slice_stop(Py_ssize_t size, Py_ssize_t cap) {
    return cap >= 0 ? std::min(cap, size) : std::max<Py_ssize_t>(size + cap, 0);
}

Ref sorted_head(Ref items, Py_ssize_t cap) {
    const Py_ssize_t size = PyList_GET_SIZE(items.get());
    const Py_ssize_t stop = slice_stop(size, cap);
    PyObject** first = PySequence_Fast_ITEMS(items.get());
    if (!std::all_of(first, first + size, is_text)) {
        check(PyList_Sort(items.get()));
        return check(PyList_GetSlice(items.get(), 0, stop));
    }
    // Borrowed from `items`, which we own and nothing else can reach.
    std::vector<PyObject*> view(first, first + size);
    sort_head(view.begin(), view.begin() + stop, view.end(), text_less);
    Ref head = check(PyList_New(stop));
    for (Py_ssize_t i = 0; i < stop; ++i) PyList_SET_ITEM(head.get(), i, Ref::borrow(view[i]).release());
    return head;
}

// out[key] = sorted(items)[:cap], present whenever items (uncapped) is non-empty.
void put_sorted(PyObject* out, const char* key, Ref items, Py_ssize_t cap) {
    if (PyList_GET_SIZE(items.get()) == 0) return;
    check(PyDict_SetItemString(out, key, sorted_head(std::move(items), cap).get()));
}

}  // namespace editor::records
