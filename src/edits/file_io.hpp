// The file-system work of the edits: the host's own reads and path tests, and the one in-place
// write of an edited file.
#pragma once
#include <Python.h>

#include <span>
#include <string_view>

#include "editor/ref.hpp"

namespace editor::edits {

// `os.path.<test>(path)` of the module's current `os` ("exists", "isdir"), as a C++ bool.
bool path_is(PyObject* module, const char* test, PyObject* path);

// The UTF-8 bytes of a str, valid while the str lives. Raises the host's UnicodeEncodeError for
// text UTF-8 cannot hold (lone surrogates).
std::string_view utf8_of(PyObject* text);

// Replaces the content of the existing file at `path` with the concatenated pieces: opened for
// writing and truncated, never replaced by another file, so its inode, mode bits and links stay.
// Failures raise the host's OSError subclass for the errno, naming the path as `open` would.
void write_in_place(PyObject* path, std::span<const std::string_view> pieces);

}  // namespace editor::edits
