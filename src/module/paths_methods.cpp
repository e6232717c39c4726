// Python-facing glue of the path operations.
#include <Python.h>

#include "editor/boundary.hpp"
#include "module/methods.hpp"
#include "paths/paths.hpp"

namespace editor::methods {
namespace {

Ref within_root_impl(PyObject* module, const Args& args) {
    static constexpr Signature<2> sig{"_within_root", {"root", "path"}};
    auto [root, path] = bind(sig, args);
    return Ref::borrow(paths::within_root(module, root, path) ? Py_True : Py_False);
}

Ref resolve_target_impl(PyObject* module, const Args& args) {
    static constexpr Signature<3> sig{"resolve_target", {"root", "path_str", "known_paths"}};
    auto [root, path_str, known_paths] = bind(sig, args);
    return paths::resolve_target(module, root, path_str, known_paths);
}

}  // namespace

PyMethodDef within_root = {
    "_within_root", _PyCFunction_CAST(entry<within_root_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("_within_root($module, /, root, path)\n--\n\n"
              "True when path is the root itself or lies below it, after resolving symbolic\n"
              "links in both. A sibling whose name merely starts with the root's is outside.")};

PyMethodDef resolve_target = {
    "resolve_target", _PyCFunction_CAST(entry<resolve_target_impl>), METH_FASTCALL | METH_KEYWORDS,
    PyDoc_STR("resolve_target($module, /, root, path_str, known_paths)\n--\n\n"
              "Turn a model-written path into one absolute path under root.\n"
              "\n"
              "path_str matches a known file id when, with backslashes as '/' and lower-cased,\n"
              "it equals the id or is a trailing part of it starting after a '/'. One match gives\n"
              "that file's absolute path; several give {'error', 'candidates'}; none gives the\n"
              "path joined to root, or a refusal when that lies outside the root.")};

}  // namespace editor::methods
