// sorted(items)[:cap] without sorting what the cap throws away.
#pragma once
#include <Python.h>

#include <algorithm>

#include "editor/ref.hpp"

namespace editor::records {

// Orders [first, middle) as sorting all of [first, last) would; the rest is left unordered.
template <typename Iterator, typename Less>
void sort_head(Iterator first, Iterator middle, Iterator last, Less less) {
    if (middle != last) std::nth_element(first, middle, last, less);
    std::sort(first, middle, less);
}

// Where the slice [:cap] ends on a list of `size` items.
Py_ssize_t slice_stop(Py_ssize_t size, Py_ssize_t cap);

// The first items of `items` (a list the caller owns and gives up) in the host's sorted()
// order, cut as the slice [:cap] cuts.
Ref sorted_head(Ref items, Py_ssize_t cap);

// out[key] = sorted(items)[:cap], present whenever `items` (uncapped) is non-empty.
void put_sorted(PyObject* out, const char* key, Ref items, Py_ssize_t cap);

}  // namespace editor::records
