// Whole-file text I/O through the host's pathlib, as the session's own tools read and write:
// strict UTF-8, universal newlines on reading.
#pragma once
#include <Python.h>

#include "editor/ref.hpp"

namespace editor::records {

// Path(path).read_text(encoding="utf-8"), with the module's current `Path`.
Ref read_text(PyObject* module, PyObject* path);

// file.write_text(text, encoding="utf-8") on a Path object.
void write_text(PyObject* file, PyObject* text);

}  // namespace editor::records
