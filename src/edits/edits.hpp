// The file edits: the block edit of an existing file, and the creation and deletion of files.
// Each validates everything first, touches the disk once, and returns a plain dict: its receipt
// or a refusal {"error": message}.
#pragma once
#include <Python.h>

#include "editor/args.hpp"
#include "editor/ref.hpp"

namespace editor::edits {

// The Python declarations: names, parameters and defaults, read by the bindings and by the
// operations that call one another through the module namespace.
inline constexpr Signature apply_block_sig{"apply_block",     "root",    "abs_path",
                                           "start_line",      "end_line", "content",
                                           Param{"mode", "'replace'"}, Param{"anchor", "None"}};
inline constexpr Signature create_file_sig{"create_file", "root", "abs_path", "content"};
inline constexpr Signature delete_file_sig{"delete_file", "root", "abs_path"};

// The arguments of one block edit, borrowed; `mode` and `anchor` carry their defaults already.
struct BlockEdit {
    PyObject* root;
    PyObject* abs_path;
    PyObject* start_line;
    PyObject* end_line;
    PyObject* content;
    PyObject* mode;
    PyObject* anchor;
};

Ref apply_block(PyObject* module, const BlockEdit& edit);
Ref create_file(PyObject* module, PyObject* root, PyObject* abs_path, PyObject* content);
Ref delete_file(PyObject* module, PyObject* root, PyObject* abs_path);

}  // namespace editor::edits
