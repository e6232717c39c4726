// Python-facing glue of the file edits: the type checks before each operation.
#include <Python.h>

#include "edits/edits.hpp"
#include "editor/method.hpp"
#include "module/methods.hpp"

namespace editor::methods {
namespace {

Ref apply_block_checked(PyObject* module, PyObject* root, PyObject* abs_path, PyObject* start_line,
                        PyObject* end_line, PyObject* content, PyObject* mode, PyObject* anchor) {
    constexpr const char* function = edits::apply_block_sig.function;
    require_str(function, "root", root);
    require_str(function, "abs_path", abs_path);
    require_str(function, "content", content);
    require_str(function, "anchor", anchor, true);
    // start_line and end_line are checked where they are used: an anchor overrides both, and the
    // insert modes never look at end_line.
    return edits::apply_block(module, {root, abs_path, start_line, end_line, content, mode, anchor});
}

Ref create_file_checked(PyObject* module, PyObject* root, PyObject* abs_path, PyObject* content) {
    constexpr const char* function = edits::create_file_sig.function;
    require_str(function, "root", root);
    require_str(function, "abs_path", abs_path);
    require_str(function, "content", content);
    return edits::create_file(module, root, abs_path, content);
}

Ref delete_file_checked(PyObject* module, PyObject* root, PyObject* abs_path) {
    constexpr const char* function = edits::delete_file_sig.function;
    require_str(function, "root", root);
    require_str(function, "abs_path", abs_path);
    return edits::delete_file(module, root, abs_path);
}

}  // namespace

PyMethodDef apply_block = method<edits::apply_block_sig, apply_block_checked,
    "Put one block of lines into an existing file and return the receipt.\n"
    "\n"
    "The block replaces lines start_line..end_line (end_line None: one line), or goes\n"
    "above (insert_before) or below (insert_after) line start_line. A non-empty anchor,\n"
    "a snippet occurring exactly once in the file, addresses the lines it spans instead.\n"
    "Every check runs before the one in-place write. Returns {'replaced': removed\n"
    "lines, 'at': line, 'syntax': result of syntax_check} or {'error': message}.">();

PyMethodDef create_file = method<edits::create_file_sig, create_file_checked,
    "Write a new file (and its missing parent directories) under root, then check it.\n"
    "\n"
    "Refuses any path that already exists. Returns {'created': abs_path, 'syntax':\n"
    "result of syntax_check} or {'error': message}.">();

PyMethodDef delete_file = method<edits::delete_file_sig, delete_file_checked,
    "Delete a file, or a directory with everything below it, under root.\n"
    "\n"
    "Returns {'deleted': abs_path, 'was': 'file' or 'directory'} or {'error': message};\n"
    "a removal the system refuses reads 'could not delete ...'. There is no undo.">();

}  // namespace editor::methods
