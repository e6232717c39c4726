// The plain dicts the file operations return: a success mapping with the operation's own keys in
// a fixed order, or a refusal {"error": message}. Each call builds a fresh dict, so a caller may
// keep or change what it receives.
#pragma once
#include <Python.h>

#include <initializer_list>

#include "editor/call.hpp"

namespace editor {

struct Item {
    const char* key;
    PyObject* value;  // borrowed
};

[[nodiscard]] inline Ref result(std::initializer_list<Item> items) {
    Ref dict = check(PyDict_New());
    for (const Item& item : items) check(PyDict_SetItemString(dict.get(), item.key, item.value));
    return dict;
}

[[nodiscard]] inline Ref refusal(const Ref& message) { return result({{"error", message.get()}}); }

[[nodiscard]] inline Ref refusal(const char* message) { return refusal(str(message)); }

}  // namespace editor
