// Python-facing glue of the parse checks.
#include <Python.h>

#include "editor/method.hpp"
#include "module/methods.hpp"
#include "parse/parse.hpp"

namespace editor::methods {
namespace {

constexpr Signature<1> first_error_node_sig{"_first_error_node", {"node"}};
constexpr Signature<2> all_error_nodes_sig{"_all_error_nodes", {"node", "out"}};
constexpr Signature<2> treesitter_error_sig{"_treesitter_error", {"language", "text"}};
constexpr Signature<2> treesitter_error_counts_sig{"_treesitter_error_counts", {"language", "text"}};
constexpr Signature<1> native_language_sig{"_native_language", {"ext"}};
constexpr Signature<1> web_error_counts_sig{"_web_error_counts", {"text"}};

Ref syntax_check_impl(PyObject* module, const Args& args) {
    static constexpr Signature<2> sig{"syntax_check", {"abs_path", "before_text"}, 1};
    auto [abs_path, before_text] = bind(sig, args);
    return parse::syntax_check(module, abs_path, before_text ? before_text : Py_None);
}

}  // namespace

PyMethodDef first_error_node = method<first_error_node_sig, parse::first_error_node>(
    PyDoc_STR("_first_error_node($module, /, node)\n--\n\n"
              "The first ERROR or missing node at or below node in pre-order, or None.\n"
              "Subtrees whose has_error flag is false are not visited."));

PyMethodDef all_error_nodes = method<all_error_nodes_sig, parse::all_error_nodes>(
    PyDoc_STR("_all_error_nodes($module, /, node, out)\n--\n\n"
              "Append every outermost ERROR or missing node at or below node to out, in\n"
              "pre-order. Nothing inside an ERROR node is collected separately."));

PyMethodDef treesitter_error = method<treesitter_error_sig, parse::treesitter_error>(
    PyDoc_STR("_treesitter_error($module, /, language, text)\n--\n\n"
              "(line, what) of the first parse error of text under the named grammar, where\n"
              "what is 'missing bracket/token' or 'unexpected syntax'; None when the text\n"
              "parses clean or cannot be judged (no grammar, unencodable text)."));

PyMethodDef treesitter_error_counts = method<treesitter_error_counts_sig, parse::treesitter_error_counts>(
    PyDoc_STR("_treesitter_error_counts($module, /, language, text)\n--\n\n"
              "(counts, sample): a Counter of parse errors per kind, in order of first\n"
              "appearance, and the line of each kind's first error. Both empty when the\n"
              "text parses clean or cannot be judged."));

PyMethodDef native_language = method<native_language_sig, parse::native_language>(
    PyDoc_STR("_native_language($module, /, ext)\n--\n\n"
              "The grammar name for a file extension: the host's language table first, then\n"
              "the web extensions; None when neither knows it."));

PyMethodDef web_error_counts = method<web_error_counts_sig, parse::web_error_counts>(
    PyDoc_STR("_web_error_counts($module, /, text)\n--\n\n"
              "(counts, sample) of the broken HTML, CSS and JavaScript regions held in the\n"
              "string literals of a Python source text, keyed by (grammar, what); each broken\n"
              "region counts once, under its first error."));

PyMethodDef syntax_check = method<syntax_check_impl>(
    "syntax_check",
    PyDoc_STR("syntax_check($module, /, abs_path, before_text=None)\n--\n\n"
              "Parse-check a file as now written: 'ok', a one-line message naming the first\n"
              "breakage, or None when the file cannot be read or its language is unknown.\n"
              "\n"
              "Python source is judged by the host's compiler. Other languages are judged by\n"
              "tree-sitter: every error without a baseline, and with before_text only a kind\n"
              "of error whose count rose. With before_text, web code held in Python strings\n"
              "is checked the same delta way."));

}  // namespace editor::methods
