#include <Python.h>

#include "editor/host.hpp"
#include "records/files.hpp"

namespace editor::records {

Ref read_text(PyObject* module, PyObject* path) {
    Ref file = call(ns(module, "Path").get(), path);
    Ref read = attr(file.get(), "read_text");
    Ref encoding = str("utf-8");
    return call_kw(read.get(), {}, {{"encoding", encoding.get()}});
}

void write_text(PyObject* file, PyObject* text) {
    Ref write = attr(file, "write_text");
    Ref encoding = str("utf-8");
    (void)call_kw(write.get(), {text}, {{"encoding", encoding.get()}});
}

}  // namespace editor::records
