#include <Python.h>

#include "editor/call.hpp"
#include "editor/host/result.hpp"
#include "records/edge_changes.hpp"
#include "records/objects.hpp"
#include "records/records.hpp"
#include "records/sorted_head.hpp"
#include "records/value_changes.hpp"

namespace editor::records {
namespace {

// set(map.get("symbols", {})), except that an exact dict stands for its own keys: they are
// already distinct, and membership in it is decided as in the set of its keys.
Ref symbol_ids(PyObject* map) {
    Ref symbols = get_or(map, "symbols", check(PyDict_New()));
    return PyDict_CheckExact(symbols.get()) ? std::move(symbols) : check(PySet_New(symbols.get()));
}

Ref no_change_note() {
    Ref text = str("no structural change (edit was within existing bodies)");
    return result({{"note", text.get()}});
}

}  // namespace

Ref static_diff(PyObject* before, PyObject* after, PyObject* cap_arg) {
    const Py_ssize_t cap = clamped_index(cap_arg);
    Ref out = check(PyDict_New());
    put_edge_changes(out.get(), before, after, cap);
    Ref symbols_before = symbol_ids(before);
    Ref symbols_after = symbol_ids(after);
    put_sorted(out.get(), "symbols_added", shortened_missing(symbols_after.get(), symbols_before.get()), cap);
    put_sorted(out.get(), "symbols_removed", shortened_missing(symbols_before.get(), symbols_after.get()), cap);
    put_value_changes(out.get(), before, after, cap);
    return PyDict_GET_SIZE(out.get()) > 0 ? std::move(out) : no_change_note();
}

}  // namespace editor::records
