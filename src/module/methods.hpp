// The method definitions of every exported function, one glue file per subsystem
// (`<subsystem>_methods.cpp`), referenced by the namespace table.
#pragma once
#include <Python.h>

namespace editor::methods {

extern PyMethodDef within_root;
extern PyMethodDef resolve_target;
extern PyMethodDef apply_block;
extern PyMethodDef first_error_node;
extern PyMethodDef all_error_nodes;
extern PyMethodDef treesitter_error;
extern PyMethodDef treesitter_error_counts;
extern PyMethodDef native_language;
extern PyMethodDef web_error_counts;
extern PyMethodDef syntax_check;
extern PyMethodDef create_file;
extern PyMethodDef delete_file;

// Semantic checks (semantic_methods.cpp).
extern PyMethodDef find_exe;
extern PyMethodDef repo_root;
extern PyMethodDef cpp_context;
extern PyMethodDef java_context;
extern PyMethodDef compile_errors;
extern PyMethodDef pyflakes_errors;
extern PyMethodDef semantic_errfn;
extern PyMethodDef semantic_delta_check;
extern PyMethodDef commit_time_check;

// Session records (records_methods.cpp).
extern PyMethodDef session_diff;
extern PyMethodDef take_snapshot;
extern PyMethodDef rollback_steps;
extern PyMethodDef ledger_load;
extern PyMethodDef ledger_append;
extern PyMethodDef ledger_mark_rolled_back;
extern PyMethodDef static_diff;

}  // namespace editor::methods
