// Confinement of writes to the project root, and resolution of model-written paths.
#pragma once
#include <Python.h>

#include "editor/args.hpp"
#include "editor/ref.hpp"

namespace editor::paths {

// The Python declarations: names, parameters and defaults, read by the bindings and by the
// operations that call one another through the module namespace.
inline constexpr Signature within_root_sig{"_within_root", "root", "path"};
inline constexpr Signature resolve_target_sig{"resolve_target", "root", "path_str", "known_paths"};

// True when `path` is the root itself or lies below it, symbolic links resolved.
bool within_root(PyObject* module, PyObject* root, PyObject* path);

// The module's current `_within_root(root, path)`, looked up at the call, as a C++ bool: every
// write asks it about its own target.
bool confined(PyObject* module, PyObject* root, PyObject* path);

// An absolute path (str) for a model-supplied path, or a refusal dict.
Ref resolve_target(PyObject* module, PyObject* root, PyObject* path_str, PyObject* known_paths);

// The text after the last "/" or "\" of a str (the whole str when it has neither). Anything
// else goes through text.split("\\")[-1].split("/")[-1], and fails as that does.
Ref base_name(PyObject* text);

}  // namespace editor::paths
