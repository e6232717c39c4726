// Where the lines of a text start, read straight off its UTF-8 bytes with the same line
// boundaries as the host's str.splitlines: "\n", "\r", "\r\n", "\v", "\f", "\x1c", "\x1d",
// "\x1e", U+0085, U+2028 and U+2029. Working on the bytes lets an edit of a large file cut and
// write the text it read without building a list of lines or a second copy of it.
#pragma once
#include <Python.h>

#include <array>
#include <string_view>

namespace editor::edits {

// Offset just past the line that starts at `from`, its line break included (the text's size
// when the line is the last and has none).
Py_ssize_t line_end(std::string_view utf8, Py_ssize_t from) noexcept;

// Number of "\n" characters in the text (anchors are placed by counting these alone).
Py_ssize_t count_newlines(std::string_view utf8) noexcept;

// True when the text's last line ends with a line break (or there are no lines at all).
bool ends_with_line_break(std::string_view utf8) noexcept;

struct LineLayout {
    Py_ssize_t count = 0;  // number of lines, as len(text.splitlines()) counts them
    // Offsets at which the wanted line numbers start; line count + 1 "starts" at the end of the
    // text, and a wanted number outside 1 .. count + 1 is left at -1.
    std::array<Py_ssize_t, 2> starts{-1, -1};
};

// One pass over the text: its line count and the start offsets of two 1-based line numbers.
LineLayout layout(std::string_view utf8, std::array<long long, 2> wanted) noexcept;

}  // namespace editor::edits
