// The diff itself is the host's difflib.unified_diff; this file decides what is compared, in
// which order, under which names, and how the pieces are joined.
#include <Python.h>

#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "records/objects.hpp"
#include "records/records.hpp"
#include "editor/host/pathlib.hpp"
#include "paths/paths.hpp"

namespace editor::records {
namespace {

// The file's text now; "" when it cannot be read (gone, a directory, no permission), so its
// whole first-touch text shows as removed. Text that is not UTF-8 still raises.
Ref text_now(PyObject* module, PyObject* path) {
    Ref text = read_utf8_if_readable(make_path(module, path).get());
    return text ? std::move(text) : check(PyUnicode_FromStringAndSize("", 0));
}

// Lines as str.splitlines() cuts them: at every line boundary the host knows, ends dropped.
Ref lines_of(PyObject* text) { return check(PyUnicode_Splitlines(text, 0)); }

Ref file_diff(PyObject* unified_diff, PyObject* path, PyObject* before, PyObject* after) {
    Ref name = paths::base_name(path);
    Ref fromfile = check(PyUnicode_Concat(str("a/").get(), name.get()));
    Ref tofile = check(PyUnicode_Concat(str("b/").get(), name.get()));
    Ref lineterm = check(PyUnicode_FromStringAndSize("", 0));
    Ref a = lines_of(before);
    Ref b = lines_of(after);
    Ref lines = call_kw(unified_diff, {a.get(), b.get()},
                        {{"fromfile", fromfile.get()}, {"tofile", tofile.get()}, {"lineterm", lineterm.get()}});
    Ref newline = str("\n");
    return check(PyUnicode_Join(newline.get(), lines.get()));
}

}  // namespace

Ref session_diff(PyObject* module, PyObject* touched) {
    Ref items = item_pairs(touched);
    check(PyList_Sort(items.get()));
    Ref unified_diff = ns_attr(module, names::difflib, "unified_diff");
    Ref empty = check(PyUnicode_FromStringAndSize("", 0));
    Ref chunks = check(PyList_New(0));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
        PyObject* item = PyList_GET_ITEM(items.get(), i);
        PyObject* path = PyTuple_GET_ITEM(item, 0);
        PyObject* before = PyTuple_GET_ITEM(item, 1);
        // Checked before any method is called on them: a Path key's own replace() renames files.
        if (!PyUnicode_Check(path)) {
            raise_wrong_type("touched paths", "str", path);
        }
        if (before == Py_None) before = empty.get();
        if (!PyUnicode_Check(before)) {
            raise_wrong_type("first-touch texts", "str or None", before);
        }
        Ref after = text_now(module, path);
        if (check_bool(PyObject_RichCompareBool(before, after.get(), Py_EQ))) continue;
        Ref body = file_diff(unified_diff.get(), path, before, after.get());
        if (PyUnicode_GET_LENGTH(body.get()) > 0) check(PyList_Append(chunks.get(), body.get()));
    }
    Ref separator = str("\n\n");
    return check(PyUnicode_Join(separator.get(), chunks.get()));
}

}  // namespace editor::records
