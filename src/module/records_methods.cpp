// Python-facing glue of the session records: snapshots, the ledger and the two diffs.
#include <Python.h>

#include "editor/method.hpp"
#include "module/methods.hpp"
#include "records/records.hpp"

namespace editor::methods {

PyMethodDef session_diff = method<records::session_diff_sig, records::session_diff,
    "One unified diff of the session's edits: every touched file's first-touch text\n"
    "(None for a file the session created) against its text on disk now, files in\n"
    "path order, headers a/<name> and b/<name>, chunks separated by an empty line.\n"
    "Unchanged files are left out; a file that cannot be read counts as empty.">();

PyMethodDef take_snapshot = method<records::take_snapshot_sig, records::take_snapshot,
    "The record to push right before a write: {'ts', 'path', 'text_before', 'raw'}.\n"
    "text_before is the file's text now, or None when there is no file (the write\n"
    "creates it); raw is the raw_data object itself, not a copy.">();

PyMethodDef rollback_steps = method<records::rollback_steps_sig, records::rollback_steps,
    "Undo the last steps writes: pop that many records, newest first, write each\n"
    "file's old text back or delete a file the write created, and return\n"
    "{'restored': [...], 'raw': <IR of the oldest record popped>}. Popped records\n"
    "stay consumed even when a restore fails.">();

PyMethodDef ledger_load = method<records::ledger_load_sig, records::ledger_load,
    "The steps recorded in the project's ledger, oldest first; [] when there is no\n"
    "ledger or it cannot be read or parsed.">();

PyMethodDef ledger_append = method<records::ledger_append_sig, records::ledger_append,
    "Record one step: a copy of entry numbered 'n' and stamped 'ts', appended to the\n"
    "ledger, which is rewritten whole. Returns the step number.">();

PyMethodDef ledger_mark_rolled_back = method<records::ledger_mark_rolled_back_sig, records::ledger_mark_rolled_back,
    "Flag the newest count entries not yet flagged with 'rolled_back': true and\n"
    "rewrite the ledger. A count below 1 flags nothing.">();

PyMethodDef static_diff = method<records::static_diff_sig, records::static_diff,
    "What an edit did to the indexer's map: call edges and symbols gained or lost,\n"
    "and module constants and CSS declarations whose value changed, appeared or\n"
    "vanished. Ids are shortened to file-name::qualified-name and every list is cut\n"
    "to its first cap items.">();

}  // namespace editor::methods
