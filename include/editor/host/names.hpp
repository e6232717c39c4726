// The module-level names, other than its functions, that the operations read at call time. Each
// is spelled once, here: the namespace table binds it and every lookup names it by this constant,
// so a misspelt name fails to compile. (C++ reserves identifiers that start with an underscore
// and a capital, so `_COMPILER_LANGS` is `COMPILER_LANGS` on this side.)
#pragma once

namespace editor::names {

inline constexpr const char* difflib = "difflib";
inline constexpr const char* json = "json";
inline constexpr const char* os = "os";
inline constexpr const char* re = "re";
inline constexpr const char* shutil = "shutil";
inline constexpr const char* subprocess = "subprocess";
inline constexpr const char* tempfile = "tempfile";
inline constexpr const char* time = "time";
inline constexpr const char* Path = "Path";
inline constexpr const char* projstore = "projstore";
inline constexpr const char* run_deep = "run_deep";
inline constexpr const char* LEDGER_NAME = "LEDGER_NAME";
inline constexpr const char* WEB_KIND_LANG = "_WEB_KIND_LANG";
inline constexpr const char* WEB_EXT_LANG = "_WEB_EXT_LANG";
inline constexpr const char* GCC_DIAG = "_GCC_DIAG";
inline constexpr const char* JAVAC_DIAG = "_JAVAC_DIAG";
inline constexpr const char* CPP_SRC_EXT = "_CPP_SRC_EXT";
inline constexpr const char* PKG_RE = "_PKG_RE";
inline constexpr const char* COMPILER_LANGS = "_COMPILER_LANGS";
inline constexpr const char* PYFLAKES_ERROR_TYPES = "_PYFLAKES_ERROR_TYPES";

}  // namespace editor::names
