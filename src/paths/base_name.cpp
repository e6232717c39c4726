#include <Python.h>

#include <algorithm>
#include <initializer_list>

#include "editor/call.hpp"
#include "paths/paths.hpp"

namespace editor::paths {

Ref base_name(PyObject* text) {
    if (!PyUnicode_Check(text)) {
        Ref last = Ref::borrow(text);
        for (const char* separator : {"\\", "/"}) {
            Ref pieces = call_method(last.get(), "split", str(separator).get());
            last = check(PySequence_GetItem(pieces.get(), -1));
        }
        return last;
    }
    const Py_ssize_t length = PyUnicode_GET_LENGTH(text);
    const Py_ssize_t slash = check_find(PyUnicode_FindChar(text, '/', 0, length, -1));
    const Py_ssize_t backslash = check_find(PyUnicode_FindChar(text, '\\', 0, length, -1));
    return check(PyUnicode_Substring(text, std::max(slash, backslash) + 1, length));
}

}  // namespace editor::paths
