// The module definition and its entry point. The module keeps no state object: everything it
// owns lives in its namespace (bound once by the exec slot), and every operation reaches what it
// needs through that namespace at call time. That makes it safe to load into several
// sub-interpreters and usable without the GIL with nothing to synchronise.
#include <Python.h>

#include "module/namespace.hpp"

namespace {

PyDoc_STRVAR(module_doc,
"File-editing mechanics behind a coding agent's edit tools.\n"
"\n"
"Edits are line-addressed blocks: one call puts one whole block at given lines of one file\n"
"(or at the lines a short anchor snippet spans) and the receipt echoes the exact lines it\n"
"replaced, so a mis-aimed edit shows at once. Every write is confined to the project root,\n"
"with symbolic links resolved before the test.\n"
"\n"
"Rollback is snapshot reload, not inverse patching: the session snapshots a file's text and\n"
"the indexer's raw state right before each write, and rolling back restores both. A JSON\n"
"ledger in the project's state directory keeps a readable record of the steps.\n"
"\n"
"Every check is a delta against the text before the edit: parse errors and compiler or\n"
"pyflakes findings that already existed cancel, and only what the edit added is reported. A\n"
"check that cannot run reports nothing and never blocks an edit.");

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(&editor::module::exec)},
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {Py_mod_gil, Py_MOD_GIL_NOT_USED},
    {0, nullptr},
};

PyModuleDef module_def = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "editor",
    .m_doc = module_doc,
    .m_size = 0,
    .m_methods = nullptr,
    .m_slots = module_slots,
    .m_traverse = nullptr,
    .m_clear = nullptr,
    .m_free = nullptr,
};

}  // namespace

PyMODINIT_FUNC PyInit_editor(void) { return PyModuleDef_Init(&module_def); }
