#include <Python.h>

#include <string>

#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "editor/host/result.hpp"
#include "records/objects.hpp"
#include "records/records.hpp"
#include "editor/host/pathlib.hpp"

namespace editor::records {
namespace {

// The three members of a record that a rollback uses, strong references of our own.
struct Snapshot {
    Ref path;         // str, or None for a step that touched no file
    Ref text_before;  // str, or None when the step created the file
    Ref raw;
};

Ref member(PyObject* record, const char* key) {
    Ref value;
    if (!check_bool(PyDict_GetItemStringRef(record, key, value.out()))) {
        Ref name = str(key);
        PyErr_SetObject(PyExc_KeyError, name.get());
        throw PyError::fetch();
    }
    return value;
}

void require_str_or_none(PyObject* value, const char* key) {
    if (value != Py_None && !PyUnicode_Check(value)) {
        const std::string what = std::string("snapshot record's \"") + key + "\"";
        raise_wrong_type(what.c_str(), "str or None", value);
    }
}

// Reads a record, raising for anything take_snapshot would never have made.
Snapshot snapshot_of(PyObject* record) {
    if (!PyDict_Check(record)) {
        raise_wrong_type("snapshot records", "dicts", record);
    }
    Snapshot snap{member(record, "path"), member(record, "text_before"), member(record, "raw")};
    require_str_or_none(snap.path.get(), "path");
    require_str_or_none(snap.text_before.get(), "text_before");
    return snap;
}

// Every record about to be popped is checked before the first file is written, so a malformed
// stack raises with the files and the stack as they were.
void check_records(PyObject* snapshots, Py_ssize_t steps) {
    const Py_ssize_t size = PyList_GET_SIZE(snapshots);
    for (Py_ssize_t i = size - steps; i < size; ++i) {
        (void)snapshot_of(check(PyList_GetItemRef(snapshots, i)).get());
    }
}

}  // namespace

Ref take_snapshot(PyObject* module, PyObject* raw_data, PyObject* abs_path) {
    Ref text = Ref::borrow(Py_None);
    if (abs_path != Py_None) {
        if (path_is(module, "exists", abs_path)) text = read_utf8(make_path(module, abs_path).get());
    }
    Ref ts = call(ns_attr(module, names::time, "time").get());
    // The caller's raw_data itself: the IR is the indexer's and is handed back untouched.
    return result({{"ts", ts.get()}, {"path", abs_path}, {"text_before", text.get()}, {"raw", raw_data}});
}

Ref rollback_steps(PyObject* module, PyObject* snapshots, PyObject* steps_arg) {
    const Py_ssize_t steps = clamped_index(steps_arg);
    if (steps < 1) return refusal("steps must be >= 1");
    if (!PyList_Check(snapshots)) {
        raise_wrong_type("snapshots", "a list", snapshots);
    }
    const Py_ssize_t size = PyList_GET_SIZE(snapshots);
    if (steps > size) {
        return refusal(check(PyUnicode_FromFormat("only %zd step(s) on the snapshot stack", size)));
    }
    check_records(snapshots, steps);

    Ref path_type = ns(module, names::Path);
    Ref unlink = ns_attr(module, names::os, "unlink");
    Ref restored = check(PyList_New(0));
    Ref raw;
    for (Py_ssize_t i = 0; i < steps; ++i) {
        // Popped before its restore: a record is consumed whatever becomes of its file.
        Snapshot snap = snapshot_of(call_method(snapshots, "pop").get());
        raw = std::move(snap.raw);
        if (snap.path.get() == Py_None) continue;
        if (snap.text_before.get() == Py_None) {
            try {
                (void)call(unlink.get(), snap.path.get());
            } catch (PyError& e) {
                if (!e.matches(PyExc_OSError)) throw;
                return refusal(check(PyUnicode_FromFormat("could not delete %U: %S", snap.path.get(), e.value())));
            }
            Ref entry = check(PyUnicode_FromFormat("%U (deleted)", snap.path.get()));
            check(PyList_Append(restored.get(), entry.get()));
        } else {
            write_utf8(call(path_type.get(), snap.path.get()).get(), snap.text_before.get());
            check(PyList_Append(restored.get(), snap.path.get()));
        }
    }
    return result({{"restored", restored.get()}, {"raw", raw.get()}});
}

}  // namespace editor::records
