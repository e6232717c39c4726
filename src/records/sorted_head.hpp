// sorted(items)[:cap] without sorting what the cap throws away.
#pragma once
#include <Python.h>

#include "editor/ref.hpp"

namespace editor::records {

// The first items of `items` (a list the caller owns and gives up) in the host's sorted()
// order, cut as the slice [:cap] cuts.
Ref sorted_head(Ref items, Py_ssize_t cap);

}  // namespace editor::records
