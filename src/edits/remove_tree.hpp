// Removing a file or a directory tree below the root without following a link: the target's
// parent is reached through open_beneath, and every directory below the target is entered by
// descriptor with O_NOFOLLOW, so a link met anywhere (or swapped in while the removal runs) loses
// its own name and nothing behind it. Plain system calls only, like beneath.hpp.
#pragma once
#include <Python.h>

#include <string>
#include <string_view>

#include "edits/beneath.hpp"

namespace editor::edits {

// What a removal did, or where and why it stopped.
struct Removal {
    int error = 0;                   // 0, or the errno of the step that failed
    bool directory = false;          // the target is a directory (its tree was, or was being, removed)
    bool link_to_directory = false;  // refused: the target is a link to a directory; nothing removed
    std::string failed_at;           // where it failed, below the target ("" for the target itself)
};

// Removes `relative` below the root: a directory with everything below it, descending only into
// real directories; anything else (a file, a link to a file) by unlinking its name.
Removal remove_beneath(const Root& root, std::string_view relative);

}  // namespace editor::edits
