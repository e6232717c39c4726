// The constant tables of the semantic checks.
#include <Python.h>

#include <array>
#include <initializer_list>

#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "module/constants.hpp"
#include "semantic/semantic.hpp"

namespace editor::module {
namespace {

Ref compile(PyObject* module, const char* pattern, PyObject* flags = nullptr) {
    Ref text = str(pattern);
    Ref re_compile = ns_attr(module, names::re, "compile");
    return flags ? call(re_compile.get(), text.get(), flags) : call(re_compile.get(), text.get());
}

Ref set_of(std::initializer_list<const char*> items) {
    Ref set = check(PySet_New(nullptr));
    for (const char* item : items) check(PySet_Add(set.get(), str(item).get()));
    return set;
}

struct Language {
    const char* key;
    std::array<const char*, 3> exe;          // candidates, most preferred first; nullptr pads
    const char* std;                          // nullptr: the compiler takes no standard flag
    const char* diag;                         // names bound earlier in the module body
    const char* context;
    const char* label;
};

Ref str_or_none(const char* text) { return text ? str(text) : Ref::borrow(Py_None); }

Ref language_entry(PyObject* module, const Language& language) {
    Ref exe = check(PyList_New(0));
    for (const char* name : language.exe) {
        if (name) check(PyList_Append(exe.get(), str(name).get()));
    }
    exe = check(PyList_AsTuple(exe.get()));
    Ref entry = check(PyDict_New());
    check(PyDict_SetItemString(entry.get(), "exe", exe.get()));
    check(PyDict_SetItemString(entry.get(), "std", str_or_none(language.std).get()));
    check(PyDict_SetItemString(entry.get(), "diag", ns(module, language.diag).get()));
    check(PyDict_SetItemString(entry.get(), "context", ns(module, language.context).get()));
    check(PyDict_SetItemString(entry.get(), "label", str(language.label).get()));
    return entry;
}

}  // namespace

Ref gcc_diag(PyObject* module) {
    return compile(module, R"(:(?P<line>\d+):\d+:\s*(?:fatal\s+)?error:\s*(?P<msg>.+))");
}

Ref javac_diag(PyObject* module) { return compile(module, R"(:(?P<line>\d+):\s*error:\s*(?P<msg>.+))"); }

Ref cpp_src_ext(PyObject*) { return set_of({".c", ".cxx", ".c++", ".cc", ".cpp", ".cp"}); }

Ref pkg_re(PyObject* module) {
    return compile(module, R"(^\s*package\s+([\w.]+)\s*;)", ns_attr(module, names::re, "M").get());
}

// Holds the pattern and context-function objects themselves, so it must be built after them.
Ref compiler_langs(PyObject* module) {
    static constexpr const char* gcc = names::GCC_DIAG;
    static constexpr const char* cpp = semantic::cpp_context_sig.function;
    const Language languages[] = {
        {"cpp", {"c++", "g++", "clang++"}, "-std=gnu++17", gcc, cpp, "c++"},
        {"c", {"cc", "gcc", "clang"}, "-std=gnu11", gcc, cpp, "c"},
        {"java", {"javac"}, nullptr, names::JAVAC_DIAG, semantic::java_context_sig.function, "java"},
    };
    Ref table = check(PyDict_New());
    for (const Language& language : languages) {
        check(PyDict_SetItemString(table.get(), language.key, language_entry(module, language).get()));
    }
    return table;
}

Ref pyflakes_error_types(PyObject*) {
    return set_of({"UndefinedName", "UndefinedLocal", "UndefinedExport", "DuplicateArgument",
                   "ReturnOutsideFunction", "YieldOutsideFunction", "ContinueOutsideLoop",
                   "BreakOutsideLoop", "TwoStarredExpressions", "IfTuple", "ForwardAnnotationSyntaxError"});
}

}  // namespace editor::module
