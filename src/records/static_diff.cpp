#include <Python.h>

#include "editor/host.hpp"
#include "records/objects.hpp"
#include "records/records.hpp"
#include "records/sorted_head.hpp"

namespace editor::records {
namespace {

constexpr Py_ssize_t default_cap = 10;
constexpr const char module_suffix[] = "::<module>";
constexpr Py_ssize_t module_suffix_length = sizeof(module_suffix) - 1;

// {(e["caller"], e["callee"]) for e in map.get("edges", [])}
Ref edge_set(PyObject* map) {
    Ref edges = get_or(map, "edges", check(PyList_New(0)));
    Ref caller_key = str("caller");
    Ref callee_key = str("callee");
    Ref pairs = check(PySet_New(nullptr));
    Ref iterator = check(PyObject_GetIter(edges.get()));
    Ref edge;
    while (check_bool(PyIter_NextItem(iterator.get(), (edge = Ref()).out()))) {
        Ref caller = check(PyObject_GetItem(edge.get(), caller_key.get()));
        Ref callee = check(PyObject_GetItem(edge.get(), callee_key.get()));
        Ref pair = check(PyTuple_Pack(2, caller.get(), callee.get()));
        check(PySet_Add(pairs.get(), pair.get()));
    }
    return pairs;
}

// set(map.get("symbols", {})): the keys of a mapping, or the items of any other iterable.
Ref symbol_set(PyObject* map) {
    Ref symbols = get_or(map, "symbols", check(PyDict_New()));
    return check(PySet_New(symbols.get()));
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
        Ref bindings = item_pairs(names);
        for (Py_ssize_t j = 0; j < PyList_GET_SIZE(bindings.get()); ++j) {
            PyObject* name = PyTuple_GET_ITEM(PyList_GET_ITEM(bindings.get(), j), 0);
            PyObject* records = PyTuple_GET_ITEM(PyList_GET_ITEM(bindings.get(), j), 1);
            if (!check_bool(PyObject_IsTrue(records))) continue;
            Ref last = check(PyObject_GetItem(records, last_index.get()));
            Ref rhs;
            if (!check_bool(PyMapping_GetOptionalItem(last.get(), rhs_key.get(), rhs.out()))) rhs = empty.dup();
            Ref shown_name = check(PyObject_Format(name, format_spec.get()));
            Ref id = check(PyUnicode_FromFormat("%U::%U", base.get(), shown_name.get()));
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

// out[key] = "{short(caller)} -> {short(callee)}" for the first `cap` pairs in the order of the
// full ids, present whenever `pairs` is non-empty.
void put_edges(PyObject* out, const char* key, PyObject* pairs, Py_ssize_t cap) {
    Ref items = check(PySequence_List(pairs));
    if (PyList_GET_SIZE(items.get()) == 0) return;
    // Only the head is shortened, yet every pair could be shown under a larger cap: all ids
    // must be showable, whatever the cap.
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
        for (PyObject* id : {PyTuple_GET_ITEM(PyList_GET_ITEM(items.get(), i), 0),
                             PyTuple_GET_ITEM(PyList_GET_ITEM(items.get(), i), 1)}) {
            if (!PyUnicode_Check(id)) {
                PyErr_Format(PyExc_TypeError, "edge ids must be str, not %T", id);
                throw PyError::fetch();
            }
        }
    }
    Ref head = sorted_head(std::move(items), cap);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(head.get()); ++i) {
        PyObject* pair = PyList_GET_ITEM(head.get(), i);
        Ref caller = base_name(PyTuple_GET_ITEM(pair, 0));
        Ref callee = base_name(PyTuple_GET_ITEM(pair, 1));
        Ref line = check(PyUnicode_FromFormat("%U -> %U", caller.get(), callee.get()));
        check(PyList_SetItem(head.get(), i, line.release()));
    }
    check(PyDict_SetItemString(out, key, head.get()));
}

// [short(i) for i in ids]
Ref shortened(PyObject* ids) {
    Ref shown = check(PyList_New(0));
    Ref iterator = check(PyObject_GetIter(ids));
    Ref id;
    while (check_bool(PyIter_NextItem(iterator.get(), (id = Ref()).out()))) {
        check(PyList_Append(shown.get(), base_name(id.get()).get()));
    }
    return shown;
}

// Ids of `table` that `other` lacks, in table order.
Ref only_in(PyObject* table, PyObject* other) {
    Ref ids = check(PyList_New(0));
    Py_ssize_t position = 0;
    PyObject* id = nullptr;
    PyObject* value = nullptr;
    while (PyDict_Next(table, &position, &id, &value)) {
        if (!check_bool(PyDict_Contains(other, id))) check(PyList_Append(ids.get(), id));
    }
    return ids;
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
    Ref note = check(PyDict_New());
    Ref text = str("no structural change (edit was within existing bodies)");
    check(PyDict_SetItemString(note.get(), "note", text.get()));
    return note;
}

}  // namespace

Ref static_diff(PyObject* before, PyObject* after, PyObject* cap_arg) {
    const Py_ssize_t cap = cap_arg ? clamped_index(cap_arg) : default_cap;
    Ref edges_before = edge_set(before);
    Ref edges_after = edge_set(after);
    Ref symbols_before = symbol_set(before);
    Ref symbols_after = symbol_set(after);
    Ref out = check(PyDict_New());
    put_edges(out.get(), "edges_added", check(PyNumber_Subtract(edges_after.get(), edges_before.get())).get(), cap);
    put_edges(out.get(), "edges_removed", check(PyNumber_Subtract(edges_before.get(), edges_after.get())).get(), cap);
    Ref symbols_added = check(PyNumber_Subtract(symbols_after.get(), symbols_before.get()));
    Ref symbols_removed = check(PyNumber_Subtract(symbols_before.get(), symbols_after.get()));
    put_sorted(out.get(), "symbols_added", shortened(symbols_added.get()), cap);
    put_sorted(out.get(), "symbols_removed", shortened(symbols_removed.get()), cap);

    Ref values_before = const_values(before);
    Ref values_after = const_values(after);
    put_sorted(out.get(), "values_changed", changed_values(values_before.get(), values_after.get()), cap);
    put_sorted(out.get(), "constants_added", shortened(only_in(values_after.get(), values_before.get()).get()), cap);
    put_sorted(out.get(), "constants_removed", shortened(only_in(values_before.get(), values_after.get()).get()), cap);
    return PyDict_GET_SIZE(out.get()) > 0 ? std::move(out) : no_change_note();
}

}  // namespace editor::records
