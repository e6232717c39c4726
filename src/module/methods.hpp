// The method definitions of every exported function, one glue file per subsystem
// (`<subsystem>_methods.cpp`), referenced by the namespace table.
#pragma once
#include <Python.h>

namespace editor::methods {

extern PyMethodDef within_root;
extern PyMethodDef resolve_target;
extern PyMethodDef session_diff;
extern PyMethodDef take_snapshot;
extern PyMethodDef rollback_steps;
extern PyMethodDef ledger_load;
extern PyMethodDef ledger_append;
extern PyMethodDef ledger_mark_rolled_back;
extern PyMethodDef static_diff;

}  // namespace editor::methods
