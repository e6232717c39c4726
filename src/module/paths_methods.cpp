// Python-facing glue of the path operations.
#include <Python.h>

#include "editor/method.hpp"
#include "module/methods.hpp"
#include "paths/paths.hpp"

namespace editor::methods {

PyMethodDef within_root = method<paths::within_root_sig, paths::within_root,
    "True when path is the root itself or lies below it, after resolving symbolic\n"
    "links in both. A sibling whose name merely starts with the root's is outside.">();

PyMethodDef resolve_target = method<paths::resolve_target_sig, paths::resolve_target,
    "Turn a model-written path into one absolute path under root.\n"
    "\n"
    "path_str matches a known file id when, with backslashes as '/' and lower-cased,\n"
    "it equals the id or is a trailing part of it starting after a '/'. One match gives\n"
    "that file's absolute path; several give {'error', 'candidates'}; none gives the\n"
    "path joined to root, or a refusal when that lies outside the root.">();

}  // namespace editor::methods
