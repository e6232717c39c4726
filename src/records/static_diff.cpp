#include <Python.h>

#include "editor/host.hpp"
#include "editor/result.hpp"
#include "records/edge_changes.hpp"
#include "records/objects.hpp"
#include "records/records.hpp"
#include "records/sorted_head.hpp"

namespace editor::records {
namespace {

constexpr Py_ssize_t default_cap = 10;
constexpr const char module_suffix[] = "::<module>";
constexpr Py_ssize_t module_suffix_length = sizeof(module_suffix) - 1;

// set(map.get("symbols", {})), except that an exact dict stands for its own keys: they are
// already distinct, and membership in it is decided as in the set of its keys.
Ref symbol_ids(PyObject* map) {
    Ref symbols = get_or(map, "symbols", check(PyDict_New()));
    return PyDict_CheckExact(symbols.get()) ? std::move(symbols) : check(PySet_New(symbols.get()));
}

// [short(i) for i in set(ids) - set(other)], for ids and other made by symbol_ids.
Ref shortened_missing(PyObject* ids, PyObject* other) {
    Ref shown = check(PyList_New(0));
    Ref iterator = check(PyObject_GetIter(ids));
    Ref id;
    while (check_bool(PyIter_NextItem(iterator.get(), (id = Ref()).out()))) {
        if (!check_bool(PySequence_Contains(other, id.get()))) {
            check(PyList_Append(shown.get(), base_name(id.get()).get()));
        }
    }
    return shown;
}

// The definition tables of module scopes and CSS declaration scopes: "{base}::{name}" to the
// value text of the name's last definition. Locals and other scopes churn on every edit of a
// body and would only be noise.
Ref const_values(PyObject* map) {
    Ref defs = get_or(map, "defs", check(PyDict_New()));
    Ref suffix = str(module_suffix);
    Ref css_marker = str("::css::");
    Ref rhs_key = str("rhs");
    Ref empty = check(PyUnicode_FromStringAndSize("", 0));
    Ref last_index = check(PyLong_FromLong(-1));
    Ref format_spec = check(PyUnicode_FromStringAndSize("", 0));
    Ref table = check(PyDict_New());
    Ref scopes = item_pairs(defs.get());
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(scopes.get()); ++i) {
        PyObject* scope = PyTuple_GET_ITEM(PyList_GET_ITEM(scopes.get(), i), 0);
        PyObject* names = PyTuple_GET_ITEM(PyList_GET_ITEM(scopes.get(), i), 1);
        if (!PyUnicode_Check(scope)) {
            PyErr_Format(PyExc_TypeError, "scope ids must be str, not %T", scope);
            throw PyError::fetch();
        }
        const Py_ssize_t length = PyUnicode_GET_LENGTH(scope);
        // A scope both ending in "::<module>" and holding "::css::" counts as a module scope.
        const bool is_module = check_value(PyUnicode_Tailmatch(scope, suffix.get(), 0, length, 1)) == 1;
        if (!is_module && !check_bool(PyUnicode_Contains(scope, css_marker.get()))) continue;
        Ref base = check(PyUnicode_Substring(scope, 0, is_module ? length - module_suffix_length : length));
        Ref prefix = check(PyUnicode_FromFormat("%U::", base.get()));
        Ref bindings = item_pairs(names);
        for (Py_ssize_t j = 0; j < PyList_GET_SIZE(bindings.get()); ++j) {
            PyObject* name = PyTuple_GET_ITEM(PyList_GET_ITEM(bindings.get(), j), 0);
            PyObject* records = PyTuple_GET_ITEM(PyList_GET_ITEM(bindings.get(), j), 1);
            if (!check_bool(PyObject_IsTrue(records))) continue;
            Ref last = check(PyObject_GetItem(records, last_index.get()));
            Ref rhs;
            if (!check_bool(PyMapping_GetOptionalItem(last.get(), rhs_key.get(), rhs.out()))) rhs = empty.dup();
            Ref shown_name = check(PyObject_Format(name, format_spec.get()));
            Ref id = check(PyUnicode_Concat(prefix.get(), shown_name.get()));
            // When two scopes give the same id, the one met later wins.
            check(PyDict_SetItem(table.get(), id.get(), rhs.get()));
        }
    }
    return table;
}

// out[key] = sorted(items)[:cap], present whenever items (uncapped) is non-empty.
void put_sorted(PyObject* out, const char* key, Ref items, Py_ssize_t cap) {
    if (PyList_GET_SIZE(items.get()) == 0) return;
    check(PyDict_SetItemString(out, key, sorted_head(std::move(items), cap).get()));
}

// "{short(id)}: {old!r} -> {new!r}" for the ids of both tables whose values differ.
Ref changed_values(PyObject* before, PyObject* after) {
    Ref changed = check(PyList_New(0));
    Py_ssize_t position = 0;
    PyObject* id = nullptr;
    PyObject* value = nullptr;
    // Both tables are ours alone, so comparing values cannot change them under the iteration;
    // the values are still held while a comparison may run the host's code.
    while (PyDict_Next(before, &position, &id, &value)) {
        Ref key = Ref::borrow(id);
        Ref old_value = Ref::borrow(value);
        Ref new_value;
        if (!check_bool(PyDict_GetItemRef(after, key.get(), new_value.out()))) continue;
        // `!=` itself, not an identity shortcut: a NaN value differs from itself.
        Ref differs = check(PyObject_RichCompare(old_value.get(), new_value.get(), Py_NE));
        if (!check_bool(PyObject_IsTrue(differs.get()))) continue;
        Ref line = check(
            PyUnicode_FromFormat("%U: %R -> %R", base_name(key.get()).get(), old_value.get(), new_value.get()));
        check(PyList_Append(changed.get(), line.get()));
    }
    return changed;
}

Ref no_change_note() {
    Ref text = str("no structural change (edit was within existing bodies)");
    return result({{"note", text.get()}});
}

}  // namespace

Ref static_diff(PyObject* before, PyObject* after, PyObject* cap_arg) {
    const Py_ssize_t cap = cap_arg ? clamped_index(cap_arg) : default_cap;
    Ref out = check(PyDict_New());
    put_edge_changes(out.get(), before, after, cap);
    Ref symbols_before = symbol_ids(before);
    Ref symbols_after = symbol_ids(after);
    put_sorted(out.get(), "symbols_added", shortened_missing(symbols_after.get(), symbols_before.get()), cap);
    put_sorted(out.get(), "symbols_removed", shortened_missing(symbols_before.get(), symbols_after.get()), cap);

    Ref values_before = const_values(before);
    Ref values_after = const_values(after);
    put_sorted(out.get(), "values_changed", changed_values(values_before.get(), values_after.get()), cap);
    put_sorted(out.get(), "constants_added", shortened_missing(values_after.get(), values_before.get()), cap);
    put_sorted(out.get(), "constants_removed", shortened_missing(values_before.get(), values_after.get()), cap);
    return PyDict_GET_SIZE(out.get()) > 0 ? std::move(out) : no_change_note();
}

}  // namespace editor::records
