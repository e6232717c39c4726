// Parse checks: tree-sitter error scans, language detection, the web code embedded in Python
// string literals, and the syntax check that runs after every write. Every operation takes the
// module (for the names it reaches through the namespace) and borrowed arguments.
#pragma once
#include <Python.h>

#include "editor/args.hpp"
#include "editor/ref.hpp"

namespace editor::parse {

// The Python declarations: names, parameters and defaults, read by the bindings and by the
// operations that call one another through the module namespace.
inline constexpr Signature first_error_node_sig{"_first_error_node", "node"};
inline constexpr Signature all_error_nodes_sig{"_all_error_nodes", "node", "out"};
inline constexpr Signature treesitter_error_sig{"_treesitter_error", "language", "text"};
inline constexpr Signature treesitter_error_counts_sig{"_treesitter_error_counts", "language", "text"};
inline constexpr Signature native_language_sig{"_native_language", "ext"};
inline constexpr Signature web_error_counts_sig{"_web_error_counts", "text"};
inline constexpr Signature syntax_check_sig{"syntax_check", "abs_path", Param{"before_text", "None"}};

// The first ERROR or missing node at or below `node` in pre-order, or None.
Ref first_error_node(PyObject* node);
// Appends every outermost ERROR or missing node at or below `node` to `out`, in pre-order.
void all_error_nodes(PyObject* node, PyObject* out);

// (line, what) of the first parse error of `text` under the grammar `language`, or None.
Ref treesitter_error(PyObject* module, PyObject* language, PyObject* text);
// (Counter what -> errors, {what: first line}) of `text` under the grammar `language`.
Ref treesitter_error_counts(PyObject* module, PyObject* language, PyObject* text);

// The grammar name for a file extension, or None.
Ref native_language(PyObject* module, PyObject* ext);
// (Counter (lang, what) -> broken regions, {(lang, what): first line}) of the web code held in
// the string literals of a Python source text.
Ref web_error_counts(PyObject* module, PyObject* text);

// "ok", a message naming the first breakage, or None when the file cannot be judged.
Ref syntax_check(PyObject* module, PyObject* abs_path, PyObject* before_text);

}  // namespace editor::parse
