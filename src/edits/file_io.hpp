// The file-system work of the edits: the host's own reads and path tests, and the writes, each
// confined to the project root.
#pragma once
#include <Python.h>

#include <span>
#include <string_view>

#include "editor/ref.hpp"

namespace editor::edits {

// The UTF-8 bytes of a str, valid while the str lives. Raises the host's UnicodeEncodeError for
// text UTF-8 cannot hold (lone surrogates).
std::string_view utf8_of(PyObject* text);

// The writes below the project root. Each reaches its target from a descriptor of `root`
// without following any link out of it (beneath.hpp), so a path that leaves the root at the
// moment of the write fails with the host's OSError for EXDEV and nothing is written. Failures
// raise the host's OSError subclass for the errno, naming the path as the host's own call would.

// Replaces the content of the existing file at `path` with the concatenated pieces: opened for
// writing and truncated, never replaced by another file, so its inode, mode bits and links stay.
void write_in_place(PyObject* module, PyObject* root, PyObject* path, std::span<const std::string_view> pieces);

// Makes the missing parent directories of `path` (as os.makedirs(..., exist_ok=True) would) and
// writes `content` to it as a new file (created, or truncated, as Path.write_text would).
void write_new(PyObject* module, PyObject* root, PyObject* path, std::string_view content);

// Removes `path`: a directory with everything below it, never descending through a link, or
// the name of anything else. A link to a directory raises OSError and nothing is removed.
// True when a directory was removed.
bool remove_below(PyObject* module, PyObject* root, PyObject* path);

}  // namespace editor::edits
