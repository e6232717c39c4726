// Python-facing glue of the path operations.
#include <Python.h>

#include "editor/method.hpp"
#include "module/methods.hpp"
#include "paths/paths.hpp"

namespace editor::methods {
namespace {

constexpr Signature<2> within_root_sig{"_within_root", {"root", "path"}};
constexpr Signature<3> resolve_target_sig{"resolve_target", {"root", "path_str", "known_paths"}};

}  // namespace

PyMethodDef within_root = method<within_root_sig, paths::within_root>(
    PyDoc_STR("_within_root($module, /, root, path)\n--\n\n"
              "True when path is the root itself or lies below it, after resolving symbolic\n"
              "links in both. A sibling whose name merely starts with the root's is outside."));

PyMethodDef resolve_target = method<resolve_target_sig, paths::resolve_target>(
    PyDoc_STR("resolve_target($module, /, root, path_str, known_paths)\n--\n\n"
              "Turn a model-written path into one absolute path under root.\n"
              "\n"
              "path_str matches a known file id when, with backslashes as '/' and lower-cased,\n"
              "it equals the id or is a trailing part of it starting after a '/'. One match gives\n"
              "that file's absolute path; several give {'error', 'candidates'}; none gives the\n"
              "path joined to root, or a refusal when that lies outside the root."));

}  // namespace editor::methods
