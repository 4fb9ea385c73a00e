// What the core's fuzz targets share: turning fuzz bytes into a text of one of the three
// widths, laying it out so that any read outside it is caught, and the plain references
// the core is checked against.
//
// Input layout: byte 0 picks the width (and the text's alignment), bytes 1..3 are
// parameters each target reads in its own way, and the rest are text tokens:
//   00..7F  that code point (ASCII, control characters included)
//   80..BF  a code point from kSpecial: boundaries, the case-folding letters, the edges of
//           the widths and of the SIMD narrowing (values whose low byte is a boundary)
//   C0..DF  a 16-bit code point from the next two bytes (little-endian)
//   E0..EF  a code point from the next three bytes (21 bits, taken modulo 0x110000)
//   F0..F7  repeat the last 1..64 code points, up to a few thousand times: long runs
//   F8..FF  the target's needle, cased or spelled by bits 0..2 (or a repeat, without one)
// A code point too wide for the width keeps its low bits. fuzz/fuzz_text.py decodes the
// same bytes the same way, so that a kept input replays through the Python functions.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#define VELMORA_FUZZ_ASAN 1
#endif
#endif

namespace velmora::fuzz {

inline constexpr uint32_t kSpecial[] = {
    0x0A, 0x0B, 0x0C, 0x0D, 0x1C, 0x1D, 0x1E, 0x85, 0x2028, 0x2029,   // boundaries
    0x0D, 0x0A, 0x0D, 0x0D,                                          // CR and LF again: CR LF pairs
    0x130, 0x212A, 0x307, 0x131, 0x3A3, 0x17F,                        // case folding
    'k', 'K', 'i', 'I',                                              //
    0xD800, 0xDBFF, 0xDC00, 0xDFFF,                                  // lone surrogates
    0x7F, 0x80, 0x84, 0x86, 0xFF, 0x100, 0x7FF, 0x800,               // width edges
    0xFFFF, 0xFFFD, 0x10000, 0x10FFFF, 0x8000, 0x7FFF,               //
    0x010A, 0x010D, 0x0A0A, 0xFF0D, 0xFF85, 0x2027, 0x202A, 0x2128,  // low byte a boundary
    0x12028, 0x12029, 0x1000A, 0x1000D, 0x10085, 0x30A, 0x2029 | 0x10000,
    0xE2, 0x84, 0xAA, 0xC4, 0xB0,                                    // UTF-8 of U+212A, U+0130
};
inline constexpr size_t kSpecialCount = sizeof(kSpecial) / sizeof(kSpecial[0]);
static_assert(kSpecialCount <= 64);

// Long enough for the planner's many chunks and the scanner's refills, short enough to
// keep thousands of runs a second. The stored-size target asks for more: its counters
// are emptied every few ten thousand code points.
inline constexpr size_t kMaxText = size_t{1} << 13;

inline uint32_t clamp_to(uint32_t cp, int width) {
    if (width == 1 && cp > 0xFF) return cp & 0xFF;
    if (width == 2 && cp > 0xFFFF) return cp & 0xFFFF;
    return cp;
}

// The code points the tokens of `data` stand for, at most `max_text` of them; tokens
// F8..FF insert `needle` when one is given.
std::vector<uint32_t> decode_text(const uint8_t* data, size_t size, int width,
                                  const std::vector<uint8_t>* needle = nullptr, size_t max_text = kMaxText);

inline int width_of(uint8_t header) {
    static constexpr int widths[3] = {1, 2, 4};
    return widths[header % 3];
}

// The text at the very end of a heap block, after 0..15 poisoned code points that move its
// alignment: a read past its end is reported, and one before it mostly too (ASan poisons
// in 8-byte granules).
template <class Char>
class PlacedText {
  public:
    PlacedText(const std::vector<uint32_t>& cps, size_t offset)
        : offset_(offset),
          size_(cps.size()),
          block_(static_cast<Char*>(std::malloc(std::max<size_t>((offset + size_) * sizeof(Char), 1)))) {
        if (block_ == nullptr) std::abort();
        for (size_t i = 0; i < size_; ++i) block_[offset + i] = static_cast<Char>(cps[i]);
#ifdef VELMORA_FUZZ_ASAN
        ASAN_POISON_MEMORY_REGION(block_, offset * sizeof(Char));
#endif
    }
    ~PlacedText() {
#ifdef VELMORA_FUZZ_ASAN
        ASAN_UNPOISON_MEMORY_REGION(block_, offset_ * sizeof(Char));
#endif
        std::free(block_);
    }
    PlacedText(const PlacedText&) = delete;
    PlacedText& operator=(const PlacedText&) = delete;

    const Char* data() const { return block_ + offset_; }
    size_t size() const { return size_; }

  private:
    size_t offset_;
    size_t size_;
    Char* block_;
};

// Calls f(const Char* text, size_t size) with the text placed at the width asked for.
template <class F>
void with_text(int width, const std::vector<uint32_t>& cps, size_t offset, F&& f) {
    if (width == 1) {
        PlacedText<uint8_t> t(cps, offset);
        f(t.data(), t.size());
    } else if (width == 2) {
        PlacedText<uint16_t> t(cps, offset);
        f(t.data(), t.size());
    } else {
        PlacedText<uint32_t> t(cps, offset);
        f(t.data(), t.size());
    }
}

[[noreturn]] inline void fail(const char* what, size_t a = 0, size_t b = 0) {
    std::fprintf(stderr, "MISMATCH: %s (%zu vs %zu)\n", what, a, b);
    std::abort();
}

#define FUZZ_CHECK_EQ(got, want, what)                                                       \
    do {                                                                                     \
        const auto got_ = (got);                                                             \
        const auto want_ = (want);                                                           \
        if (!(got_ == want_)) ::velmora::fuzz::fail(what, static_cast<size_t>(got_), static_cast<size_t>(want_)); \
    } while (0)

// --- References: the plainest reading of the host's rules -----------------------------

// The references below are built without coverage instrumentation (fuzz_text.cpp), so that
// the fuzzer spends its time on the core, not on them.

// The boundaries of str.splitlines, listed.
bool ref_boundary(uint32_t c);

struct RefLine {
    size_t begin, end, next;
};

// str.splitlines(): a line ends at each boundary, CR LF being one; a boundary at the very
// end starts no further line.
std::vector<RefLine> ref_lines(const std::vector<uint32_t>& t);

// The lines [from, to) joined with one LF.
std::vector<uint32_t> ref_join(const std::vector<uint32_t>& t, const std::vector<RefLine>& lines, size_t from,
                               size_t to);

// t.lower(), as far as an ASCII needle can tell: ASCII letters to lower case, U+0130 to "i"
// U+0307, U+212A to "k", every other code point to itself; and the index in `t` of each
// code point of it.
void ref_lower(const std::vector<uint32_t>& t, std::vector<uint32_t>& lowered, std::vector<size_t>& origin);

// UTF-8 length, a lone surrogate being the one byte "?" it is stored as.
uint64_t ref_utf8_length(const std::vector<uint32_t>& t);

}  // namespace velmora::fuzz
