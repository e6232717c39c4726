#include <Python.h>

#include "edits/edits.hpp"
#include "edits/file_io.hpp"
#include "editor/host/pathlib.hpp"
#include "editor/host/result.hpp"
#include "paths/paths.hpp"

namespace editor::edits {

Ref delete_file(PyObject* module, PyObject* root, PyObject* abs_path) {
    if (!paths::confined(module, root, abs_path)) return refusal("path escapes the project root");
    // The root passes the confinement test (it counts as inside), but deleting it would take the
    // whole project: refused. Asking whether the root lies within the target catches the root
    // however it is spelled (a trailing "/", ".", a link to it).
    if (paths::confined(module, abs_path, root)) {
        return refusal(check(PyUnicode_FromFormat(
            "%S is the project root -- delete the files and directories inside it instead", abs_path)));
    }
    if (!path_is(module, "exists", abs_path)) {
        return refusal(check(PyUnicode_FromFormat("%S does not exist", abs_path)));
    }
    try {
        Ref was = str(remove_below(module, root, abs_path) ? "directory" : "file");
        return result({{"deleted", abs_path}, {"was", was.get()}});
    } catch (const PyError& error) {
        if (!error.matches(PyExc_OSError)) throw;
        return refusal(check(PyUnicode_FromFormat("could not delete %S: %S", abs_path, error.value())));
    }
}

}  // namespace editor::edits
