// A re-index rebuilds both maps, so their definition tables hold equal texts under equal keys
// almost everywhere. When both tables are plain (dicts keyed by exact strs, lists of dict
// records, exact str values) they are compared scope by scope and name by name, no host code
// runs, and an id is built only where a value differs. Two bindings share an id only through a
// name holding ":" or a module scope whose base is also a CSS scope; when either can occur, or
// anything is not plain, the tables are built whole as the host would build them.
#include <Python.h>

#include <optional>
#include <vector>

#include "editor/call.hpp"
#include "editor/unpack.hpp"
#include "records/objects.hpp"
#include "records/sorted_head.hpp"
#include "records/value_changes.hpp"
#include "paths/paths.hpp"

namespace editor::records {
namespace {

constexpr const char module_suffix[] = "::<module>";
constexpr Py_ssize_t module_suffix_length = sizeof(module_suffix) - 1;

// The strs both ways of building the value tables look for.
struct Keys {
    Ref module_suffix = str(editor::records::module_suffix);
    Ref css_marker = str("::css::");
    // Interned, as the key in records written from source is: found by identity at the first probe.
    Ref rhs = check(PyUnicode_InternFromString("rhs"));
    Ref empty = check(PyUnicode_FromStringAndSize("", 0));
};

// ------------------------------------------------------------------ the host's way, whole tables

// For each (scope, names) of map.get("defs", {}) whose scope is a module or CSS scope, and each
// (name, records) with records non-empty: table[f"{base}::{name}"] = records[-1].get("rhs", "").
// Every step is the host's own for values that are not plain, so bad input raises what that
// expression raises.
Ref const_values(PyObject* map, const Keys& keys) {
    Ref defs = get_or(map, "defs", check(PyDict_New()));
    Ref last_index = check(PyLong_FromLong(-1));
    Ref format_spec = check(PyUnicode_FromStringAndSize("", 0));
    Ref table = check(PyDict_New());
    Ref scopes = item_pairs(defs.get());
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(scopes.get()); ++i) {
        PyObject* scope = PyTuple_GET_ITEM(PyList_GET_ITEM(scopes.get(), i), 0);
        PyObject* names = PyTuple_GET_ITEM(PyList_GET_ITEM(scopes.get(), i), 1);
        Ref base;
        if (PyUnicode_Check(scope)) {
            const Py_ssize_t length = PyUnicode_GET_LENGTH(scope);
            // A scope both ending in "::<module>" and holding "::css::" counts as a module scope.
            const bool is_module = check_value(PyUnicode_Tailmatch(scope, keys.module_suffix.get(), 0, length, 1)) == 1;
            if (!is_module && !check_bool(PyUnicode_Contains(scope, keys.css_marker.get()))) continue;
            base = check(PyUnicode_Substring(scope, 0, is_module ? length - module_suffix_length : length));
        } else {
            Ref ends = call_method(scope, "endswith", keys.module_suffix.get());
            const bool is_module = truthy(ends.get());
            if (!is_module && !check_bool(PySequence_Contains(scope, keys.css_marker.get()))) continue;
            Ref stop = check(PyLong_FromSsize_t(-module_suffix_length));
            Ref cut = check(PySlice_New(nullptr, stop.get(), nullptr));
            base = is_module ? check(PyObject_GetItem(scope, cut.get())) : Ref::borrow(scope);
            base = check(PyObject_Format(base.get(), format_spec.get()));
        }
        Ref prefix = check(PyUnicode_FromFormat("%U::", base.get()));
        Ref bindings = item_pairs(names);
        for (Py_ssize_t j = 0; j < PyList_GET_SIZE(bindings.get()); ++j) {
            PyObject* name = PyTuple_GET_ITEM(PyList_GET_ITEM(bindings.get(), j), 0);
            PyObject* records = PyTuple_GET_ITEM(PyList_GET_ITEM(bindings.get(), j), 1);
            if (!truthy(records)) continue;
            Ref last = check(PyObject_GetItem(records, last_index.get()));
            Ref rhs;
            if (!PyDict_CheckExact(last.get())) {
                rhs = call_method(last.get(), "get", keys.rhs.get(), keys.empty.get());
            } else if (!check_bool(PyDict_GetItemRef(last.get(), keys.rhs.get(), rhs.out()))) {
                rhs = keys.empty.dup();
            }
            Ref shown_name = check(PyObject_Format(name, format_spec.get()));
            Ref id = check(PyUnicode_Concat(prefix.get(), shown_name.get()));
            // When two scopes give the same id, the one met later wins.
            check(PyDict_SetItem(table.get(), id.get(), rhs.get()));
        }
    }
    return table;
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
        if (!truthy(differs.get())) continue;
        Ref line = check(
            PyUnicode_FromFormat("%U: %R -> %R", paths::base_name(key.get()).get(), old_value.get(), new_value.get()));
        check(PyList_Append(changed.get(), line.get()));
    }
    return changed;
}

