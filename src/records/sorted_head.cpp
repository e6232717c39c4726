// The maps compared by static_diff can hold 100k ids while only the first few sorted ones are
// shown. For exact str ids, and pairs of them, the host's order is code-point order
// (lexicographic on pairs), a strict total order in which items compare equal only when their
// values are equal, so selecting the first `stop` with a partial sort gives exactly the values
// sorted() would put there. Anything else (str subclasses with their own comparisons, mixed
// types) is sorted by the host.
#include <Python.h>

#include <algorithm>
#include <vector>

#include "editor/error.hpp"
#include "records/sorted_head.hpp"

namespace editor::records {
namespace {

enum class Order { text, text_pair, host };

bool is_text(PyObject* item) { return PyUnicode_CheckExact(item); }

bool is_text_pair(PyObject* item) {
    return PyTuple_CheckExact(item) && PyTuple_GET_SIZE(item) == 2 && is_text(PyTuple_GET_ITEM(item, 0)) &&
           is_text(PyTuple_GET_ITEM(item, 1));
}

Order order_of(const std::vector<PyObject*>& items) {
    if (std::all_of(items.begin(), items.end(), is_text)) return Order::text;
    if (std::all_of(items.begin(), items.end(), is_text_pair)) return Order::text_pair;
    return Order::host;
}

// PyUnicode_Compare cannot fail on two exact str objects.
bool text_less(PyObject* a, PyObject* b) { return PyUnicode_Compare(a, b) < 0; }

bool text_pair_less(PyObject* a, PyObject* b) {
    const int first = PyUnicode_Compare(PyTuple_GET_ITEM(a, 0), PyTuple_GET_ITEM(b, 0));
    if (first != 0) return first < 0;
    return text_less(PyTuple_GET_ITEM(a, 1), PyTuple_GET_ITEM(b, 1));
}

// Where [:cap] ends on a list of `size` items.
Py_ssize_t slice_stop(Py_ssize_t size, Py_ssize_t cap) {
    return cap >= 0 ? std::min(cap, size) : std::max<Py_ssize_t>(size + cap, 0);
}

}  // namespace

Ref sorted_head(Ref items, Py_ssize_t cap) {
    const Py_ssize_t stop = slice_stop(PyList_GET_SIZE(items.get()), cap);
    // Borrowed from `items`, which we own and nothing else can reach.
    std::vector<PyObject*> view(PySequence_Fast_ITEMS(items.get()),
                                PySequence_Fast_ITEMS(items.get()) + PyList_GET_SIZE(items.get()));
    const Order order = order_of(view);
    if (order == Order::host) {
        check(PyList_Sort(items.get()));
        return check(PyList_GetSlice(items.get(), 0, stop));
    }
    std::partial_sort(view.begin(), view.begin() + stop, view.end(),
                      order == Order::text ? text_less : text_pair_less);
    Ref head = check(PyList_New(stop));
    for (Py_ssize_t i = 0; i < stop; ++i) PyList_SET_ITEM(head.get(), i, Ref::borrow(view[i]).release());
    return head;
}

}  // namespace editor::records
