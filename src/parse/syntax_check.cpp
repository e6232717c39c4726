// The check that runs after every write. Python source is judged by the host's own compiler, for
// its exact messages; every other language a table names is judged by tree-sitter, absolutely
// for a new file and as a per-kind count delta against the text before an edit, so breakage
// that was already there (a macro tree-sitter cannot read, say) never blocks later edits. Web
// code held in Python strings is checked as a delta only: its classification is a heuristic
// that mislabels prompts and docstrings, and those mislabels are identical before and after.
#include <Python.h>

#include <array>
#include <tuple>

#include "editor/host/ns.hpp"
#include "editor/host/pathlib.hpp"
#include "editor/unpack.hpp"
#include "parse/parse.hpp"

namespace editor::parse {
namespace {

// The text of an f-string: each field formatted with an empty spec, as the host's f-string does.
template <typename... Objects>
Ref fstring(const char* format, Objects... fields) {
    Ref empty = str("");
    std::array<Ref, sizeof...(fields)> texts{check(PyObject_Format(fields, empty.get()))...};
    return std::apply([&](const auto&... text) { return check(PyUnicode_FromFormat(format, text.get()...)); },
                      texts);
}

Ref ok() { return str("ok"); }

// `compile` as the module body's code would find it: a module global first, then the builtins.
Ref host_compile(PyObject* module) {
    Ref found;
    if (check_bool(PyDict_GetItemStringRef(PyModule_GetDict(module), "compile", found.out()))) return found;
    Ref builtins = check(PyEval_GetFrameBuiltins());
    if (check_bool(PyDict_GetItemStringRef(builtins.get(), "compile", found.out()))) return found;
    raise(PyExc_NameError, "name 'compile' is not defined");
}

// The compiler's message for a rejected source, or an empty Ref when it compiles.
Ref python_error(PyObject* module, PyObject* abs_path, PyObject* text) {
    Ref compile = host_compile(module);
    Ref mode = str("exec");
    try {
        Ref code = call(compile.get(), text, abs_path, mode.get());
        return Ref();
    } catch (PyError& error) {
        if (!error.matches(PyExc_SyntaxError)) throw;
        Ref msg = attr(error.value(), "msg");
        Ref lineno = attr(error.value(), "lineno");
        return fstring("SyntaxError: %U (line %U)", msg.get(), lineno.get());
    }
}

// The first key of `after_counts` whose count exceeds the baseline's, in the order the keys
// first appeared in the new text; empty when none rose. Equal or fewer errors pass.
Ref first_increase(PyObject* after_counts, PyObject* before_counts) {
    Ref items = call_method(after_counts, "items");
    Ref each = check(PyObject_GetIter(items.get()));
    Ref item;
    while (check_bool(PyIter_NextItem(each.get(), (item = Ref()).out()))) {
        auto [key, after] = unpack<2>(item.get());
        Ref before = check(PyObject_GetItem(before_counts, key.get()));
        if (check_bool(PyObject_RichCompareBool(after.get(), before.get(), Py_GT))) return std::move(key);
    }
    return Ref();
}

// The key the edit added, as (key, line of its first error in the new text), by a counting scan
// `scan` called as scan(*leading, text). The baseline is scanned only when the new text
// shows an error at all.
template <std::size_t N, typename... Leading>
std::pair<Ref, Ref> added_error(PyObject* module, const Signature<N>& scan, PyObject* after,
                                PyObject* before, Leading... leading) {
    auto [after_counts, after_sample] = unpack<2>(call(ns(module, scan).get(), leading..., after).get());
    if (!truthy(after_counts.get())) return {};
    Ref before_scan = call(ns(module, scan).get(), leading..., before);
    Ref zero = check(PyLong_FromLong(0));
    Ref before_counts = check(PyObject_GetItem(before_scan.get(), zero.get()));
    Ref key = first_increase(after_counts.get(), before_counts.get());
    if (!key) return {};
    Ref line = check(PyObject_GetItem(after_sample.get(), key.get()));
    return {std::move(key), std::move(line)};
}

Ref check_python(PyObject* module, PyObject* abs_path, PyObject* after, PyObject* before) {
    if (Ref message = python_error(module, abs_path, after)) return message;
    if (before == Py_None) return ok();
    auto [key, line] = added_error(module, web_error_counts_sig, after, before);
    if (!key) return ok();
    auto [lang, what] = unpack<2>(key.get());
    return fstring("embedded %U %U (line %U)", lang.get(), what.get(), line.get());
}

Ref check_native(PyObject* module, PyObject* lang, PyObject* after, PyObject* before) {
    if (before == Py_None) {
        Ref error = call(ns(module, treesitter_error_sig).get(), lang, after);
        if (error.get() == Py_None) return ok();
        auto [rel_line, what] = unpack<2>(error.get());
        return fstring("%U %U (line %U)", lang, what.get(), rel_line.get());
    }
    auto [what, line] = added_error(module, treesitter_error_counts_sig, after, before, lang);
    if (!what) return ok();
    return fstring("%U %U (line %U)", lang, what.get(), line.get());
}

}  // namespace

Ref syntax_check(PyObject* module, PyObject* abs_path, PyObject* before_text) {
    Ref path = make_path(module, abs_path);
    Ref after = read_utf8_if_readable(path.get());
    if (!after) return Ref::borrow(Py_None);
    Ref suffix = attr(path.get(), "suffix");
    Ref ext = call_method(suffix.get(), "lower");
    Ref python = str(".py");
    if (check_bool(PyObject_RichCompareBool(ext.get(), python.get(), Py_EQ))) {
        return check_python(module, abs_path, after.get(), before_text);
    }
    Ref lang = call(ns(module, native_language_sig).get(), ext.get());
    if (lang.get() == Py_None) return lang;
    return check_native(module, lang.get(), after.get(), before_text);
}

}  // namespace editor::parse
