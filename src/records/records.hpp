// Session records: snapshots and rollback, the ledger file, the session's unified diff and the
// structural diff of the indexer's maps. The session owns every record; these functions only
// build, consume and compare them.
#pragma once
#include <Python.h>

#include "editor/ref.hpp"

namespace editor::records {

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

// What changed between two enriched maps; `cap` is nullptr when not passed.
Ref static_diff(PyObject* before, PyObject* after, PyObject* cap);

}  // namespace editor::records
