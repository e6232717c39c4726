// An index holds some 100k paths and nearly all of them are ASCII. The matching form of an ASCII
// str is its bytes with "\" as "/" and A-Z lower-cased, which is what the host's replace() and
// lower() give it, so such entries are compared in place, byte by byte, with nothing allocated.
// Every other entry (beyond ASCII, a str subclass, not a str) takes the host's own methods, so
// full Unicode lower-casing and whatever a subclass does stay exactly the host's.
#include <Python.h>

#include <array>
#include <string>
#include <string_view>

#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "editor/host/result.hpp"
#include "paths/paths.hpp"

namespace editor::paths {
namespace {

constexpr Py_ssize_t max_candidates = 8;

constexpr std::array<char, 128> ascii_folds = [] {
    std::array<char, 128> folds{};
    for (int c = 0; c < 128; ++c) folds[c] = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    folds['\\'] = '/';
    return folds;
}();

char fold(char c) { return ascii_folds[static_cast<unsigned char>(c)]; }

// The matching form: backslashes as "/", then the host's full Unicode lower-casing, called by
// name so any str the host hands us behaves as it would in Python.
Ref matching_form(PyObject* path) {
    Ref backslash = str("\\");
    Ref slash = str("/");
    Ref replaced = call_method(path, "replace", backslash.get(), slash.get());
    return call_method(replaced.get(), "lower");
}

std::string_view ascii_of(PyObject* text) {
    return {reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(text)),
            static_cast<std::size_t>(PyUnicode_GET_LENGTH(text))};
}

class Needle {
public:
    explicit Needle(PyObject* path_str) {
        if (PyUnicode_CheckExact(path_str) && PyUnicode_IS_ASCII(path_str)) {
            for (const char c : ascii_of(path_str)) folded_ += fold(c);
            form_ = check(PyUnicode_FromStringAndSize(folded_.data(), static_cast<Py_ssize_t>(folded_.size())));
        } else {
            form_ = matching_form(path_str);
            // Lower-casing can leave the ASCII range ("K", the Kelvin sign, becomes "k").
            if (PyUnicode_CheckExact(form_.get()) && PyUnicode_IS_ASCII(form_.get())) folded_ = ascii_of(form_.get());
        }
        // Comparing an exact str form with an ASCII entry's needs no host code.
        bytes_comparable_ = PyUnicode_CheckExact(form_.get());
        ascii_ = bytes_comparable_ && PyUnicode_IS_ASCII(form_.get());
    }

    // Whether `entry` is matched in place: no host code runs and nothing is allocated.
    bool in_place(PyObject* entry) const {
        return bytes_comparable_ && PyUnicode_CheckExact(entry) && PyUnicode_IS_ASCII(entry);
    }

    // For an entry matched in place: whether its matching form equals the needle or ends with
    // "/" and the needle. Compared from the end, where paths of one project differ first. An
    // ASCII form never equals or ends with a needle beyond ASCII.
    bool matches_in_place(PyObject* entry) const {
        if (!ascii_) return false;
        const std::string_view text = ascii_of(entry);
        if (text.size() < folded_.size()) return false;
        const std::size_t start = text.size() - folded_.size();
        for (std::size_t i = folded_.size(); i-- > 0;) {
            if (fold(text[start + i]) != folded_[i]) return false;
        }
        return start == 0 || fold(text[start - 1]) == '/';
    }

    // The same question for any other entry, through the host's methods.
    bool matches_by_host(PyObject* entry) {
        Ref form = matching_form(entry);
        if (check_bool(PyObject_RichCompareBool(form.get(), form_.get(), Py_EQ))) return true;
        // "/" + needle, made when first needed. A str subclass may answer lower() with anything:
        // the concatenation refuses a needle that is not a str with the host's TypeError.
        if (!suffix_) {
            Ref slash = str("/");
            suffix_ = check(PyUnicode_Concat(slash.get(), form_.get()));
        }
        return check_value(PyUnicode_Tailmatch(form.get(), suffix_.get(), 0, PY_SSIZE_T_MAX, 1)) == 1;
    }

private:
    Ref form_;
    std::string folded_;
    bool bytes_comparable_ = false;
    bool ascii_ = false;
    Ref suffix_;
};

Ref hits_for(PyObject* path_str, PyObject* known_paths) {
    Needle needle(path_str);
    Ref hits = check(PyList_New(0));
    if (PyList_CheckExact(known_paths)) {
        // By index, re-reading the size, as the host's list iterator does: an entry's own
        // methods may change the list meanwhile, so such an entry is held while it is matched.
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(known_paths); ++i) {
            PyObject* entry = PyList_GET_ITEM(known_paths, i);
            if (needle.in_place(entry)) {
                if (needle.matches_in_place(entry)) check(PyList_Append(hits.get(), entry));
                continue;
            }
            Ref held = Ref::borrow(entry);
            if (needle.matches_by_host(held.get())) check(PyList_Append(hits.get(), held.get()));
        }
        return hits;
    }
    Ref entries = check(PyObject_GetIter(known_paths));
    Ref entry;
    while (check_bool(PyIter_NextItem(entries.get(), (entry = Ref()).out()))) {
        const bool hit = needle.in_place(entry.get()) ? needle.matches_in_place(entry.get())
                                                       : needle.matches_by_host(entry.get());
        if (hit) check(PyList_Append(hits.get(), entry.get()));
    }
    return hits;
}

}  // namespace

Ref resolve_target(PyObject* module, PyObject* root, PyObject* path_str, PyObject* known_paths) {
    Ref hits = hits_for(path_str, known_paths);
    const Py_ssize_t count = PyList_GET_SIZE(hits.get());
    Ref join = ns_attr(module, names::os, "path", "join");
    Ref abspath = ns_attr(module, names::os, "path", "abspath");
    if (count == 1) {
        // No confinement test here: the write operations make their own on the result.
        Ref joined = call(join.get(), root, PyList_GET_ITEM(hits.get(), 0));
        return call(abspath.get(), joined.get());
    }
    if (count > 1) {
        Ref result = refusal(check(PyUnicode_FromFormat("'%S' matches %zd files -- be more specific",
                                                        path_str, count)));
        Ref candidates = check(PyList_GetSlice(hits.get(), 0, max_candidates));
        check(PyDict_SetItemString(result.get(), "candidates", candidates.get()));
        return result;
    }
    Ref candidate = call(join.get(), root, path_str);
    if (!confined(module, root, candidate.get())) {
        return refusal(check(PyUnicode_FromFormat(
            "'%S' is outside the project root -- edits are confined to it", path_str)));
    }
    return call(abspath.get(), candidate.get());
}

}  // namespace editor::paths
