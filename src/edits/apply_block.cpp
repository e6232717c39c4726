#include <Python.h>

#include <array>
#include <climits>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "edits/edits.hpp"
#include "edits/file_io.hpp"
#include "edits/line_layout.hpp"
#include "editor/host/ns.hpp"
#include "editor/host/pathlib.hpp"
#include "editor/host/result.hpp"
#include "parse/parse.hpp"
#include "paths/paths.hpp"

namespace editor::edits {
namespace {

enum class Mode { replace, insert_before, insert_after };

// Any value that is not one of the three strings is an unknown mode, whatever its type: a model's
// JSON can hand over null or a number.
std::optional<Mode> mode_named(PyObject* mode) {
    if (!PyUnicode_Check(mode)) return std::nullopt;
    static constexpr std::pair<const char*, Mode> modes[] = {
        {"replace", Mode::replace}, {"insert_before", Mode::insert_before}, {"insert_after", Mode::insert_after}};
    for (const auto& [name, value] : modes) {
        if (PyUnicode_EqualToUTF8(mode, name)) return value;
    }
    return std::nullopt;
}

// A line number as the caller gave it (for messages, which show True as True), its exact int
// (for the receipt) and the value for comparisons, clamped to the range of long long; a clamped
// value is out of range for any file, exactly as the unclamped one would be.
struct LineNumber {
    Ref given;
    Ref value;
    long long clamped;
};

// Anything with __index__ is accepted, so True counts as 1 and a float raises the host's
// TypeError; an int of any size is fine.
LineNumber line_number(PyObject* given) {
    Ref value = check(PyNumber_Index(given));
    int overflow = 0;
    long long clamped = check_value(PyLong_AsLongLongAndOverflow(value.get(), &overflow));
    if (overflow != 0) clamped = overflow > 0 ? LLONG_MAX : LLONG_MIN;
    return {Ref::borrow(given), std::move(value), clamped};
}

LineNumber line_number(Py_ssize_t line) {
    Ref value = check(PyLong_FromSsize_t(line));
    return {value.dup(), std::move(value), line};
}

long long next_line(long long line) { return line == LLONG_MAX ? line : line + 1; }

// The lines an anchor addresses: the line its first character is on, and the line its last
// character is on. Or the refusal when it does not occur exactly once.
struct AnchorLines {
    Ref refusal;
    Py_ssize_t first = 0;
    Py_ssize_t last = 0;
};

Ref anchor_not_found() {
    return refusal("anchor not found in the file's current text -- re-read the region (it may have changed) "
                   "or address by line number");
}

// The search runs on the UTF-8 bytes: valid UTF-8 is self-synchronising, so a byte match of a
// whole encoded anchor starts and ends on character boundaries, and the leftmost byte match and
// the next one after it are exactly the matches str.find and str.count see.
AnchorLines anchor_lines(PyObject* text, std::string_view utf8, PyObject* anchor) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(anchor, &size);
    if (data == nullptr) {
        if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError)) throw PyError::fetch();
        // Lone surrogates: the text was decoded strictly and holds none, so the anchor cannot occur.
        PyErr_Clear();
        return {anchor_not_found()};
    }
    const std::string_view needle(data, static_cast<std::size_t>(size));
    const auto* found = static_cast<const char*>(memmem(utf8.data(), utf8.size(), needle.data(), needle.size()));
    if (found == nullptr) return {anchor_not_found()};
    const std::string_view rest = utf8.substr(static_cast<std::size_t>(found - utf8.data()) + needle.size());
    if (memmem(rest.data(), rest.size(), needle.data(), needle.size()) != nullptr) {
        const Py_ssize_t occurrences = check_value(PyUnicode_Count(text, anchor, 0, PY_SSIZE_T_MAX));
        return {refusal(check(PyUnicode_FromFormat(
            "anchor occurs %zd times -- include more surrounding text so it matches exactly once", occurrences)))};
    }
    const Py_ssize_t first = count_newlines(utf8.substr(0, static_cast<std::size_t>(found - utf8.data()))) + 1;
    Py_ssize_t breaks = count_newlines(needle);
    // A final "\n" ends the anchor's last line; it does not reach into the next one. Counting it
    // would make "replace" remove one line more than the anchor shows and refuse an anchor that
    // ends at the end of the file, so an anchor addresses exactly the lines its text covers.
    if (needle.back() == '\n') --breaks;
    return {Ref(), first, first + breaks};
}

