#include <Python.h>

#include <array>
#include <utility>

#include "editor/call.hpp"
#include "module/constants.hpp"

namespace editor::module {
namespace {

template <std::size_t N>
Ref str_dict(const std::array<std::pair<const char*, const char*>, N>& entries) {
    Ref dict = check(PyDict_New());
    for (const auto& [key, value] : entries) {
        check(PyDict_SetItemString(dict.get(), key, str(value).get()));
    }
    return dict;
}

}  // namespace

Ref web_kind_lang(PyObject*) {
    return str_dict(std::array<std::pair<const char*, const char*>, 3>{{
        {"css", "css"},
        {"js", "javascript"},
        {"html", "html"},
    }});
}

Ref web_ext_lang(PyObject*) {
    return str_dict(std::array<std::pair<const char*, const char*>, 6>{{
        {".css", "css"},
        {".html", "html"},
        {".htm", "html"},
        {".js", "javascript"},
        {".mjs", "javascript"},
        {".jsx", "javascript"},
    }});
}

}  // namespace editor::module
