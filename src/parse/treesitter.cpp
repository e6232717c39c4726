// Parsing a text under a named tree-sitter grammar and reading its errors. The grammar package
// is imported and a parser obtained at every call: nothing is cached, so a package installed,
// removed or replaced while the host runs is seen at the next check.
#include <Python.h>

#include "editor/host/ns.hpp"
#include "parse/error_counts.hpp"
#include "parse/parse.hpp"

namespace editor::parse {
namespace {

Ref utf8(PyObject* text) {
    if (PyUnicode_CheckExact(text)) return check(PyUnicode_AsUTF8String(text));
    Ref encoding = str("utf-8");
    return call_method(text, "encode", encoding.get());
}

// The tree of `text`, or an empty Ref when it cannot be judged: no grammar package, an unknown
// grammar, a text with lone surrogates, a parser that raises. Only the host's ordinary
// exceptions mean "cannot judge"; interrupts and exits go through.
Ref parse(PyObject* language, PyObject* text) {
    try {
        Ref get_parser = check(PyImport_ImportModuleAttrString("tree_sitter_language_pack", "get_parser"));
        Ref parser = call(get_parser.get(), language);
        Ref source = utf8(text);
        return call_method(parser.get(), "parse", source.get());
    } catch (PyError& error) {
        if (!error.matches(PyExc_Exception)) throw;
        return Ref();
    }
}

// The root node when the tree holds an error; empty for a clean tree, which is never walked.
Ref broken_root(PyObject* tree) {
    Ref root = attr(tree, "root_node");
    Ref has_error = attr(root.get(), "has_error");
    return truthy(has_error.get()) ? std::move(root) : Ref();
}

Ref description(PyObject* node) {
    Ref missing = attr(node, "is_missing");
    return str(truthy(missing.get()) ? "missing bracket/token" : "unexpected syntax");
}

// start_point[0] + 1: tree-sitter rows are 0-based.
Ref line_of(PyObject* node) {
    Ref point = attr(node, "start_point");
    Ref zero = check(PyLong_FromLong(0));
    Ref row = check(PyObject_GetItem(point.get(), zero.get()));
    Ref one = check(PyLong_FromLong(1));
    return check(PyNumber_Add(row.get(), one.get()));
}

}  // namespace

Ref treesitter_error(PyObject* module, PyObject* language, PyObject* text) {
    Ref tree = parse(language, text);
    if (!tree) return Ref::borrow(Py_None);
    Ref root = broken_root(tree.get());
    if (!root) return Ref::borrow(Py_None);
    Ref node = call(ns(module, first_error_node_sig).get(), root.get());
    if (node.get() == Py_None) return node;
    Ref what = description(node.get());
    Ref line = line_of(node.get());
    return check(PyTuple_Pack(2, line.get(), what.get()));
}

Ref treesitter_error_counts(PyObject* module, PyObject* language, PyObject* text) {
    ErrorCounts counts;
    Ref tree = parse(language, text);
    if (!tree) return counts.pair();
    Ref root = broken_root(tree.get());
    if (!root) return counts.pair();
    Ref nodes = check(PyList_New(0));
    Ref ignored = call(ns(module, all_error_nodes_sig).get(), root.get(), nodes.get());
    Ref each = check(PyObject_GetIter(nodes.get()));
    Ref node;
    while (check_bool(PyIter_NextItem(each.get(), (node = Ref()).out()))) {
        Ref what = description(node.get());
        counts.count(what.get());
        counts.sample(what.get(), line_of(node.get()).get());
    }
    return counts.pair();
}

}  // namespace editor::parse
