// Chunk planning: how a text is cut into stored chunks of at most 64 whole lines.
//
// A chunk is the triple (first line, last line, text): line numbers are 1-based and
// inclusive, and the text is the chunk's lines joined with one LF, whatever boundary
// stood between them in the source (CR LF included). A text without lines gives the one
// chunk (1, 0, ""). The planner never copies text: it reports, for each chunk, the
// source range it covers and what the caller needs to build the joined text in one
// allocation: its length in code points, whether it is ASCII, and where the boundaries
// are that are not a single LF already (most chunks have none, and are their range).
// joined_char_bound then says how wide a joined text that may not be ASCII must be
// stored, and copy_joined writes it.
//
// The planner reads the text once, 64 code points at a time (BoundaryScanner): a block
// holding fewer line ends than the chunk still needs is taken whole by counting its
// bits, and the end of a chunk is found by selecting the right bit, so a chunk costs a
// few operations per block rather than per line. The chunk's range is still in cache
// when the caller measures and copies it.
//
// Peak memory is the chunks themselves: nothing is allocated here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/line_scan.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace velmora::core {

inline constexpr size_t kChunkLines = 64;

struct ChunkSpan {
    size_t first_line;  // 1-based, inclusive
    size_t last_line;   // inclusive; 0 for the chunk of a text without lines
    size_t begin;       // source range [begin, end): the first line's start to the last line's end
    size_t end;
    size_t length;      // code points of the joined text
    bool ascii;         // the joined text is ASCII
    // The boundaries in [begin, end) that are not a lone LF, in order: where the joined
    // text differs from the range. They end lines of the chunk, so there are at most 63;
    // none means the range is the joined text. Valid only during the emit call.
    const size_t* specials;
    size_t special_count;
};

// Calls `emit(const ChunkSpan&)` for each chunk in line order; stops early and returns
// false when `emit` returns false. Always emits at least one chunk.
template <class Char, class Emit>
bool plan_chunks(const Char* text, size_t size, Emit&& emit) {
    size_t specials[kChunkLines];
    ChunkSpan span{1, 0, 0, 0, 0, true, specials, 0};
    if (size == 0) return emit(span);
    // Line ends are counted up to the end of the text, the boundary that ends it (if
    // any) included: that one is taken back at the end, once the scan has brought the
    // end of the text into cache.
    size_t need = kChunkLines;  // line ends that close the current chunk
    size_t folded = 0;          // CR LF pairs in the current chunk
    uint64_t wide = 0;          // whether it holds a code point above 0x7F
    const auto note_specials = [&](uint64_t bits, size_t base) {
        for (; bits != 0; bits &= bits - 1) {
            const size_t at = base + static_cast<size_t>(__builtin_ctzll(bits));
            specials[span.special_count++] = at;
            folded += boundary_width(text, at, size) - 1;
        }
    };
    BoundaryScanner<Char> scan(text, 0, size);
    size_t base;
    BlockMasks m;
    while (scan.next(base, m)) {
        for (;;) {
            // The chunk may begin inside this block, or just past it (after a CR LF
            // whose LF is the next block's first code point).
            const bool whole_block = span.begin <= base;
            const uint64_t live = whole_block ? ~uint64_t{0} : bits_from(span.begin - base);
            const uint64_t ends = m.ends & live;
            const unsigned count = whole_block ? m.count : popcount64(ends);
            if (count < need) {
                need -= count;
                note_specials(m.special & live, base);
                wide |= m.wide & live;
                break;
            }
            const unsigned at = select_bit(ends, static_cast<unsigned>(need - 1));
            const uint64_t inside = live & ~bits_from(at);
            note_specials(m.special & inside, base);
            span.end = base + at;
            span.last_line = span.first_line + kChunkLines - 1;
            span.length = span.end - span.begin - folded;
            span.ascii = (wide | (m.wide & inside)) == 0;
            if (!emit(span)) return false;
            span.first_line += kChunkLines;
            span.begin = span.end + boundary_width(text, span.end, size);
            span.special_count = 0;
            need = kChunkLines;
            folded = 0;
            wide = 0;
        }
    }
    // The last chunk: the lines left, the text's last line among them.
    const size_t trailing = trailing_boundary_width(text, size);
    size_t lines = kChunkLines - need;
    if (trailing == 0) {
        span.end = size;
        ++lines;  // the last line, which no boundary ends
    } else {
        if (lines == 0) return true;  // the boundary closed the chunk emitted last
        span.end = size - trailing;
        if (text[span.end] != '\n') --span.special_count;  // it was noted last
        folded -= trailing - 1;
    }
    span.last_line = span.first_line + lines - 1;
    span.length = span.end - span.begin - folded;
    span.ascii = wide == 0;
    return emit(span);
}

