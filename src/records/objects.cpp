#include <Python.h>

#include <utility>

#include "editor/call.hpp"
#include "editor/unpack.hpp"
#include "records/objects.hpp"
#include "paths/paths.hpp"

namespace editor::records {

Py_ssize_t clamped_index(PyObject* number) {
    Ref index = check(PyNumber_Index(number));
    // With no overflow exception given, the value is clipped and no error can be set.
    return PyNumber_AsSsize_t(index.get(), nullptr);
}

Ref item_pairs(PyObject* mapping) {
    if (PyDict_CheckExact(mapping)) return check(PyDict_Items(mapping));
    Ref items = check(PySequence_List(call_method(mapping, "items").get()));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
        PyObject* item = PyList_GET_ITEM(items.get(), i);
        if (PyTuple_CheckExact(item) && PyTuple_GET_SIZE(item) == 2) continue;
        auto [key, value] = unpack<2>(item);
        check(PyList_SetItem(items.get(), i, check(PyTuple_Pack(2, key.get(), value.get())).release()));
    }
    return items;
}

Ref get_or(PyObject* mapping, const char* key, Ref fallback) {
    if (PyDict_CheckExact(mapping)) {
        Ref value;
        return check_bool(PyDict_GetItemStringRef(mapping, key, value.out())) ? std::move(value)
                                                                              : std::move(fallback);
    }
    Ref name = str(key);
    return call_method(mapping, "get", name.get(), fallback.get());
}

Ref shortened_missing(PyObject* ids, PyObject* other) {
    Ref shown = check(PyList_New(0));
    Ref iterator = check(PyObject_GetIter(ids));
    Ref id;
    while (check_bool(PyIter_NextItem(iterator.get(), (id = Ref()).out()))) {
        if (!check_bool(PySequence_Contains(other, id.get()))) {
            check(PyList_Append(shown.get(), paths::base_name(id.get()).get()));
        }
    }
    return shown;
}

}  // namespace editor::records
