#include <Python.h>

#include "editor/host.hpp"
#include "module/constants.hpp"

namespace editor::module {

Ref ledger_name(PyObject*) { return str("rollback_ledger.json"); }

}  // namespace editor::module
