#include <Python.h>

#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "editor/host/pathlib.hpp"
#include "semantic/semantic.hpp"

namespace editor::semantic {
namespace {

// The starting directory and up to 49 ancestors: deep enough for any real checkout, and a
// bound on the stat calls for a file that lies in no repository at all.
constexpr int max_walk = 50;

bool equal(PyObject* a, PyObject* b) { return check_bool(PyObject_RichCompareBool(a, b, Py_EQ)); }

// The directory in which a package's top-level directory sits, when the directories above the
// file spell the package name from the end (com/acme/util for com.acme.util); otherwise the
// file's own directory.
Ref source_root(PyObject* module, PyObject* path, PyObject* text) {
    Ref parent = attr(path, "parent");
    Ref match = call_method(ns(module, names::PKG_RE).get(), "search", text);
    if (match.get() == Py_None) return parent;
    Ref one = check(PyLong_FromLong(1));
    Ref package = call_method(match.get(), "group", one.get());
    Ref dot = str(".");
    Ref segments = check(PyUnicode_Split(package.get(), dot.get(), -1));
    Ref dir = parent.dup();
    for (Py_ssize_t i = PyList_GET_SIZE(segments.get()) - 1; i >= 0; --i) {
        Ref name = attr(dir.get(), "name");
        if (!equal(name.get(), PyList_GET_ITEM(segments.get(), i))) return parent;
        dir = attr(dir.get(), "parent");
    }
    return dir;
}

// Earlier Maven or Gradle output and Maven's copied dependencies, each only if present.
Ref class_path(PyObject* root) {
    Ref entries = check(PyList_New(0));
    Ref target = join(root, "target");
    Ref maven = join(target.get(), "classes");
    Ref gradle = join(join(join(join(root, "build").get(), "classes").get(), "java").get(), "main");
    for (PyObject* dir : {maven.get(), gradle.get()}) {
        if (holds(dir, "is_dir")) check(PyList_Append(entries.get(), text_of(dir).get()));
    }
    Ref dependency = join(target.get(), "dependency");
    if (holds(dependency.get(), "is_dir")) {
        // In listing order: the class path is searched in order and we have no better one.
        Ref pattern = str("*.jar");
        Ref jars = check(PyObject_GetIter(call_method(dependency.get(), "glob", pattern.get()).get()));
        Ref jar;
        while (check_bool(PyIter_NextItem(jars.get(), (jar = Ref()).out()))) {
            check(PyList_Append(entries.get(), text_of(jar.get()).get()));
        }
    }
    return entries;
}

Ref build_context(PyObject* args, PyObject* cwd) { return check(PyTuple_Pack(2, args, cwd)); }

}  // namespace

Ref find_exe(PyObject* module, PyObject* names) {
    Ref which = ns_attr(module, names::shutil, "which");
    Ref candidates = check(PyObject_GetIter(names));
    Ref name;
    while (check_bool(PyIter_NextItem(candidates.get(), (name = Ref()).out()))) {
        Ref found = call(which.get(), name.get());
        if (truthy(found.get())) return found;
    }
    return Ref::borrow(Py_None);
}

Ref repo_root(PyObject* /*module*/, PyObject* start) {
    Ref base = holds(start, "is_dir") ? Ref::borrow(start) : attr(start, "parent");
    Ref dir = base.dup();
    for (int step = 0; step < max_walk; ++step) {
        // ".git" may be a directory or, in a worktree, a file: any entry marks the root.
        if (holds(join(dir.get(), ".git").get(), "exists")) return dir;
        Ref parent = attr(dir.get(), "parent");
        if (equal(parent.get(), dir.get())) break;
        dir = std::move(parent);
    }
    return base;
}

Ref cpp_context(PyObject* module, PyObject* abs_path) {
    Ref path = make_path(module, abs_path);
    // Headers are not in the set: compiled alone they lack their translation unit.
    if (!check_bool(PySequence_Contains(ns(module, names::CPP_SRC_EXT).get(), lower_suffix(path.get()).get()))) {
        return Ref::borrow(Py_None);
    }
    Ref root = call(ns(module, repo_root_sig).get(), path.get());
    Ref include = join(root.get(), "include");
    Ref src = join(root.get(), "src");
    Ref parent = attr(path.get(), "parent");
    Ref flags = check(PyList_New(0));
    Ref seen = check(PySet_New(nullptr));
    Ref include_flag = str("-I");
    for (PyObject* dir : {root.get(), include.get(), src.get(), parent.get()}) {
        Ref text = text_of(dir);
        if (check_bool(PySet_Contains(seen.get(), text.get())) || !holds(dir, "is_dir")) continue;
        check(PySet_Add(seen.get(), text.get()));
        check(PyList_Append(flags.get(), include_flag.get()));
        check(PyList_Append(flags.get(), text.get()));
    }
    return build_context(flags.get(), text_of(root.get()).get());
}

Ref java_context(PyObject* module, PyObject* abs_path) {
    Ref path = make_path(module, abs_path);
    Ref java = str(".java");
    if (!equal(lower_suffix(path.get()).get(), java.get())) return Ref::borrow(Py_None);
    Ref text = read_utf8_if_readable(path.get());
    if (!text) return Ref::borrow(Py_None);
    Ref root = call(ns(module, repo_root_sig).get(), path.get());
    Ref source_path = str("-sourcepath");
    Ref args = check(PyList_New(0));
    check(PyList_Append(args.get(), source_path.get()));
    check(PyList_Append(args.get(), text_of(source_root(module, path.get(), text.get()).get()).get()));
    Ref entries = class_path(root.get());
    if (PyList_GET_SIZE(entries.get()) > 0) {
        // ":" on every host, as the class path travels in one argument.
        Ref separator = str(":");
        Ref cp_flag = str("-cp");
        check(PyList_Append(args.get(), cp_flag.get()));
        check(PyList_Append(args.get(), check(PyUnicode_Join(separator.get(), entries.get())).get()));
    }
    return build_context(args.get(), text_of(root.get()).get());
}

}  // namespace editor::semantic
