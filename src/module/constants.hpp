// Builders of the module's constant tables, each called once by the module body.
#pragma once
#include <Python.h>

#include "editor/ref.hpp"

namespace editor::module {

Ref ledger_name(PyObject* module);

// Region kind -> grammar name, and web file extension -> grammar name.
Ref web_kind_lang(PyObject* module);
Ref web_ext_lang(PyObject* module);

// Semantic checks (semantic_constants.cpp).
Ref gcc_diag(PyObject* module);
Ref javac_diag(PyObject* module);
Ref cpp_src_ext(PyObject* module);
Ref pkg_re(PyObject* module);
Ref compiler_langs(PyObject* module);
Ref pyflakes_error_types(PyObject* module);

}  // namespace editor::module
