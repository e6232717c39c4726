// Python-facing glue of the file edits: argument binding, type checks and defaults.
#include <Python.h>

#include "edits/edits.hpp"
#include "editor/method.hpp"
#include "editor/call.hpp"
#include "module/methods.hpp"

namespace editor::methods {
namespace {

Ref apply_block_impl(PyObject* module, const Args& args) {
    static constexpr Signature<7> sig{
        "apply_block", {"root", "abs_path", "start_line", "end_line", "content", "mode", "anchor"}, 5};
    auto [root, abs_path, start_line, end_line, content, mode, anchor] = bind(sig, args);
    require_str(sig.function, "root", root);
    require_str(sig.function, "abs_path", abs_path);
    require_str(sig.function, "content", content);
    Ref default_mode = mode ? Ref() : str("replace");
    if (anchor) require_str(sig.function, "anchor", anchor, true);
    // start_line and end_line are checked where they are used: an anchor overrides both, and the
    // insert modes never look at end_line.
    return edits::apply_block(module, {root, abs_path, start_line, end_line, content,
                                       mode ? mode : default_mode.get(), anchor ? anchor : Py_None});
}

Ref create_file_impl(PyObject* module, const Args& args) {
    static constexpr Signature<3> sig{"create_file", {"root", "abs_path", "content"}};
    auto [root, abs_path, content] = bind(sig, args);
    require_str(sig.function, "root", root);
    require_str(sig.function, "abs_path", abs_path);
    require_str(sig.function, "content", content);
    return edits::create_file(module, root, abs_path, content);
}

Ref delete_file_impl(PyObject* module, const Args& args) {
    static constexpr Signature<2> sig{"delete_file", {"root", "abs_path"}};
    auto [root, abs_path] = bind(sig, args);
    require_str(sig.function, "root", root);
    require_str(sig.function, "abs_path", abs_path);
    return edits::delete_file(module, root, abs_path);
}

}  // namespace

PyMethodDef apply_block = method<apply_block_impl>(
    "apply_block",
    PyDoc_STR("apply_block($module, /, root, abs_path, start_line, end_line, content, mode='replace', "
              "anchor=None)\n--\n\n"
              "Put one block of lines into an existing file and return the receipt.\n"
              "\n"
              "The block replaces lines start_line..end_line (end_line None: one line), or goes\n"
              "above (insert_before) or below (insert_after) line start_line. A non-empty anchor,\n"
              "a snippet occurring exactly once in the file, addresses the lines it spans instead.\n"
              "Every check runs before the one in-place write. Returns {'replaced': removed\n"
              "lines, 'at': line, 'syntax': result of syntax_check} or {'error': message}."));

PyMethodDef create_file = method<create_file_impl>(
    "create_file",
    PyDoc_STR("create_file($module, /, root, abs_path, content)\n--\n\n"
              "Write a new file (and its missing parent directories) under root, then check it.\n"
              "\n"
              "Refuses any path that already exists. Returns {'created': abs_path, 'syntax':\n"
              "result of syntax_check} or {'error': message}."));

PyMethodDef delete_file = method<delete_file_impl>(
    "delete_file",
    PyDoc_STR("delete_file($module, /, root, abs_path)\n--\n\n"
              "Delete a file, or a directory with everything below it, under root.\n"
              "\n"
              "Returns {'deleted': abs_path, 'was': 'file' or 'directory'} or {'error': message};\n"
              "a removal the system refuses reads 'could not delete ...'. There is no undo."));

}  // namespace editor::methods
