#include <Python.h>

#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "editor/unpack.hpp"
#include "semantic/finally.hpp"
#include "semantic/semantic.hpp"

namespace editor::semantic {
namespace {

// Long enough for a big translation unit on a loaded machine; a hung compiler must not stall
// the session indefinitely.
constexpr long time_limit_seconds = 60;

bool is_java(PyObject* lang) {
    Ref java = str("java");
    return check_bool(PyObject_RichCompareBool(lang, java.get(), Py_EQ));
}

void append_str(PyObject* list, const char* text) { check(PyList_Append(list, str(text).get())); }

// exe, the language's fixed flags (outdir set: javac writing its classes there), the build
// context's arguments, then the file.
Ref command_line(PyObject* exe, PyObject* cfg, PyObject* abs_path, PyObject* args, PyObject* outdir) {
    Ref cmd = check(PyList_New(0));
    check(PyList_Append(cmd.get(), exe));
    if (outdir) {
        for (const char* flag : {"-proc:none", "-nowarn", "-d"}) append_str(cmd.get(), flag);
        check(PyList_Append(cmd.get(), outdir));
    } else {
        append_str(cmd.get(), "-fsyntax-only");
        check(PyList_Append(cmd.get(), check(PyMapping_GetItemString(cfg, "std")).get()));
        append_str(cmd.get(), "-w");
        append_str(cmd.get(), "-fno-diagnostics-color");
    }
    check(PyList_Extend(cmd.get(), args));
    check(PyList_Append(cmd.get(), check(PyObject_Str(abs_path)).get()));
    return cmd;
}

// The finished run, or an empty Ref when it could not be evaluated: the compiler is missing or
// not executable, the working directory is gone, or the time limit passed (the host kills the
// child then). Anything else propagates.
Ref run(PyObject* module, PyObject* cmd, PyObject* cwd) {
    Ref timeout = check(PyLong_FromLong(time_limit_seconds));
    Ref replace = str("replace");
    try {
        return call_kw(ns_attr(module, names::subprocess, "run").get(), {cmd},
                       {{"cwd", cwd},
                        {"capture_output", Py_True},
                        {"text", Py_True},
                        {"timeout", timeout.get()},
                        {"errors", replace.get()}});
    } catch (PyError& error) {
        if (error.matches(PyExc_OSError) ||
            error.matches(ns_attr(module, names::subprocess, "SubprocessError").get())) {
            return Ref();
        }
        throw;
    }
}

// Every error line of the output, standard error first: (message, line) pairs, or None when
// the compiler failed without a single line we can read (a crash, an unknown format).
Ref scan(PyObject* diag, PyObject* completed) {
    Ref streams = check(PyList_New(0));
    for (const char* name : {"stderr", "stdout"}) {
        Ref captured = attr(completed, name);
        if (!truthy(captured.get())) captured = str("");
        check(PyList_Append(streams.get(), captured.get()));
    }
    Ref newline = str("\n");
    Ref text = check(PyUnicode_Join(newline.get(), streams.get()));
    Ref matches = check(PyObject_GetIter(call_method(diag, "finditer", text.get()).get()));
    Ref errors = check(PyList_New(0));
    Ref msg_group = str("msg");
    Ref line_group = str("line");
    Ref match;
    while (check_bool(PyIter_NextItem(matches.get(), (match = Ref()).out()))) {
        Ref msg = call_method(call_method(match.get(), "group", msg_group.get()).get(), "strip");
        Ref line = check(PyNumber_Long(call_method(match.get(), "group", line_group.get()).get()));
        check(PyList_Append(errors.get(), check(PyTuple_Pack(2, msg.get(), line.get())).get()));
    }
    if (PyList_GET_SIZE(errors.get()) == 0) return Ref::borrow(Py_None);
    return errors;
}

}  // namespace

Ref compile_errors(PyObject* module, PyObject* exe, PyObject* lang, PyObject* cfg, PyObject* abs_path,
                   PyObject* ctx) {
    auto [args, cwd] = unpack<2>(ctx);
    // A fresh scratch directory per javac run, so two runs never share class output; it is
    // removed whatever happens after it exists (also if the command cannot even be built).
    Ref outdir;
    if (is_java(lang)) {
        Ref prefix = str("orvel_jc_");
        outdir = call_kw(ns_attr(module, names::tempfile, "mkdtemp").get(), {}, {{"prefix", prefix.get()}});
    }
    Ref completed = with_finally(
        [&] {
            Ref cmd = command_line(exe, cfg, abs_path, args.get(), outdir.get());
            return run(module, cmd.get(), cwd.get());
        },
        [&] {
            if (!outdir) return;
            Ref rmtree = ns_attr(module, names::shutil, "rmtree");
            (void)call_kw(rmtree.get(), {outdir.get()}, {{"ignore_errors", Py_True}});
        });
    if (!completed) return Ref::borrow(Py_None);
    Ref returncode = attr(completed.get(), "returncode");
    Ref zero = check(PyLong_FromLong(0));
    if (check_bool(PyObject_RichCompareBool(returncode.get(), zero.get(), Py_EQ))) return check(PyList_New(0));
    return scan(check(PyMapping_GetItemString(cfg, "diag")).get(), completed.get());
}

}  // namespace editor::semantic
