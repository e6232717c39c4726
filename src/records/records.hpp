// Session records: snapshots and rollback, the ledger file, the session's unified diff and the
// structural diff of the indexer's maps. The session owns every record; these functions only
// build, consume and compare them.
#pragma once
#include <Python.h>

#include "editor/args.hpp"
#include "editor/ref.hpp"

namespace editor::records {

// The Python declarations: names, parameters and defaults, read by the bindings and by the
// operations that call one another through the module namespace.
inline constexpr Signature take_snapshot_sig{"take_snapshot", "raw_data", "abs_path"};
inline constexpr Signature rollback_steps_sig{"rollback_steps", "snapshots", "steps"};
inline constexpr Signature ledger_load_sig{"ledger_load", "root"};
inline constexpr Signature ledger_append_sig{"ledger_append", "root", "entry"};
inline constexpr Signature ledger_mark_rolled_back_sig{"ledger_mark_rolled_back", "root", "count"};
inline constexpr Signature session_diff_sig{"session_diff", "touched"};
inline constexpr Signature static_diff_sig{"static_diff", "before", "after", Param{"cap", "10"}};

// {"ts", "path", "text_before", "raw"}: the file's text before a write (None when there is no
// file) beside the caller's raw IR object itself.
Ref take_snapshot(PyObject* module, PyObject* raw_data, PyObject* abs_path);

// Pops `steps` records newest first, puts their texts back (or deletes created files) and
// returns {"restored", "raw"}, or a refusal.
Ref rollback_steps(PyObject* module, PyObject* snapshots, PyObject* steps);

// The ledger's "steps" list; a new empty list when there is no readable ledger.
Ref ledger_load(PyObject* module, PyObject* root);
// Appends a numbered, stamped copy of `entry`; returns its number.
Ref ledger_append(PyObject* module, PyObject* root, PyObject* entry);
// Flags the newest `count` unflagged entries as rolled back and rewrites the ledger.
void ledger_mark_rolled_back(PyObject* module, PyObject* root, PyObject* count);

// One unified diff of every touched file's first-touch text against its text now.
Ref session_diff(PyObject* module, PyObject* touched);

// What changed between two enriched maps, each list cut to its first `cap` items.
Ref static_diff(PyObject* before, PyObject* after, PyObject* cap);

}  // namespace editor::records
