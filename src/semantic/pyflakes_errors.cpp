#include <Python.h>

#include "editor/closure.hpp"
#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "editor/host/pathlib.hpp"
#include "editor/method.hpp"
#include "semantic/semantic.hpp"

namespace editor::semantic {
namespace {

bool is_ordinary(const PyError& error) { return error.matches(PyExc_Exception); }

// m.message % m.message_args; the bare format when the arguments do not fit it, so a finding
// is never lost to its own wording.
Ref message_text(PyObject* m) {
    try {
        Ref format = attr(m, "message");
        Ref args = attr(m, "message_args");
        return check(PyNumber_Remainder(format.get(), args.get()));
    } catch (PyError& error) {
        if (!is_ordinary(error)) throw;
    }
    return attr(m, "message");
}

// What the reporter's methods close over: the findings list of one call, so each call collects
// into its own list and the module keeps nothing between calls.
enum class Reporter { findings, module, count };

Ref flake(PyObject* self, PyObject* m) {
    // The exact class: style findings share base classes with the errors.
    Ref kind = check(PyType_GetName(Py_TYPE(m)));
    Ref error_types = ns(member(self, Reporter::module), names::PYFLAKES_ERROR_TYPES);
    if (!check_bool(PySequence_Contains(error_types.get(), kind.get()))) return Ref::borrow(Py_None);
    Ref text = message_text(m);
    Ref line = attr(m, "lineno");
    check(PyList_Append(member(self, Reporter::findings), check(PyTuple_Pack(2, text.get(), line.get())).get()));
    return Ref::borrow(Py_None);
}

// Syntax errors are the syntax check's business, and pyflakes' own failures make the whole
// analysis void anyway (it raises then): both reports are ignored.
template <typename... Params>
void ignore(Params...) {}

constexpr Signature flake_sig{"flake", "m"};
constexpr Signature unexpected_error_sig{"unexpectedError", "filename", "msg"};
constexpr Signature syntax_error_sig{"syntaxError", "filename", "msg", "lineno", "offset", "text"};

PyMethodDef reporter_methods[] = {
    closure_method<flake_sig, flake, "Record m when its class is one of the semantic errors.">(),
    closure_method<unexpected_error_sig, ignore<PyObject*, PyObject*>, "Ignored.">(),
    closure_method<syntax_error_sig, ignore<PyObject*, PyObject*, PyObject*, PyObject*, PyObject*>, "Ignored.">(),
};

// A reporter class of its own for one call, made the way a class statement makes one. Built-in
// functions do not bind to instances, so the methods keep the call's pair as their `self`.
Ref reporter_class(PyObject* module, PyObject* findings) {
    Ref closure = make_closure<Reporter>({findings, module});
    Ref module_name = check(PyModule_GetNameObject(module));
    Ref body = check(PyDict_New());
    check(PyDict_SetItemString(body.get(), "__module__", module_name.get()));
    check(PyDict_SetItemString(body.get(), "__qualname__", str("_pyflakes_errors.<locals>._Collector").get()));
    check(PyDict_SetItemString(body.get(), "__doc__", str("Collects one file's pyflakes errors.").get()));
    for (PyMethodDef& def : reporter_methods) {
        check(PyDict_SetItemString(body.get(), def.ml_name, make_function(def, closure.get(), module).get()));
    }
    Ref name = str("_Collector");
    Ref bases = check(PyTuple_Pack(1, reinterpret_cast<PyObject*>(&PyBaseObject_Type)));
    return call(reinterpret_cast<PyObject*>(&PyType_Type), name.get(), bases.get(), body.get());
}

// `from pyflakes import api`, at call time so the module loads without pyflakes.
Ref import_api() {
    Ref api_name = str("api");
    Ref fromlist = check(PyTuple_Pack(1, api_name.get()));
    Ref package = check(PyImport_ImportModuleLevel("pyflakes", nullptr, nullptr, fromlist.get(), 0));
    return attr(package.get(), "api");
}

}  // namespace

Ref pyflakes_errors(PyObject* module, PyObject* abs_path) {
    Ref api;
    try {
        api = import_api();
    } catch (PyError& error) {
        if (!is_ordinary(error)) throw;
        return Ref::borrow(Py_None);
    }
    Ref src = read_utf8_if_readable(make_path(module, abs_path).get());
    if (!src) return Ref::borrow(Py_None);
    Ref findings = check(PyList_New(0));
    try {
        Ref reporter = call(reporter_class(module, findings.get()).get());
        Ref filename = check(PyObject_Str(abs_path));
        (void)call_method(api.get(), "check", src.get(), filename.get(), reporter.get());
    } catch (PyError& error) {
        // pyflakes itself failed: what it reported so far proves nothing.
        if (!is_ordinary(error)) throw;
        return Ref::borrow(Py_None);
    }
    return findings;
}

}  // namespace editor::semantic