void put_whole_tables(PyObject* out, PyObject* before, PyObject* after, const Keys& keys, Py_ssize_t cap) {
    Ref values_before = const_values(before, keys);
    Ref values_after = const_values(after, keys);
    put_sorted(out, "values_changed", changed_values(values_before.get(), values_after.get()), cap);
    put_sorted(out, "constants_added", shortened_missing(values_after.get(), values_before.get()), cap);
    put_sorted(out, "constants_removed", shortened_missing(values_before.get(), values_after.get()), cap);
}

// ------------------------------------------------------------------ plain tables, scope by scope

enum class ScopeKind { other, module, css };

// One binding whose value differs; all borrowed from the maps, which no host code touches while
// these live. A value is nullptr where the binding is not in that map's table.
struct Difference {
    PyObject* scope;
    ScopeKind kind;
    PyObject* name;
    PyObject* old_value;
    PyObject* new_value;
};

// Plain scope-by-scope comparison; nullopt as soon as anything calls for the whole tables.
class PlainComparison {
public:
    explicit PlainComparison(const Keys& keys) : keys_(keys) {}

    std::optional<std::vector<Difference>> run(PyObject* defs_before, PyObject* defs_after) {
        // Every lookup here goes into a dict whose keys are all exact strs (checked before it),
        // so no host __eq__ or __hash__ can run and change what is being iterated. A table that
        // is not an exact dict (None, a list, a subclass with its own items()) is read, or
        // refused, by the host's own expressions.
        if (!PyDict_CheckExact(defs_before) || !PyDict_CheckExact(defs_after) ||
            !keys_are(defs_before, exact_str) || !keys_are(defs_after, exact_str)) {
            return std::nullopt;
        }
        Py_ssize_t position = 0;
        PyObject* scope = nullptr;
        PyObject* names = nullptr;
        while (PyDict_Next(defs_before, &position, &scope, &names)) {
            const std::optional<ScopeKind> kind = kind_of(scope);
            if (!kind) return std::nullopt;
            if (*kind == ScopeKind::other) continue;
            PyObject* names_after = PyDict_GetItemWithError(defs_after, scope);
            if (!compare_scope(scope, *kind, names, names_after)) return std::nullopt;
        }
        position = 0;
        while (PyDict_Next(defs_after, &position, &scope, &names)) {
            const std::optional<ScopeKind> kind = kind_of(scope);
            if (!kind) return std::nullopt;
            if (*kind == ScopeKind::other || PyDict_GetItemWithError(defs_before, scope) != nullptr) continue;
            if (!compare_scope(scope, *kind, nullptr, names)) return std::nullopt;
        }
        return std::move(differences_);
    }

private:
    // nullopt for a module scope that could share its base with a CSS scope.
    std::optional<ScopeKind> kind_of(PyObject* scope) const {
        const Py_ssize_t length = PyUnicode_GET_LENGTH(scope);
        const bool is_css = PyUnicode_Find(scope, keys_.css_marker.get(), 0, length, 1) >= 0;
        if (PyUnicode_Tailmatch(scope, keys_.module_suffix.get(), 0, length, 1) == 1) {
            if (is_css) return std::nullopt;
            return ScopeKind::module;
        }
        return is_css ? ScopeKind::css : ScopeKind::other;
    }

    // Whether a binding's records are plain; `value` is then the last record's "rhs" (or ""),
    // or nullptr for empty records, which leave the name out of the table.
    bool value_of(PyObject* records, PyObject** value) const {
        *value = nullptr;
        if (records == nullptr) return true;
        if (!PyList_CheckExact(records)) return false;
        const Py_ssize_t count = PyList_GET_SIZE(records);
        if (count == 0) return true;
        PyObject* last = PyList_GET_ITEM(records, count - 1);
        if (!PyDict_CheckExact(last) || !keys_are(last, exact_str)) return false;
        PyObject* rhs = PyDict_GetItemWithError(last, keys_.rhs.get());
        *value = rhs != nullptr ? rhs : keys_.empty.get();
        return PyUnicode_CheckExact(*value);
    }

    static bool exact_str(PyObject* key) { return PyUnicode_CheckExact(key); }

