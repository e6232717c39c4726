#include <Python.h>

#include "editor/call.hpp"
#include "module/constants.hpp"

namespace editor::module {

Ref ledger_name(PyObject*) { return str("rollback_ledger.json"); }

}  // namespace editor::module