// The removed lines for the receipt, each with its trailing "\n" stripped as str.rstrip("\n")
// would (a line holds at most one "\n", at its end; other line breaks stay).
Ref removed_lines(std::string_view utf8, Py_ssize_t from, Py_ssize_t to) {
    Ref lines = check(PyList_New(0));
    while (from < to) {
        const Py_ssize_t end = line_end(utf8, from);
        const Py_ssize_t kept = end - (utf8[end - 1] == '\n' ? 1 : 0);
        Ref line = check(PyUnicode_DecodeUTF8(utf8.data() + from, kept - from, "strict"));
        check(PyList_Append(lines.get(), line.get()));
        from = end;
    }
    return lines;
}

Ref start_out_of_range(const LineNumber& start, Py_ssize_t count) {
    return refusal(check(PyUnicode_FromFormat("start_line %S is out of range (file has %zd lines)",
                                              start.given.get(), count)));
}

Ref end_out_of_range(const LineNumber& end, const LineNumber& start, Py_ssize_t count) {
    return refusal(check(PyUnicode_FromFormat("end_line %S is out of range (start %S, file has %zd lines)",
                                              end.given.get(), start.given.get(), count)));
}

}  // namespace

Ref apply_block(PyObject* module, const BlockEdit& edit) {
    if (!paths::confined(module, edit.root, edit.abs_path)) return refusal("path escapes the project root");
    if (!path_is(module, "exists", edit.abs_path)) {
        return refusal(check(PyUnicode_FromFormat("%S does not exist (create_file makes new files)", edit.abs_path)));
    }
    const std::optional<Mode> mode = mode_named(edit.mode);
    if (!mode) {
        return refusal(check(PyUnicode_FromFormat(
            "unknown mode '%S' (replace | insert_before | insert_after)", edit.mode)));
    }
    Ref text = read_utf8(make_path(module, edit.abs_path).get());
    const std::string_view utf8 = utf8_of(text.get());

    Ref start_given = Ref::borrow(edit.start_line);
    Ref end_given = Ref::borrow(edit.end_line);
    if (edit.anchor != Py_None && PyUnicode_GET_LENGTH(edit.anchor) > 0) {
        AnchorLines anchored = anchor_lines(text.get(), utf8, edit.anchor);
        if (anchored.refusal) return std::move(anchored.refusal);
        const Py_ssize_t start = *mode == Mode::insert_after ? anchored.last : anchored.first;
        start_given = line_number(start).value;
        if (*mode == Mode::replace) end_given = line_number(anchored.last).value;
    }
    if (start_given.get() == Py_None) return refusal("give either start_line or anchor");
    const LineNumber start = line_number(start_given.get());

    // Cut the text at the start of two lines; the block goes between the cuts.
    std::array<long long, 2> cuts{start.clamped, start.clamped};
    std::optional<LineNumber> end;
    if (*mode == Mode::replace) {
        end = end_given.get() == Py_None ? LineNumber{start.given.dup(), start.value.dup(), start.clamped}
                                         : line_number(end_given.get());
        cuts[1] = next_line(end->clamped);
    } else if (*mode == Mode::insert_after) {
        cuts = {next_line(start.clamped), next_line(start.clamped)};
    }
    const LineLayout lines = layout(utf8, cuts);
    const long long last_start = *mode == Mode::insert_before ? lines.count + 1LL : lines.count;
    if (start.clamped < 1 || start.clamped > last_start) return start_out_of_range(start, lines.count);
    if (end && (end->clamped < start.clamped || end->clamped > lines.count)) {
        return end_out_of_range(*end, start, lines.count);
    }

    const auto [cut_before, cut_after] = lines.starts;
    Ref replaced = end ? removed_lines(utf8, cut_before, cut_after) : check(PyList_New(0));
    // Encoded before the file is opened: content UTF-8 cannot hold raises here, file untouched.
    const std::string_view block = utf8_of(edit.content);
    const bool block_needs_newline = !block.empty() && block.back() != '\n';
    // A block put after a last line without a line break would join that line; it gets its "\n"
    // first so the block stays on lines of its own.
    const bool tail_needs_newline =
        !block.empty() && cut_before == static_cast<Py_ssize_t>(utf8.size()) && !ends_with_line_break(utf8);
    const std::array<std::string_view, 5> pieces{
        utf8.substr(0, cut_before), tail_needs_newline ? "\n" : "", block, block_needs_newline ? "\n" : "",
        utf8.substr(cut_after)};
    write_in_place(module, edit.root, edit.abs_path, pieces);

    Ref syntax = call_kw(ns(module, parse::syntax_check_sig).get(), {edit.abs_path}, {{"before_text", text.get()}});
    return result({{"replaced", replaced.get()}, {"at", start.value.get()}, {"syntax", syntax.get()}});
}

}  // namespace editor::edits
