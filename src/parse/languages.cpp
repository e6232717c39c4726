// Which grammar checks a file, and the web code held in Python string literals.
#include <Python.h>

#include "editor/host/names.hpp"
#include "editor/host/ns.hpp"
#include "editor/unpack.hpp"
#include "parse/error_counts.hpp"
#include "parse/parse.hpp"

namespace editor::parse {
namespace {

// mapping.get(key): the tables may be any mapping the host supplies or substitutes.
Ref lookup(PyObject* mapping, PyObject* key) { return call_method(mapping, "get", key); }

// The host's region finder's regions for `text`, or an empty Ref when the finder is missing or
// raises. Only producing the regions is guarded; reading them is not.
Ref regions_of(PyObject* text) {
    try {
        Ref finder = check(PyImport_ImportModuleAttrString("embedscan", "_embedded_regions"));
        return call(finder.get(), text);
    } catch (PyError& error) {
        if (!error.matches(PyExc_Exception)) throw;
        return Ref();
    }
}

}  // namespace

Ref native_language(PyObject* module, PyObject* ext) {
    // The host's table wins; a falsy entry there counts as absent. A missing langtable is the
    // host's import error, raised to the caller.
    Ref langtable = check(PyImport_ImportModule("langtable"));
    Ref table = attr(langtable.get(), "EXTENSION_TO_LANGUAGE");
    Ref hosted = lookup(table.get(), ext);
    if (truthy(hosted.get())) return hosted;
    return lookup(ns(module, names::WEB_EXT_LANG).get(), ext);
}

Ref web_error_counts(PyObject* module, PyObject* text) {
    ErrorCounts counts;
    Ref regions = regions_of(text);
    if (!regions) return counts.pair();
    Ref each = check(PyObject_GetIter(regions.get()));
    Ref region;
    while (check_bool(PyIter_NextItem(each.get(), (region = Ref()).out()))) {
        auto [kind, region_text, base_line] = unpack<3>(region.get());
        Ref lang = lookup(ns(module, names::WEB_KIND_LANG).get(), kind.get());
        if (lang.get() == Py_None) continue;
        Ref error = call(ns(module, treesitter_error_sig).get(), lang.get(), region_text.get());
        if (error.get() == Py_None) continue;
        // Each broken region counts once, under the kind of its first error.
        auto [rel_line, what] = unpack<2>(error.get());
        Ref key = check(PyTuple_Pack(2, lang.get(), what.get()));
        counts.count(key.get());
        Ref line = check(PyNumber_Add(base_line.get(), rel_line.get()));
        counts.sample(key.get(), line.get());
    }
    return counts.pair();
}

}  // namespace editor::parse
