// Builders of the module's constant tables, each called once by the module body.
#pragma once
#include <Python.h>

#include "editor/ref.hpp"

namespace editor::module {

Ref ledger_name(PyObject* module);

}  // namespace editor::module
