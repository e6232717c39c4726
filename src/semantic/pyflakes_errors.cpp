#include <Python.h>

#include "editor/args.hpp"
#include "editor/boundary.hpp"
#include "editor/host/ns.hpp"
#include "editor/host/pathlib.hpp"
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

// The reporter's methods. Their `self` is the (findings, module) pair of one call, so each call
// collects into its own list and the module keeps nothing between calls.
Ref flake(PyObject* self, const Args& args) {
    static constexpr Signature<1> sig{"flake", {"m"}};
    auto [m] = bind(sig, args);
    PyObject* findings = PyTuple_GET_ITEM(self, 0);
    PyObject* module = PyTuple_GET_ITEM(self, 1);
    // The exact class: style findings share base classes with the errors.
    Ref kind = check(PyType_GetName(Py_TYPE(m)));
    if (!check_bool(PySequence_Contains(ns(module, "_PYFLAKES_ERROR_TYPES").get(), kind.get()))) return Ref::borrow(Py_None);
    Ref text = message_text(m);
    Ref line = attr(m, "lineno");
    check(PyList_Append(findings, check(PyTuple_Pack(2, text.get(), line.get())).get()));
    return Ref::borrow(Py_None);
}

// Syntax errors are the syntax check's business, and pyflakes' own failures make the whole
// analysis void anyway (it raises then): both reports are ignored.
Ref unexpected_error(PyObject*, const Args& args) {
    static constexpr Signature<2> sig{"unexpectedError", {"filename", "msg"}};
    (void)bind(sig, args);
    return Ref::borrow(Py_None);
}

Ref syntax_error(PyObject*, const Args& args) {
    static constexpr Signature<5> sig{"syntaxError", {"filename", "msg", "lineno", "offset", "text"}};
    (void)bind(sig, args);
    return Ref::borrow(Py_None);
}

PyMethodDef reporter_methods[] = {
    {"flake", _PyCFunction_CAST(entry<flake>), METH_FASTCALL | METH_KEYWORDS,
     PyDoc_STR("flake($self, /, m)\n--\n\nRecord m when its class is one of the semantic errors.")},
    {"unexpectedError", _PyCFunction_CAST(entry<unexpected_error>), METH_FASTCALL | METH_KEYWORDS,
     PyDoc_STR("unexpectedError($self, /, filename, msg)\n--\n\nIgnored.")},
    {"syntaxError", _PyCFunction_CAST(entry<syntax_error>), METH_FASTCALL | METH_KEYWORDS,
     PyDoc_STR("syntaxError($self, /, filename, msg, lineno, offset, text)\n--\n\nIgnored.")},
};

// A reporter class of its own for one call, made the way a class statement makes one. Built-in
// functions do not bind to instances, so the methods keep the call's pair as their `self`.
Ref reporter_class(PyObject* module, PyObject* findings) {
    Ref closure = check(PyTuple_Pack(2, findings, module));
    Ref module_name = check(PyModule_GetNameObject(module));
    Ref body = check(PyDict_New());
    check(PyDict_SetItemString(body.get(), "__module__", module_name.get()));
    check(PyDict_SetItemString(body.get(), "__qualname__", str("_pyflakes_errors.<locals>._Collector").get()));
    check(PyDict_SetItemString(body.get(), "__doc__", str("Collects one file's pyflakes errors.").get()));
    for (PyMethodDef& def : reporter_methods) {
        Ref method = check(PyCFunction_NewEx(&def, closure.get(), module_name.get()));
        check(PyDict_SetItemString(body.get(), def.ml_name, method.get()));
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
