// Line scanning: the line-boundary rule of Python's str.splitlines(), over text of
// any of the three CPython string widths.
//
// A text is a run of code points of type Char (uint8_t, uint16_t or uint32_t, the
// PyUnicode kinds 1, 2 and 4), given as a pointer and a length in code points. The
// boundaries are LF, VT, FF, CR, U+001C..U+001E, U+0085, U+2028 and U+2029; CR LF is
// one boundary of two code points. A boundary at the very end of a text ends the last
// line and starts no further one, so "" has no lines and "a\n" has one.
//
// Nothing here allocates or owns memory; every function reads the span it is given.
// Offsets are code-point indexes into that span, ranges are half-open [begin, end).
#pragma once

#include <cstddef>
#include <cstdint>

namespace velmora::core {

template <class Char>
constexpr bool is_line_boundary(Char c) noexcept {
    const uint32_t u = c;
    return (u - 0x0Au) <= 3u || (u - 0x1Cu) <= 2u || u == 0x85u || (u - 0x2028u) <= 1u;
}

// Index of the first boundary at or after `pos`, or `size` when there is none.
template <class Char>
size_t find_line_boundary(const Char* text, size_t pos, size_t size) noexcept;

// Code points taken by the boundary at `pos` (which must be one): 2 for CR LF, else 1.
template <class Char>
constexpr size_t boundary_width(const Char* text, size_t pos, size_t size) noexcept {
    return (text[pos] == '\r' && pos + 1 < size && text[pos + 1] == '\n') ? 2 : 1;
}

// One line of a text: [begin, end) without its boundary; `next` is where the following
// line starts (end + boundary width, or `size` for the last line).
struct Line {
    size_t begin;
    size_t end;
    size_t next;
};

// Walks the lines of a text in order: `while (lines.next(line)) ...`.
template <class Char>
class LineCursor {
  public:
    LineCursor(const Char* text, size_t size) noexcept : text_(text), size_(size) {}

    bool next(Line& line) noexcept {
        if (pos_ >= size_) return false;
        const size_t end = find_line_boundary(text_, pos_, size_);
        line.begin = pos_;
        line.end = end;
        line.next = end < size_ ? end + boundary_width(text_, end, size_) : size_;
        pos_ = line.next;
        return true;
    }

  private:
    const Char* text_;
    size_t size_;
    size_t pos_ = 0;
};

}  // namespace velmora::core
