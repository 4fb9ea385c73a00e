// Line scanning: the line-boundary rule of Python's str.splitlines(), over text of
// any of the three CPython string widths.
//
// A text is a run of code points of type Char (uint8_t, uint16_t or uint32_t, the
// PyUnicode kinds 1, 2 and 4), given as a pointer and a length in code points. The
// boundaries are LF, VT, FF, CR, U+001C..U+001E, U+0085, U+2028 and U+2029; CR LF is
// one boundary of two code points. A boundary at the very end of a text ends the last
// line and starts no further one, so "" has no lines and "a\n" has one.
//
// Two ways to walk a text. LineCursor hands out one line at a time and suits short
// texts or callers that look at every line anyway. BoundaryScanner reads 64 code points
// at a time and answers with bit masks (bit i for code point base + i): where lines end,
// which of those ends are not a lone LF, and which code points outside the boundaries
// are not ASCII. Whole-text
// work (counting lines, cutting chunks, copying with boundaries rewritten) uses the
// masks, so its cost per line is a few bit operations instead of a call and a loop.
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

// Code points of the boundary that ends a text (0 when it ends in none): the text
// without them is the text's lines and the boundaries between them.
template <class Char>
constexpr size_t trailing_boundary_width(const Char* text, size_t size) noexcept {
    if (size == 0 || !is_line_boundary(text[size - 1])) return 0;
    return (size >= 2 && text[size - 1] == '\n' && text[size - 2] == '\r') ? 2 : 1;
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

// The boundaries of one block of up to 64 code points; bit i is code point base + i.
struct BlockMasks {
    uint64_t ends;     // the first code point of every boundary (the LF of a CR LF is none)
    uint64_t special;  // the ends that are not a lone LF: they differ from the joined text
    uint64_t wide;     // code points above 0x7F that are no boundary: kept, and not ASCII
    unsigned count;    // line ends in the block (the set bits of `ends`)
};

inline constexpr size_t kBlock = 64;

// Fills out[0..n) with the masks of the consecutive blocks from `pos`, the last one cut
// at `end` (bits past `end` are 0), for n = min(max_blocks, blocks left); returns n.
// `cr_before` says whether the code point before `pos` is a CR (an LF at `pos` then
// belongs to it); it is updated to the same for the position after the last block.
template <class Char>
size_t scan_blocks(const Char* text, size_t pos, size_t end, bool& cr_before, BlockMasks* out,
                   size_t max_blocks) noexcept;

// Hands out the masks of [begin, end) block by block: `while (scan.next(base, m)) ...`.
// A CR LF that straddles two blocks is seen whole (its LF ends no line in the next block);
// one that straddles `begin` too, from the code point before it.
template <class Char>
class BoundaryScanner {
  public:
    BoundaryScanner(const Char* text, size_t begin, size_t end) noexcept
        : text_(text), pos_(begin), end_(end), cr_before_(begin > 0 && text[begin - 1] == '\r') {}

    bool next(size_t& base, BlockMasks& masks) noexcept {
        if (at_ == filled_) {
            if (pos_ >= end_) return false;
            filled_ = scan_blocks(text_, pos_, end_, cr_before_, buffer_, kBuffered);
            at_ = 0;
            buffer_base_ = pos_;
            pos_ += filled_ * kBlock;
        }
        base = buffer_base_ + at_ * kBlock;
        masks = buffer_[at_++];
        return true;
    }

  private:
    // Enough blocks per refill that the call is paid once per kilobyte or so, few enough
    // that the text they cover is still in cache when the caller reads it.
    static constexpr size_t kBuffered = 16;

    const Char* text_;
    size_t pos_;
    size_t end_;
    bool cr_before_;
    size_t buffer_base_ = 0;
    size_t filled_ = 0;
    size_t at_ = 0;
    BlockMasks buffer_[kBuffered];
};

// Bit tricks over the masks. x86-64's baseline has no POPCNT, and a libgcc call per
// block costs more than this.
constexpr unsigned popcount64(uint64_t x) noexcept {
    x = x - ((x >> 1) & 0x5555555555555555ull);
    x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
    x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Full;
    return static_cast<unsigned>((x * 0x0101010101010101ull) >> 56);
}

// Bits [from, 64) set; from may be 64.
constexpr uint64_t bits_from(size_t from) noexcept {
    return from >= 64 ? 0 : ~uint64_t{0} << from;
}

// Index of the (k + 1)-th set bit of x, which has more than k set bits.
constexpr unsigned select_bit(uint64_t x, unsigned k) noexcept {
    for (; k != 0; --k) x &= x - 1;
    return static_cast<unsigned>(__builtin_ctzll(x));
}

}  // namespace velmora::core
