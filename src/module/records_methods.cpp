// Python-facing glue of the session records: snapshots, the ledger and the two diffs.
#include <Python.h>

#include "editor/boundary.hpp"
#include "module/methods.hpp"
#include "records/records.hpp"

namespace editor::methods {
namespace {

Ref take_snapshot_impl(PyObject* module, const Args& args) {
    static constexpr Signature<2> sig{"take_snapshot", {"raw_data", "abs_path"}};
    auto [raw_data, abs_path] = bind(sig, args);
    return records::take_snapshot(module, raw_data, abs_path);
}

Ref rollback_steps_impl(PyObject* module, const Args& args) {
    static constexpr Signature<2> sig{"rollback_steps", {"snapshots", "steps"}};
    auto [snapshots, steps] = bind(sig, args);
    return records::rollback_steps(module, snapshots, steps);
}

Ref ledger_load_impl(PyObject* module, const Args& args) {
    static constexpr Signature<1> sig{"ledger_load", {"root"}};
    auto [root] = bind(sig, args);
    return records::ledger_load(module, root);
}

Ref ledger_append_impl(PyObject* module, const Args& args) {
    static constexpr Signature<2> sig{"ledger_append", {"root", "entry"}};
    auto [root, entry] = bind(sig, args);
    return records::ledger_append(module, root, entry);
}

Ref ledger_mark_rolled_back_impl(PyObject* module, const Args& args) {
    static constexpr Signature<2> sig{"ledger_mark_rolled_back", {"root", "count"}};
    auto [root, count] = bind(sig, args);
    records::ledger_mark_rolled_back(module, root, count);
    return Ref::borrow(Py_None);
}

Ref session_diff_impl(PyObject* module, const Args& args) {
    static constexpr Signature<1> sig{"session_diff", {"touched"}};
    auto [touched] = bind(sig, args);
    return records::session_diff(module, touched);
}

Ref static_diff_impl(PyObject*, const Args& args) {
    static constexpr Signature<3> sig{"static_diff", {"before", "after", "cap"}, 2};
    auto [before, after, cap] = bind(sig, args);
    return records::static_diff(before, after, cap);
}

}  // namespace

PyMethodDef session_diff = {
    "session_diff", _PyCFunction_CAST(entry<session_diff_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("session_diff($module, /, touched)\n--\n\n"
              "One unified diff of the session's edits: every touched file's first-touch text\n"
              "(None for a file the session created) against its text on disk now, files in\n"
              "path order, headers a/<name> and b/<name>, chunks separated by an empty line.\n"
              "Unchanged files are left out; a file that cannot be read counts as empty.")};

PyMethodDef take_snapshot = {
    "take_snapshot", _PyCFunction_CAST(entry<take_snapshot_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("take_snapshot($module, /, raw_data, abs_path)\n--\n\n"
              "The record to push right before a write: {'ts', 'path', 'text_before', 'raw'}.\n"
              "text_before is the file's text now, or None when there is no file (the write\n"
              "creates it); raw is the raw_data object itself, not a copy.")};

PyMethodDef rollback_steps = {
    "rollback_steps", _PyCFunction_CAST(entry<rollback_steps_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("rollback_steps($module, /, snapshots, steps)\n--\n\n"
              "Undo the last steps writes: pop that many records, newest first, write each\n"
              "file's old text back or delete a file the write created, and return\n"
              "{'restored': [...], 'raw': <IR of the oldest record popped>}. Popped records\n"
              "stay consumed even when a restore fails.")};

PyMethodDef ledger_load = {
    "ledger_load", _PyCFunction_CAST(entry<ledger_load_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("ledger_load($module, /, root)\n--\n\n"
              "The steps recorded in the project's ledger, oldest first; [] when there is no\n"
              "ledger or it cannot be read or parsed.")};

PyMethodDef ledger_append = {
    "ledger_append", _PyCFunction_CAST(entry<ledger_append_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("ledger_append($module, /, root, entry)\n--\n\n"
              "Record one step: a copy of entry numbered 'n' and stamped 'ts', appended to the\n"
              "ledger, which is rewritten whole. Returns the step number.")};

PyMethodDef ledger_mark_rolled_back = {
    "ledger_mark_rolled_back", _PyCFunction_CAST(entry<ledger_mark_rolled_back_impl>),
    METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("ledger_mark_rolled_back($module, /, root, count)\n--\n\n"
              "Flag the newest count entries not yet flagged with 'rolled_back': true and\n"
              "rewrite the ledger. A count below 1 flags nothing.")};

PyMethodDef static_diff = {
    "static_diff", _PyCFunction_CAST(entry<static_diff_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("static_diff($module, /, before, after, cap=10)\n--\n\n"
              "What an edit did to the indexer's map: call edges and symbols gained or lost,\n"
              "and module constants and CSS declarations whose value changed, appeared or\n"
              "vanished. Ids are shortened to file-name::qualified-name and every list is cut\n"
              "to its first cap items.")};

}  // namespace editor::methods
