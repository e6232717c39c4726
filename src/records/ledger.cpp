// The ledger file is rewritten whole by the host's own json.dumps(..., indent=1), so its bytes
// are exactly what the host writes (escapes, float repr, layout); the C encoder the host uses
// for it leaves nothing worth replacing natively.
#include <Python.h>

#include <algorithm>

#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "editor/host/result.hpp"
#include "records/objects.hpp"
#include "records/records.hpp"
#include "editor/host/pathlib.hpp"

namespace editor::records {
namespace {

Ref ledger_file(PyObject* module, PyObject* directory) {
    Ref name = ns(module, names::LEDGER_NAME);
    return check(PyNumber_TrueDivide(directory, name.get()));
}

// A ledger that is gone, unreadable, not UTF-8, not JSON or without "steps" reads as empty.
bool reads_as_empty(const PyError& e) {
    return e.matches(PyExc_OSError) || e.matches(PyExc_ValueError) || e.matches(PyExc_KeyError);
}

void write_ledger(PyObject* module, PyObject* root, PyObject* steps) {
    // The directory first: it exists even when the text below cannot be encoded.
    Ref directory = call(ns_attr(module, names::projstore, "ensure_orvel_dir").get(), root);
    Ref target = ledger_file(module, directory.get());
    Ref document = result({{"steps", steps}});
    Ref indent = check(PyLong_FromLong(1));
    Ref text = call_kw(ns_attr(module, names::json, "dumps").get(), {document.get()}, {{"indent", indent.get()}});
    write_utf8(target.get(), text.get());
}

// {**entry}: the host's message when entry is not a mapping.
Ref copy_of_mapping(PyObject* entry) {
    Ref copy = check(PyDict_New());
    if (PyDict_Update(copy.get(), entry) < 0) {
        if (PyErr_ExceptionMatches(PyExc_AttributeError)) {
            PyErr_Format(PyExc_TypeError, "'%.200s' object is not a mapping", Py_TYPE(entry)->tp_name);
        }
        throw PyError::fetch();
    }
    return copy;
}

}  // namespace

Ref ledger_load(PyObject* module, PyObject* root) {
    Ref directory = call(ns_attr(module, names::projstore, "project_dir").get(), root);
    Ref path = check(PyObject_Str(ledger_file(module, directory.get()).get()));
    if (!path_is(module, "exists", path.get())) return check(PyList_New(0));
    try {
        Ref text = read_utf8(make_path(module, path.get()).get());
        Ref document = call(ns_attr(module, names::json, "loads").get(), text.get());
        Ref key = str("steps");
        return check(PyObject_GetItem(document.get(), key.get()));
    } catch (PyError& e) {
        if (!reads_as_empty(e)) throw;
        return check(PyList_New(0));
    }
}

Ref ledger_append(PyObject* module, PyObject* root, PyObject* entry) {
    Ref steps = call(ns(module, ledger_load_sig).get(), root);
    Ref step = copy_of_mapping(entry);
    Ref n = check(PyLong_FromSsize_t(check_value(PyObject_Size(steps.get())) + 1));
    Ref ts = call(ns_attr(module, names::time, "time").get());
    check(PyDict_SetItemString(step.get(), "n", n.get()));
    check(PyDict_SetItemString(step.get(), "ts", ts.get()));
    (void)call_method(steps.get(), "append", step.get());
    write_ledger(module, root, steps.get());
    return n;
}

void ledger_mark_rolled_back(PyObject* module, PyObject* root, PyObject* count_arg) {
    // A count below 1 flags nothing: the caller passes how many steps a rollback just undid,
    // which is at least 1, so anything smaller is a slip that must not flag older steps (as a
    // trailing slice from -count would). The ledger is still rewritten, as on every call.
    const Py_ssize_t count = clamped_index(count_arg);
    Ref steps = call(ns(module, ledger_load_sig).get(), root);
    Ref key = str("rolled_back");
    Ref get = str("get");
    Ref unflagged = check(PyList_New(0));
    Ref entries = check(PyObject_GetIter(steps.get()));
    Ref entry;
    while (check_bool(PyIter_NextItem(entries.get(), (entry = Ref()).out()))) {
        // entry.get("rolled_back"), without a bound method per entry.
        Ref flag = check(PyObject_CallMethodOneArg(entry.get(), get.get(), key.get()));
        if (!truthy(flag.get())) check(PyList_Append(unflagged.get(), entry.get()));
    }
    const Py_ssize_t size = PyList_GET_SIZE(unflagged.get());
    if (count >= 1) {
        for (Py_ssize_t i = std::max<Py_ssize_t>(size - count, 0); i < size; ++i) {
            check(PyObject_SetItem(PyList_GET_ITEM(unflagged.get(), i), key.get(), Py_True));
        }
    }
    write_ledger(module, root, steps.get());
}

}  // namespace editor::records
