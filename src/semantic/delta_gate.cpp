#include <Python.h>

#include "editor/closure.hpp"
#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "editor/host/pathlib.hpp"
#include "editor/method.hpp"
#include "editor/unpack.hpp"
#include "parse/parse.hpp"
#include "paths/paths.hpp"
#include "semantic/finally.hpp"
#include "semantic/semantic.hpp"

namespace editor::semantic {
namespace {

// What errfn(p) of a compiled language closes over, as found when the gate reached the file, so
// the run on the earlier text uses the compiler and build context of the edited one.
enum class Compiler { module, exe, lang, cfg, ctx, count };

// `_compile_errors` itself is looked up at each call, like any module function.
Ref compiler_errfn(PyObject* self, PyObject* p) {
    Ref compile_errors = ns(member(self, Compiler::module), compile_errors_sig);
    return call(compile_errors.get(), member(self, Compiler::exe), member(self, Compiler::lang),
                member(self, Compiler::cfg), p, member(self, Compiler::ctx));
}

constexpr Signature errfn_sig{"errfn", "p"};

PyMethodDef compiler_errfn_def = closure_method<errfn_sig, compiler_errfn,
    "Compiler errors of the file at p, in the build context found for it.">();

// How often each message occurs; lines play no part, so an error that moved still cancels.
Ref message_counts(PyObject* errors) {
    Ref counts = check(PyDict_New());
    Ref pairs = check(PyObject_GetIter(errors));
    Ref pair;
    while (check_bool(PyIter_NextItem(pairs.get(), (pair = Ref()).out()))) {
        auto [msg, line] = unpack<2>(pair.get());
        Ref count;
        const long seen = check_bool(PyDict_GetItemRef(counts.get(), msg.get(), count.out()))
                              ? check_value(PyLong_AsLong(count.get()))
                              : 0;
        check(PyDict_SetItem(counts.get(), msg.get(), check(PyLong_FromLong(seen + 1)).get()));
    }
    return counts;
}

long count_of(PyObject* counts, PyObject* msg) {
    Ref count;
    if (!check_bool(PyDict_GetItemRef(counts, msg, count.out()))) return 0;
    return check_value(PyLong_AsLong(count.get()));
}

// The first error of `after` whose message occurs more often than in `before`: where a message
// occurs k times before, its (k+1)-th occurrence now is the one named, with its own line.
Ref first_new_error(PyObject* label, PyObject* after, PyObject* before) {
    Ref earlier = message_counts(before);
    Ref running = check(PyDict_New());
    Ref pairs = check(PyObject_GetIter(after));
    Ref pair;
    while (check_bool(PyIter_NextItem(pairs.get(), (pair = Ref()).out()))) {
        auto [msg, line] = unpack<2>(pair.get());
        const long now = count_of(running.get(), msg.get()) + 1;
        check(PyDict_SetItem(running.get(), msg.get(), check(PyLong_FromLong(now)).get()));
        if (now > count_of(earlier.get(), msg.get())) {
            return check(PyUnicode_FromFormat("%S error: %S (line %S)", label, msg.get(), line.get()));
        }
    }
    return Ref::borrow(Py_None);
}

bool still_exists(PyObject* module, PyObject* abs_path) {
    try {
        return path_is(module, "exists", abs_path);
    } catch (PyError& error) {
        if (!error.matches(PyExc_OSError)) throw;
        return false;
    }
}

}  // namespace

Ref semantic_errfn(PyObject* module, PyObject* abs_path, PyObject* lang) {
    Ref languages = ns(module, names::COMPILER_LANGS);
    if (check_bool(PySequence_Contains(languages.get(), lang))) {
        Ref cfg = check(PyObject_GetItem(languages.get(), lang));
        Ref candidates = check(PyMapping_GetItemString(cfg.get(), "exe"));
        Ref exe = call(ns(module, find_exe_sig).get(), candidates.get());
        if (exe.get() == Py_None) return Ref::borrow(Py_None);
        Ref context = check(PyMapping_GetItemString(cfg.get(), "context"));
        Ref ctx = call(context.get(), abs_path);
        if (ctx.get() == Py_None) return Ref::borrow(Py_None);
        Ref closure = make_closure<Compiler>({module, exe.get(), lang, cfg.get(), ctx.get()});
        Ref errfn = make_function(compiler_errfn_def, closure.get(), module);
        Ref label = check(PyMapping_GetItemString(cfg.get(), "label"));
        return check(PyTuple_Pack(2, label.get(), errfn.get()));
    }
    Ref python = str("python");
    if (check_bool(PyObject_RichCompareBool(lang, python.get(), Py_EQ))) {
        return check(PyTuple_Pack(2, python.get(), ns(module, pyflakes_errors_sig).get()));
    }
    return Ref::borrow(Py_None);
}

Ref semantic_delta_check(PyObject* module, PyObject* abs_path, PyObject* lang, PyObject* before_text) {
    if (before_text == Py_None) return Ref::borrow(Py_None);
    Ref resolved = call(ns(module, semantic_errfn_sig).get(), abs_path, lang);
    if (resolved.get() == Py_None) return Ref::borrow(Py_None);
    auto [label, errfn] = unpack<2>(resolved.get());
    // A clean file, or one that cannot be evaluated, costs one run.
    Ref after = call(errfn.get(), abs_path);
    if (!truthy(after.get())) return Ref::borrow(Py_None);
    Ref path = make_path(module, abs_path);
    Ref current = read_utf8_if_readable(path.get());
    if (!current) return Ref::borrow(Py_None);
    // The earlier text is judged at the same path, so includes, packages and class paths
    // resolve as they do for the current one; the current text goes back on every path.
    Ref before = with_finally(
        [&] {
            write_utf8(path.get(), before_text);
            return call(errfn.get(), abs_path);
        },
        [&] { write_utf8(path.get(), current.get()); });
    if (before.get() == Py_None) return Ref::borrow(Py_None);
    return first_new_error(label.get(), after.get(), before.get());
}

Ref commit_time_check(PyObject* module, PyObject* touched) {
    Ref results = check(PyList_New(0));
    Ref entries = check(PyObject_GetIter(call_method(touched, "items").get()));
    Ref entry;
    while (check_bool(PyIter_NextItem(entries.get(), (entry = Ref()).out()))) {
        auto [abs_path, before_text] = unpack<2>(entry.get());
        if (!still_exists(module, abs_path.get())) continue;
        Ref suffix = lower_suffix(make_path(module, abs_path.get()).get());
        Ref lang = call(ns(module, parse::native_language_sig).get(), suffix.get());
        if (lang.get() == Py_None) continue;
        Ref err = call(ns(module, semantic_delta_check_sig).get(), abs_path.get(), lang.get(), before_text.get());
        if (!PyUnicode_Check(err.get()) || PyUnicode_GET_LENGTH(err.get()) == 0) continue;
        Ref name = paths::base_name(abs_path.get());
        check(PyList_Append(results.get(), check(PyUnicode_FromFormat("%U: %U", name.get(), err.get())).get()));
    }
    return results;
}

}  // namespace editor::semantic
