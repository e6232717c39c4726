// The module body: binds every name of the namespace, in the order the host sees them.
#include <Python.h>

#include "editor/boundary.hpp"
#include "editor/method.hpp"
#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "module/constants.hpp"
#include "module/methods.hpp"
#include "module/namespace.hpp"

namespace editor::module {
namespace {

enum class Kind { import, import_from, value, function, deep_function };

struct Binding {
    Kind kind;
    const char* name;              // bound name (functions: nullptr, their `def` names them)
    const char* from = nullptr;    // import_from: the module holding `name`
    Ref (*make)(PyObject* module) = nullptr;  // value
    PyMethodDef* def = nullptr;    // function, deep_function
};

constexpr Binding import(const char* name) { return {Kind::import, name}; }
constexpr Binding import_from(const char* from, const char* name) { return {Kind::import_from, name, from}; }
constexpr Binding value(const char* name, Ref (*make)(PyObject*)) { return {Kind::value, name, nullptr, make}; }
// The definitions are read at exec time only: a table built from their contents would depend on
// the order in which the glue files' globals are initialised.
constexpr Binding function(PyMethodDef& def) { return {Kind::function, nullptr, nullptr, nullptr, &def}; }
constexpr Binding deep_function(PyMethodDef& def) { return {Kind::deep_function, nullptr, nullptr, nullptr, &def}; }

constexpr Binding namespace_table[] = {
    import(names::difflib),
    import(names::json),
    import(names::os),
    import(names::re),
    import(names::shutil),
    import(names::subprocess),
    import(names::tempfile),
    import(names::time),
    import_from("pathlib", names::Path),
    import(names::projstore),
    import_from("deeprun", names::run_deep),
    value(names::LEDGER_NAME, ledger_name),
    function(methods::within_root),
    function(methods::resolve_target),
    function(methods::apply_block),
    function(methods::first_error_node),
    function(methods::all_error_nodes),
    function(methods::treesitter_error),
    function(methods::treesitter_error_counts),
    value(names::WEB_KIND_LANG, web_kind_lang),
    value(names::WEB_EXT_LANG, web_ext_lang),
    function(methods::native_language),
    function(methods::web_error_counts),
    value(names::GCC_DIAG, gcc_diag),
    value(names::JAVAC_DIAG, javac_diag),
    value(names::CPP_SRC_EXT, cpp_src_ext),
    function(methods::find_exe),
    function(methods::repo_root),
    function(methods::cpp_context),
    value(names::PKG_RE, pkg_re),
    function(methods::java_context),
    value(names::COMPILER_LANGS, compiler_langs),
    function(methods::compile_errors),
    value(names::PYFLAKES_ERROR_TYPES, pyflakes_error_types),
    function(methods::pyflakes_errors),
    function(methods::semantic_errfn),
    function(methods::semantic_delta_check),
    function(methods::commit_time_check),
    function(methods::session_diff),
    deep_function(methods::syntax_check),
    function(methods::create_file),
    function(methods::delete_file),
    function(methods::take_snapshot),
    function(methods::rollback_steps),
    function(methods::ledger_load),
    function(methods::ledger_append),
    function(methods::ledger_mark_rolled_back),
    function(methods::static_diff),
};

// `from <from> import <name>`, with the ImportError text and attributes the host's own
// statement gives when the attribute is missing.
Ref import_name(const char* from, const char* name) {
    Ref module = check(PyImport_ImportModule(from));
    Ref value;
    if (check_bool(PyObject_GetOptionalAttrString(module.get(), name, value.out()))) return value;
    Ref file;
    (void)check_bool(PyObject_GetOptionalAttrString(module.get(), "__file__", file.out()));
    Ref module_name = str(from);
    Ref message = file ? check(PyUnicode_FromFormat("cannot import name '%s' from '%s' (%S)", name, from, file.get()))
                       : check(PyUnicode_FromFormat("cannot import name '%s' from '%s' (unknown location)", name, from));
    PyErr_SetImportError(message.get(), module_name.get(), file.get());
    throw PyError::fetch();
}

Ref make(PyObject* module, const Binding& binding) {
    switch (binding.kind) {
        case Kind::import: return check(PyImport_ImportModule(binding.name));
        case Kind::import_from: return import_name(binding.from, binding.name);
        case Kind::value: return binding.make(module);
        case Kind::function: return make_function(*binding.def, module, module);
        case Kind::deep_function: {
            // The host decides how the work gets its large stack; we bind whatever it returns.
            Ref function = make_function(*binding.def, module, module);
            Ref run_deep = ns(module, names::run_deep);
            return call(run_deep.get(), function.get());
        }
    }
    raise(PyExc_SystemError, "unknown namespace binding kind");
}

void bind_namespace(PyObject* module) {
    for (const Binding& binding : namespace_table) {
        const char* name = binding.def ? binding.def->ml_name : binding.name;
        check(PyModule_Add(module, name, make(module, binding).release()));
    }
}

}  // namespace

int exec(PyObject* module) noexcept { return exec_entry<bind_namespace>(module); }

}  // namespace editor::module
