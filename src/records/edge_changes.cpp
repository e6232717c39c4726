// A map holds up to some 100k edges. The host's way, a set of (caller, callee) tuples per map,
// spends most of its time making, hashing and freeing the tuples. When every id is an exact
// str, a pair's identity is the two texts' values, so an open-addressed table over the pairs
// themselves (keyed by the strs' cached hashes, compared by value) finds exactly the pairs the
// tuple sets would, and only the shown head of each difference is ever sorted and formatted.
// Any other id goes the host's way.
#include <Python.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "editor/call.hpp"
#include "records/edge_changes.hpp"
#include "records/objects.hpp"
#include "records/sorted_head.hpp"
#include "paths/paths.hpp"

namespace editor::records {
namespace {

struct Edge {
    Ref caller;
    Ref callee;
    std::uint64_t hash = 0;  // of the pair, set when the pair goes into a PairSet
};

struct Edges {
    std::vector<Edge> items;
    bool all_text = true;  // every id an exact str
};

// e["caller"], e["callee"] for e in map.get("edges", []), raising what building the host's
// tuple set would raise, at the same edge.
Edges collect(PyObject* map) {
    Ref edges = get_or(map, "edges", check(PyList_New(0)));
    Ref caller_key = str("caller");
    Ref callee_key = str("callee");
    Edges out;
    if (PyList_CheckExact(edges.get())) out.items.reserve(static_cast<std::size_t>(PyList_GET_SIZE(edges.get())));
    Ref iterator = check(PyObject_GetIter(edges.get()));
    Ref edge;
    while (check_bool(PyIter_NextItem(iterator.get(), (edge = Ref()).out()))) {
        Edge pair{check(PyObject_GetItem(edge.get(), caller_key.get())),
                  check(PyObject_GetItem(edge.get(), callee_key.get()))};
        if (!is_text(pair.caller.get()) || !is_text(pair.callee.get())) {
            out.all_text = false;
            // Hashing the pair's tuple hashes caller, then callee: an unhashable id fails here.
            (void)check_value(PyObject_Hash(pair.caller.get()));
            (void)check_value(PyObject_Hash(pair.callee.get()));
        }
        out.items.push_back(std::move(pair));
    }
    return out;
}

// Exact strs: hashing cannot fail and equality is equality of code points.
bool same_text(PyObject* a, PyObject* b) { return a == b || PyUnicode_Equal(a, b) == 1; }

bool same_pair(const Edge& a, const Edge& b) {
    return a.hash == b.hash && same_text(a.caller.get(), b.caller.get()) && same_text(a.callee.get(), b.callee.get());
}

bool pair_less(const Edge* a, const Edge* b) {
    const int first = PyUnicode_Compare(a->caller.get(), b->caller.get());
    if (first != 0) return first < 0;
    return PyUnicode_Compare(a->callee.get(), b->callee.get()) < 0;
}

// The distinct pairs of one map's edges, all ids exact strs. Points into the edges it was
// built from, which must outlive it unchanged.
class PairSet {
public:
    explicit PairSet(std::vector<Edge>& edges) {
        std::size_t capacity = 16;
        while (capacity < edges.size() * 2) capacity *= 2;
        slots_.assign(capacity, nullptr);
        mask_ = capacity - 1;
        for (Edge& edge : edges) {
            const auto caller = static_cast<std::uint64_t>(PyObject_Hash(edge.caller.get()));
            const auto callee = static_cast<std::uint64_t>(PyObject_Hash(edge.callee.get()));
            edge.hash = caller * 0x9E3779B97F4A7C15ULL + callee;
            const std::size_t slot = slot_of(edge);
            if (slots_[slot] == nullptr) {
                slots_[slot] = &edge;
                distinct_.push_back(&edge);
            }
        }
    }