// The largest code point of the joined text of [begin, end), rounded up to the top of
// its storage width: 0x7F, 0xFF, 0xFFFF or 0x10FFFF, which is all PyUnicode_New needs.
// Boundaries become LF, so a wide boundary (U+0085, U+2028, U+2029) does not count.
template <class Char>
uint32_t joined_char_bound(const Char* text, size_t begin, size_t end) noexcept;

#if defined(__SSE2__)
// Sixteen code points to a narrower destination that holds them. Signed saturating packs
// are exact for values that fit, except 16-bit values from 0x8000 up, which are moved
// down by 0x8000 around the pack.
template <class Src, class Dst>
inline void narrow_sixteen(const Src* from, Dst* to) noexcept {
    const auto* v = reinterpret_cast<const __m128i*>(from);
    auto* out = reinterpret_cast<__m128i*>(to);
    if constexpr (sizeof(Src) == 2) {
        _mm_storeu_si128(out, _mm_packus_epi16(_mm_loadu_si128(v), _mm_loadu_si128(v + 1)));
    } else if constexpr (sizeof(Dst) == 1) {
        const __m128i a = _mm_packs_epi32(_mm_loadu_si128(v), _mm_loadu_si128(v + 1));
        const __m128i b = _mm_packs_epi32(_mm_loadu_si128(v + 2), _mm_loadu_si128(v + 3));
        _mm_storeu_si128(out, _mm_packus_epi16(a, b));
    } else {
        const __m128i bias32 = _mm_set1_epi32(0x8000);
        const __m128i bias16 = _mm_set1_epi16(static_cast<short>(0x8000));
        for (int half = 0; half < 2; ++half) {
            const __m128i a = _mm_sub_epi32(_mm_loadu_si128(v + 2 * half), bias32);
            const __m128i b = _mm_sub_epi32(_mm_loadu_si128(v + 2 * half + 1), bias32);
            _mm_storeu_si128(out + half, _mm_add_epi16(_mm_packs_epi32(a, b), bias16));
        }
    }
}
#endif

// Copies `count` code points to a destination that can hold every one of them. Chunks
// are never wider than their text, so only the narrowing copies are made fast.
template <class Src, class Dst>
void copy_code_points(const Src* from, size_t count, Dst* to) noexcept {
    size_t i = 0;
    if constexpr (sizeof(Src) == sizeof(Dst)) {
        if (count != 0) std::memcpy(to, from, count * sizeof(Src));
        return;
    } else if constexpr (sizeof(Src) > sizeof(Dst)) {
#if defined(__SSE2__)
        for (; i + 16 <= count; i += 16) narrow_sixteen(from + i, to + i);
#endif
    }
    for (; i < count; ++i) to[i] = static_cast<Dst>(from[i]);
}

// Writes the joined text of a chunk to `out`, which holds its span.length code points:
// each boundary, CR LF included, becomes one LF.
template <class Src, class Dst>
void copy_joined(const Src* text, const ChunkSpan& span, Dst* out) noexcept {
    size_t pos = span.begin;  // the source not yet copied
    for (size_t k = 0; k < span.special_count; ++k) {
        const size_t at = span.specials[k];
        copy_code_points(text + pos, at - pos, out);
        out += at - pos;
        *out++ = static_cast<Dst>('\n');
        pos = at + boundary_width(text, at, span.end);
    }
    copy_code_points(text + pos, span.end - pos, out);
}

}  // namespace velmora::core
