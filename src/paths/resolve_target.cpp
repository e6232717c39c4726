#include <Python.h>

#include "editor/host.hpp"
#include "editor/result.hpp"
#include "paths/paths.hpp"

namespace editor::paths {
namespace {

constexpr Py_ssize_t max_candidates = 8;

// The matching form: backslashes as "/", then the host's full Unicode lower-casing. The str
// methods are called by name so any str the host hands us behaves as it would in Python.
Ref matching_form(PyObject* path) {
    Ref backslash = str("\\");
    Ref slash = str("/");
    Ref replaced = call_method(path, "replace", backslash.get(), slash.get());
    return call_method(replaced.get(), "lower");
}

Ref hits_for(PyObject* path_str, PyObject* known_paths) {
    Ref needle = matching_form(path_str);
    Ref slash = str("/");
    // "/" + needle, made when an entry first needs it. A str subclass may answer lower() with
    // anything: the concatenation refuses a needle that is not a str with the host's TypeError.
    Ref suffix;
    Ref hits = check(PyList_New(0));
    Ref entries = check(PyObject_GetIter(known_paths));
    Ref entry;
    while (check_bool(PyIter_NextItem(entries.get(), (entry = Ref()).out()))) {
        Ref form = matching_form(entry.get());
        // An exact match and a suffix match at a "/" boundary count alike.
        if (check_bool(PyObject_RichCompareBool(form.get(), needle.get(), Py_EQ))) {
            check(PyList_Append(hits.get(), entry.get()));
            continue;
        }
        if (!suffix) suffix = check(PyUnicode_Concat(slash.get(), needle.get()));
        if (check_value(PyUnicode_Tailmatch(form.get(), suffix.get(), 0, PY_SSIZE_T_MAX, 1)) == 1) {
            check(PyList_Append(hits.get(), entry.get()));
        }
    }
    return hits;
}

}  // namespace

Ref resolve_target(PyObject* module, PyObject* root, PyObject* path_str, PyObject* known_paths) {
    Ref hits = hits_for(path_str, known_paths);
    const Py_ssize_t count = PyList_GET_SIZE(hits.get());
    Ref join = ns_attr(module, "os", "path", "join");
    Ref abspath = ns_attr(module, "os", "path", "abspath");
    if (count == 1) {
        // No confinement test here: the write operations make their own on the result.
        Ref joined = call(join.get(), root, PyList_GET_ITEM(hits.get(), 0));
        return call(abspath.get(), joined.get());
    }
    if (count > 1) {
        Ref result = refusal(check(PyUnicode_FromFormat("'%S' matches %zd files -- be more specific",
                                                        path_str, count)));
        Ref candidates = check(PyList_GetSlice(hits.get(), 0, max_candidates));
        check(PyDict_SetItemString(result.get(), "candidates", candidates.get()));
        return result;
    }
    Ref candidate = call(join.get(), root, path_str);
    if (!confined(module, root, candidate.get())) {
        return refusal(check(PyUnicode_FromFormat(
            "'%S' is outside the project root -- edits are confined to it", path_str)));
    }
    return call(abspath.get(), candidate.get());
}

}  // namespace editor::paths
