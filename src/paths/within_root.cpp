#include <Python.h>

#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "paths/paths.hpp"

namespace editor::paths {
namespace {

// normcase(realpath(path)): absolute, every link resolved, "." and ".." collapsed. The host's
// own functions do it so the answer matches what the host's file operations will reach.
Ref confinement_form(PyObject* module, PyObject* path) {
    Ref real = call(ns_attr(module, names::os, "path", "realpath").get(), path);
    Ref form = call(ns_attr(module, names::os, "path", "normcase").get(), real.get());
    if (!PyUnicode_Check(form.get())) {
        // bytes paths would compare against a str separator below; refuse them plainly.
        raise_wrong_type("path", "str", path);
    }
    return form;
}

}  // namespace

bool within_root(PyObject* module, PyObject* root, PyObject* path) {
    Ref r = confinement_form(module, root);
    Ref p = confinement_form(module, path);
    if (check_bool(PyObject_RichCompareBool(p.get(), r.get(), Py_EQ))) return true;
    // The separator keeps a sibling such as /work/proj2 outside the root /work/proj.
    Ref prefix = check(PyUnicode_FromFormat("%U/", r.get()));
    return check_value(PyUnicode_Tailmatch(p.get(), prefix.get(), 0, PY_SSIZE_T_MAX, -1)) == 1;
}

bool confined(PyObject* module, PyObject* root, PyObject* path) {
    Ref inside = call(ns(module, within_root_sig).get(), root, path);
    return truthy(inside.get());
}

}  // namespace editor::paths
