#include <Python.h>

#include "edits/edits.hpp"
#include "edits/file_io.hpp"
#include "editor/host/pathlib.hpp"
#include "editor/host/result.hpp"
#include "parse/parse.hpp"
#include "paths/paths.hpp"

namespace editor::edits {

Ref create_file(PyObject* module, PyObject* root, PyObject* abs_path, PyObject* content) {
    if (!paths::confined(module, root, abs_path)) return refusal("path escapes the project root");
    // exists() follows links, so a link to anything that exists is refused with the rest; every
    // change to an existing file goes through the block edit and its receipt.
    if (path_is(module, "exists", abs_path)) {
        return refusal(check(PyUnicode_FromFormat("%S already exists -- use edit_lines to change it", abs_path)));
    }
    // Content UTF-8 cannot hold raises here, before any directory or the file is made.
    write_new(module, root, abs_path, utf8_of(content));
    // A new file has no text before the edit: the check is absolute, not a delta.
    Ref syntax = call(ns(module, parse::syntax_check_sig).get(), abs_path);
    return result({{"created", abs_path}, {"syntax", syntax.get()}});
}

}  // namespace editor::edits
