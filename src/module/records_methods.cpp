// Python-facing glue of the session records: snapshots, the ledger and the two diffs.
#include <Python.h>

#include "editor/method.hpp"
#include "module/methods.hpp"
#include "records/records.hpp"

namespace editor::methods {
namespace {

constexpr Signature<2> take_snapshot_sig{"take_snapshot", {"raw_data", "abs_path"}};
constexpr Signature<2> rollback_steps_sig{"rollback_steps", {"snapshots", "steps"}};
constexpr Signature<1> ledger_load_sig{"ledger_load", {"root"}};
constexpr Signature<2> ledger_append_sig{"ledger_append", {"root", "entry"}};
constexpr Signature<2> ledger_mark_rolled_back_sig{"ledger_mark_rolled_back", {"root", "count"}};
constexpr Signature<1> session_diff_sig{"session_diff", {"touched"}};
constexpr Signature<3> static_diff_sig{"static_diff", {"before", "after", "cap"}, 2};

}  // namespace

PyMethodDef session_diff = method<session_diff_sig, records::session_diff>(
    PyDoc_STR("session_diff($module, /, touched)\n--\n\n"
              "One unified diff of the session's edits: every touched file's first-touch text\n"
              "(None for a file the session created) against its text on disk now, files in\n"
              "path order, headers a/<name> and b/<name>, chunks separated by an empty line.\n"
              "Unchanged files are left out; a file that cannot be read counts as empty."));

PyMethodDef take_snapshot = method<take_snapshot_sig, records::take_snapshot>(
    PyDoc_STR("take_snapshot($module, /, raw_data, abs_path)\n--\n\n"
              "The record to push right before a write: {'ts', 'path', 'text_before', 'raw'}.\n"
              "text_before is the file's text now, or None when there is no file (the write\n"
              "creates it); raw is the raw_data object itself, not a copy."));

PyMethodDef rollback_steps = method<rollback_steps_sig, records::rollback_steps>(
    PyDoc_STR("rollback_steps($module, /, snapshots, steps)\n--\n\n"
              "Undo the last steps writes: pop that many records, newest first, write each\n"
              "file's old text back or delete a file the write created, and return\n"
              "{'restored': [...], 'raw': <IR of the oldest record popped>}. Popped records\n"
              "stay consumed even when a restore fails."));

PyMethodDef ledger_load = method<ledger_load_sig, records::ledger_load>(
    PyDoc_STR("ledger_load($module, /, root)\n--\n\n"
              "The steps recorded in the project's ledger, oldest first; [] when there is no\n"
              "ledger or it cannot be read or parsed."));

PyMethodDef ledger_append = method<ledger_append_sig, records::ledger_append>(
    PyDoc_STR("ledger_append($module, /, root, entry)\n--\n\n"
              "Record one step: a copy of entry numbered 'n' and stamped 'ts', appended to the\n"
              "ledger, which is rewritten whole. Returns the step number."));

PyMethodDef ledger_mark_rolled_back = method<ledger_mark_rolled_back_sig, records::ledger_mark_rolled_back>(
    PyDoc_STR("ledger_mark_rolled_back($module, /, root, count)\n--\n\n"
              "Flag the newest count entries not yet flagged with 'rolled_back': true and\n"
              "rewrite the ledger. A count below 1 flags nothing."));

PyMethodDef static_diff = method<static_diff_sig, records::static_diff>(
    PyDoc_STR("static_diff($module, /, before, after, cap=10)\n--\n\n"
              "What an edit did to the indexer's map: call edges and symbols gained or lost,\n"
              "and module constants and CSS declarations whose value changed, appeared or\n"
              "vanished. Ids are shortened to file-name::qualified-name and every list is cut\n"
              "to its first cap items."));

}  // namespace editor::methods
