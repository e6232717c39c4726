// Python-facing glue of the parse checks.
#include <Python.h>

#include "editor/method.hpp"
#include "module/methods.hpp"
#include "parse/parse.hpp"

namespace editor::methods {

PyMethodDef first_error_node = method<parse::first_error_node_sig, parse::first_error_node,
    "The first ERROR or missing node at or below node in pre-order, or None.\n"
    "Subtrees whose has_error flag is false are not visited.">();

PyMethodDef all_error_nodes = method<parse::all_error_nodes_sig, parse::all_error_nodes,
    "Append every outermost ERROR or missing node at or below node to out, in\n"
    "pre-order. Nothing inside an ERROR node is collected separately.">();

PyMethodDef treesitter_error = method<parse::treesitter_error_sig, parse::treesitter_error,
    "(line, what) of the first parse error of text under the named grammar, where\n"
    "what is 'missing bracket/token' or 'unexpected syntax'; None when the text\n"
    "parses clean or cannot be judged (no grammar, unencodable text).">();

PyMethodDef treesitter_error_counts = method<parse::treesitter_error_counts_sig, parse::treesitter_error_counts,
    "(counts, sample): a Counter of parse errors per kind, in order of first\n"
    "appearance, and the line of each kind's first error. Both empty when the\n"
    "text parses clean or cannot be judged.">();

PyMethodDef native_language = method<parse::native_language_sig, parse::native_language,
    "The grammar name for a file extension: the host's language table first, then\n"
    "the web extensions; None when neither knows it.">();

PyMethodDef web_error_counts = method<parse::web_error_counts_sig, parse::web_error_counts,
    "(counts, sample) of the broken HTML, CSS and JavaScript regions held in the\n"
    "string literals of a Python source text, keyed by (grammar, what); each broken\n"
    "region counts once, under its first error.">();

PyMethodDef syntax_check = method<parse::syntax_check_sig, parse::syntax_check,
    "Parse-check a file as now written: 'ok', a one-line message naming the first\n"
    "breakage, or None when the file cannot be read or its language is unknown.\n"
    "\n"
    "Python source is judged by the host's compiler. Other languages are judged by\n"
    "tree-sitter: every error without a baseline, and with before_text only a kind\n"
    "of error whose count rose. With before_text, web code held in Python strings\n"
    "is checked the same delta way.">();

}  // namespace editor::methods
