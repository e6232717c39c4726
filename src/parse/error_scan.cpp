// The two scans over a parse tree. They visit nodes in pre-order (a node before its children,
// children in source order), skip every subtree whose `has_error` flag is false, and never look
// inside an error node. Trees can be as deep as the text is nested, so the walk keeps its own
// stack of children iterators on the heap instead of recursing on the C stack; an iterator is
// advanced only once the subtree of the previous child is finished, exactly as a recursive
// `for child in node.children` loop would advance it.
#include <Python.h>

#include <vector>

#include "editor/call.hpp"
#include "parse/parse.hpp"

namespace editor::parse {
namespace {

// The member names a scan reads, made once per scan rather than once per node.
struct NodeMembers {
    Ref type = interned("type");
    Ref is_missing = interned("is_missing");
    Ref has_error = interned("has_error");
    Ref children = interned("children");
    Ref error = interned("ERROR");

    static Ref interned(const char* name) { return check(PyUnicode_InternFromString(name)); }
};

enum class Visit { error, clean, descend };

// Far deeper than any text a parser accepts nests, yet a bound: node objects whose children lead
// back to themselves would otherwise grow the walk until memory ran out. Past it the scan raises
// the host's RecursionError, as a recursive walk would have long before.
constexpr std::size_t max_depth = 1'000'000;

void descend(std::vector<Ref>& pending, Ref children) {
    if (pending.size() == max_depth) {
        raise(PyExc_RecursionError, "maximum depth exceeded while scanning a parse tree");
    }
    // A long walk over host objects stays interruptible.
    if (PyErr_CheckSignals() < 0) throw PyError::fetch();
    pending.push_back(std::move(children));
}

// The test a node gets before anything below it: an ERROR node, then a missing node, then the
// pruning flag. On `descend`, `children` holds an iterator over the node's children.
Visit visit(const NodeMembers& members, PyObject* node, Ref& children) {
    Ref type = check(PyObject_GetAttr(node, members.type.get()));
    if (check_bool(PyObject_RichCompareBool(type.get(), members.error.get(), Py_EQ))) return Visit::error;
    Ref missing = check(PyObject_GetAttr(node, members.is_missing.get()));
    if (truthy(missing.get())) return Visit::error;
    Ref has_error = check(PyObject_GetAttr(node, members.has_error.get()));
    if (!truthy(has_error.get())) return Visit::clean;
    Ref list = check(PyObject_GetAttr(node, members.children.get()));
    children = check(PyObject_GetIter(list.get()));
    return Visit::descend;
}

// Calls `on_error(node)` for each outermost error node in pre-order until it returns true.
template <typename OnError>
void walk(PyObject* root, OnError on_error) {
    const NodeMembers members;
    std::vector<Ref> pending;  // one children iterator per level being visited
    Ref children;
    switch (visit(members, root, children)) {
        case Visit::error: on_error(root); return;
        case Visit::clean: return;
        case Visit::descend: descend(pending, std::move(children)); break;
    }
    while (!pending.empty()) {
        Ref child;
        if (!check_bool(PyIter_NextItem(pending.back().get(), child.out()))) {
            pending.pop_back();
            continue;
        }
        switch (visit(members, child.get(), children)) {
            case Visit::error:
                if (on_error(child.get())) return;
                break;
            case Visit::clean: break;
            case Visit::descend: descend(pending, std::move(children)); break;
        }
    }
}

}  // namespace

Ref first_error_node(PyObject* node) {
    Ref found = Ref::borrow(Py_None);
    walk(node, [&](PyObject* error) {
        found = Ref::borrow(error);
        return true;
    });
    return found;
}

void all_error_nodes(PyObject* node, PyObject* out) {
    // Any object with an `append` will do, as it would for the host; a list takes the short road.
    const bool list = PyList_CheckExact(out);
    walk(node, [&](PyObject* error) {
        if (list) {
            check(PyList_Append(out, error));
        } else {
            Ref ignored = call_method(out, "append", error);
        }
        return false;
    });
}

}  // namespace editor::parse
