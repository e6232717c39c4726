// The pathlib operations the subsystems share, through the host's own `Path` (the module's
// current binding), so suffixes, joins and text I/O behave exactly as the host's do: strict
// UTF-8 and universal newlines on reads.
#pragma once
#include <Python.h>

#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"

namespace editor {

// `os.path.<test>(path)` of the module's current `os` ("exists", "isdir"), as a C++ bool.
[[nodiscard]] inline bool path_is(PyObject* module, const char* test, PyObject* path) {
    return truthy(call(ns_attr(module, names::os, "path", test).get(), path).get());
}

[[nodiscard]] inline Ref make_path(PyObject* module, PyObject* path) {
    return call(ns(module, names::Path).get(), path);
}

// path / name
[[nodiscard]] inline Ref join(PyObject* path, const char* name) {
    Ref part = str(name);
    return check(PyNumber_TrueDivide(path, part.get()));
}

// path.<predicate>(), e.g. "is_dir" or "exists".
[[nodiscard]] inline bool holds(PyObject* path, const char* predicate) {
    Ref answer = call_method(path, predicate);
    return truthy(answer.get());
}

// path.suffix.lower(): the last component's extension with its dot, in lower case.
[[nodiscard]] inline Ref lower_suffix(PyObject* path) {
    Ref suffix = attr(path, "suffix");
    return call_method(suffix.get(), "lower");
}

[[nodiscard]] inline Ref text_of(PyObject* path) { return check(PyObject_Str(path)); }

// path.read_text(encoding="utf-8")
[[nodiscard]] inline Ref read_utf8(PyObject* path) {
    Ref encoding = str("utf-8");
    return call_kw(attr(path, "read_text").get(), {}, {{"encoding", encoding.get()}});
}

// The file's text, or an empty Ref when it cannot be read (an OSError: missing, a directory,
// no permission). Text that is not UTF-8 still raises: the checks never guess an encoding.
[[nodiscard]] inline Ref read_utf8_if_readable(PyObject* path) {
    try {
        return read_utf8(path);
    } catch (PyError& error) {
        if (!error.matches(PyExc_OSError)) throw;
        return Ref();
    }
}

// path.write_text(text, encoding="utf-8")
inline void write_utf8(PyObject* path, PyObject* text) {
    Ref encoding = str("utf-8");
    (void)call_kw(attr(path, "write_text").get(), {text}, {{"encoding", encoding.get()}});
}

}  // namespace editor