    // The distinct pairs of this set that `other` lacks.
    std::vector<const Edge*> missing_from(const PairSet& other) const {
        std::vector<const Edge*> missing;
        for (const Edge* edge : distinct_) {
            if (other.slots_[other.slot_of(*edge)] == nullptr) missing.push_back(edge);
        }
        return missing;
    }

private:
    // The slot holding an equal pair, or the empty slot where it would go: linear probing from
    // a start picked by the mixed high bits of the pair's hash.
    std::size_t slot_of(const Edge& edge) const {
        std::size_t index = static_cast<std::size_t>((edge.hash * 0xFF51AFD7ED558CCDULL) >> 20) & mask_;
        while (slots_[index] != nullptr && !same_pair(*slots_[index], edge)) index = (index + 1) & mask_;
        return index;
    }

    std::vector<const Edge*> slots_;
    std::size_t mask_ = 0;
    std::vector<const Edge*> distinct_;
};

Ref edge_line(PyObject* caller, PyObject* callee) {
    Ref shown_caller = paths::base_name(caller);
    Ref shown_callee = paths::base_name(callee);
    return check(PyUnicode_FromFormat("%S -> %S", shown_caller.get(), shown_callee.get()));
}

void put_text_pairs(PyObject* out, const char* key, std::vector<const Edge*> pairs, Py_ssize_t cap) {
    if (pairs.empty()) return;
    const auto size = static_cast<Py_ssize_t>(pairs.size());
    const Py_ssize_t stop = slice_stop(size, cap);
    sort_head(pairs.begin(), pairs.begin() + stop, pairs.end(), pair_less);
    Ref lines = check(PyList_New(stop));
    for (Py_ssize_t i = 0; i < stop; ++i) {
        PyList_SET_ITEM(lines.get(), i, edge_line(pairs[i]->caller.get(), pairs[i]->callee.get()).release());
    }
    check(PyDict_SetItemString(out, key, lines.get()));
}

// The host's way: tuple sets, their difference, sorted().
Ref tuple_set(const Edges& edges) {
    Ref pairs = check(PySet_New(nullptr));
    for (const Edge& edge : edges.items) {
        Ref pair = check(PyTuple_Pack(2, edge.caller.get(), edge.callee.get()));
        check(PySet_Add(pairs.get(), pair.get()));
    }
    return pairs;
}

// sorted(pairs), every pair shown as the host shows it (so an id that cannot be shown fails
// whatever the cap), then cut to the first `cap`.
void put_tuple_pairs(PyObject* out, const char* key, PyObject* pairs, Py_ssize_t cap) {
    Ref items = check(PySequence_List(pairs));
    const Py_ssize_t size = PyList_GET_SIZE(items.get());
    if (size == 0) return;
    check(PyList_Sort(items.get()));
    for (Py_ssize_t i = 0; i < size; ++i) {
        PyObject* pair = PyList_GET_ITEM(items.get(), i);
        check(PyList_SetItem(items.get(), i, edge_line(PyTuple_GET_ITEM(pair, 0), PyTuple_GET_ITEM(pair, 1)).release()));
    }
    check(PyDict_SetItemString(out, key, check(PyList_GetSlice(items.get(), 0, slice_stop(size, cap))).get()));
}

}  // namespace

void put_edge_changes(PyObject* out, PyObject* before, PyObject* after, Py_ssize_t cap) {
    Edges edges_before = collect(before);
    Edges edges_after = collect(after);
    if (edges_before.all_text && edges_after.all_text) {
        const PairSet pairs_before(edges_before.items);
        const PairSet pairs_after(edges_after.items);
        put_text_pairs(out, "edges_added", pairs_after.missing_from(pairs_before), cap);
        put_text_pairs(out, "edges_removed", pairs_before.missing_from(pairs_after), cap);
        return;
    }
    Ref set_before = tuple_set(edges_before);
    Ref set_after = tuple_set(edges_after);
    put_tuple_pairs(out, "edges_added", check(PyNumber_Subtract(set_after.get(), set_before.get())).get(), cap);
    put_tuple_pairs(out, "edges_removed", check(PyNumber_Subtract(set_before.get(), set_after.get())).get(), cap);
}

}  // namespace editor::records
