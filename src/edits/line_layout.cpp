#include <Python.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "edits/line_layout.hpp"

namespace editor::edits {
namespace {

// Bytes that can begin a line break in UTF-8. U+0085 is C2 85 and U+2028/U+2029 are E2 80 A8/A9;
// lead bytes never occur inside another character, so a match at one is a whole character.
constexpr std::array<bool, 256> break_leads = [] {
    std::array<bool, 256> table{};
    for (unsigned char byte : {0x0A, 0x0B, 0x0C, 0x0D, 0x1C, 0x1D, 0x1E, 0xC2, 0xE2}) table[byte] = true;
    return table;
}();

// Length of the line break at `at`, 0 when the byte there starts none.
Py_ssize_t break_length(const unsigned char* text, Py_ssize_t size, Py_ssize_t at) noexcept {
    const Py_ssize_t rest = size - at;
    switch (text[at]) {
        case 0x0D: return rest > 1 && text[at + 1] == 0x0A ? 2 : 1;
        case 0x0A: case 0x0B: case 0x0C: case 0x1C: case 0x1D: case 0x1E: return 1;
        case 0xC2: return rest > 1 && text[at + 1] == 0x85 ? 2 : 0;
        case 0xE2: return rest > 2 && text[at + 1] == 0x80 && (text[at + 2] | 1) == 0xA9 ? 3 : 0;
        default: return 0;
    }
}

// Eight bytes at a time while none of them can start a break: every candidate is a control
// byte below 0x20 or a byte of 0xC0 and above, which two word operations detect together.
Py_ssize_t skip_plain_words(const unsigned char* text, Py_ssize_t size, Py_ssize_t at) noexcept {
    constexpr std::uint64_t ones = 0x0101010101010101ULL, highs = 0x8080808080808080ULL;
    while (size - at >= 8) {
        std::uint64_t word;
        std::memcpy(&word, text + at, 8);
        const std::uint64_t control = (word - 0x20 * ones) & ~word & highs;  // some byte < 0x20
        const std::uint64_t upper = word & (word << 1) & highs;               // some byte >= 0xC0
        if (control | upper) break;
        at += 8;
    }
    return at;
}

}  // namespace

Py_ssize_t line_end(std::string_view utf8, Py_ssize_t from) noexcept {
    const auto* text = reinterpret_cast<const unsigned char*>(utf8.data());
    const auto size = static_cast<Py_ssize_t>(utf8.size());
    Py_ssize_t at = from;
    while (at < size) {
        at = skip_plain_words(text, size, at);
        const Py_ssize_t stop = at + 8 < size ? at + 8 : size;
        for (; at < stop; ++at) {
            if (!break_leads[text[at]]) continue;
            if (const Py_ssize_t length = break_length(text, size, at)) return at + length;
        }
    }
    return size;
}

Py_ssize_t count_newlines(std::string_view utf8) noexcept {
    // Byte-wide tallies, emptied before they can wrap, let the compiler compare 16 or 32 bytes
    // per instruction; a plain std::count widens every byte to 64 bits and runs several times slower.
    constexpr std::size_t lanes = 32, rounds = 255;
    Py_ssize_t total = 0;
    const char* at = utf8.data();
    const char* const end = at + utf8.size();
    while (static_cast<std::size_t>(end - at) >= lanes * rounds) {
        std::array<unsigned char, lanes> tally{};
        for (std::size_t round = 0; round < rounds; ++round, at += lanes) {
            for (std::size_t lane = 0; lane < lanes; ++lane) tally[lane] += at[lane] == '\n';
        }
        for (unsigned char lane_total : tally) total += lane_total;
    }
    return total + static_cast<Py_ssize_t>(std::count(at, end, '\n'));
}

bool ends_with_line_break(std::string_view utf8) noexcept {
    const auto* text = reinterpret_cast<const unsigned char*>(utf8.data());
    const auto size = static_cast<Py_ssize_t>(utf8.size());
    // A line break is at most three bytes long.
    for (Py_ssize_t at = size - 1; at >= 0 && at >= size - 3; --at) {
        if (break_leads[text[at]] && at + break_length(text, size, at) == size) return true;
    }
    return size == 0;
}

LineLayout layout(std::string_view utf8, std::array<long long, 2> wanted) noexcept {
    LineLayout found;
    const auto size = static_cast<Py_ssize_t>(utf8.size());
    auto note = [&](long long line, Py_ssize_t offset) {
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            if (wanted[i] == line) found.starts[i] = offset;
        }
    };
    Py_ssize_t at = 0;
    while (at < size) {
        note(++found.count, at);
        at = line_end(utf8, at);
    }
    note(found.count + 1, size);
    return found;
}

}  // namespace editor::edits