    // An exact str without ":": two such names give distinct ids under distinct bases.
    static bool plain_name(PyObject* name) {
        return PyUnicode_CheckExact(name) && PyUnicode_FindChar(name, ':', 0, PyUnicode_GET_LENGTH(name), 1) == -1;
    }

    static bool keys_are(PyObject* dict, bool (*plain)(PyObject*)) {
        Py_ssize_t position = 0;
        PyObject* key = nullptr;
        PyObject* value = nullptr;
        while (PyDict_Next(dict, &position, &key, &value)) {
            if (!plain(key)) return false;
        }
        return true;
    }

    // Compares the names of one scope present in either map or both (nullptr where absent).
    bool compare_scope(PyObject* scope, ScopeKind kind, PyObject* names_before, PyObject* names_after) {
        for (PyObject* names : {names_before, names_after}) {
            if (names != nullptr && (!PyDict_CheckExact(names) || !keys_are(names, plain_name))) return false;
        }
        Py_ssize_t position = 0;
        PyObject* name = nullptr;
        PyObject* records = nullptr;
        Py_ssize_t shared = 0;
        if (names_before != nullptr) {
            while (PyDict_Next(names_before, &position, &name, &records)) {
                PyObject* records_after = names_after ? PyDict_GetItemWithError(names_after, name) : nullptr;
                shared += records_after != nullptr;
                if (!compare_binding(scope, kind, name, records, records_after)) return false;
            }
        }
        // Names only the after map has are looked for only when there are some.
        if (names_after == nullptr || shared == PyDict_GET_SIZE(names_after)) return true;
        position = 0;
        while (PyDict_Next(names_after, &position, &name, &records)) {
            if (names_before != nullptr && PyDict_GetItemWithError(names_before, name) != nullptr) continue;
            if (!compare_binding(scope, kind, name, nullptr, records)) return false;
        }
        return true;
    }

    bool compare_binding(PyObject* scope, ScopeKind kind, PyObject* name, PyObject* records_before,
                         PyObject* records_after) {
        PyObject* old_value = nullptr;
        PyObject* new_value = nullptr;
        if (!value_of(records_before, &old_value) || !value_of(records_after, &new_value)) return false;
        if (old_value == nullptr && new_value == nullptr) return true;
        if (old_value != nullptr && new_value != nullptr &&
            (old_value == new_value || PyUnicode_Equal(old_value, new_value) == 1)) {
            return true;
        }
        differences_.push_back({scope, kind, name, old_value, new_value});
        return true;
    }

    const Keys& keys_;
    std::vector<Difference> differences_;
};

Ref value_id(const Difference& difference) {
    const Py_ssize_t length = PyUnicode_GET_LENGTH(difference.scope);
    Ref base = check(PyUnicode_Substring(
        difference.scope, 0, difference.kind == ScopeKind::module ? length - module_suffix_length : length));
    return check(PyUnicode_FromFormat("%U::%U", base.get(), difference.name));
}

void put_differences(PyObject* out, const std::vector<Difference>& differences, Py_ssize_t cap) {
    Ref changed = check(PyList_New(0));
    Ref added = check(PyList_New(0));
    Ref removed = check(PyList_New(0));
    for (const Difference& difference : differences) {
        Ref shown = paths::base_name(value_id(difference).get());
        if (difference.old_value == nullptr) {
            check(PyList_Append(added.get(), shown.get()));
        } else if (difference.new_value == nullptr) {
            check(PyList_Append(removed.get(), shown.get()));
        } else {
            Ref line = check(PyUnicode_FromFormat("%U: %R -> %R", shown.get(), difference.old_value,
                                                  difference.new_value));
            check(PyList_Append(changed.get(), line.get()));
        }
    }
    put_sorted(out, "values_changed", std::move(changed), cap);
    put_sorted(out, "constants_added", std::move(added), cap);
    put_sorted(out, "constants_removed", std::move(removed), cap);
}

}  // namespace

void put_value_changes(PyObject* out, PyObject* before, PyObject* after, Py_ssize_t cap) {
    const Keys keys;
    if (PyDict_CheckExact(before) && PyDict_CheckExact(after)) {
        Ref defs_before = get_or(before, "defs", check(PyDict_New()));
        Ref defs_after = get_or(after, "defs", check(PyDict_New()));
        if (auto differences = PlainComparison(keys).run(defs_before.get(), defs_after.get())) {
            put_differences(out, *differences, cap);
            return;
        }
    }
    put_whole_tables(out, before, after, keys, cap);
}

}  // namespace editor::records
