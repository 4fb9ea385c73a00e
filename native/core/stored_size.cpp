#include "core/stored_size.hpp"

#include <cstring>

#include "core/line_scan.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace velmora::core {
namespace {

// Bytes beyond the first that one code point adds, with each boundary counted as the
// one LF it becomes and a lone surrogate as its "?": written without branches.
template <class Char>
constexpr uint32_t extra_width(Char ch) noexcept {
    const uint32_t c = ch;
    const uint32_t wide = static_cast<uint32_t>(c >= 0x80u) + static_cast<uint32_t>(c >= 0x800u) +
                          static_cast<uint32_t>(c >= 0x10000u);
    const uint32_t one_byte = static_cast<uint32_t>(c == 0x85u) +
                              2u * static_cast<uint32_t>((c - 0xD800u) < 0x800u || (c | 1u) == 0x2029u);
    return wide - one_byte;
}

// The extra bytes of [from, to), one code point at a time.
template <class Char>
uint64_t scalar_extra(const Char* text, size_t from, size_t to) noexcept {
    uint64_t extra = 0;
    for (size_t i = from; i < to; ++i) extra += extra_width(text[i]);
    return extra;
}

// CR LF pairs whose CR lies in [from, size).
template <class Char>
uint64_t scalar_pairs(const Char* text, size_t from, size_t size) noexcept {
    uint64_t pairs = 0;
    for (size_t i = from; i + 1 < size; ++i) {
        pairs += static_cast<uint64_t>(text[i] == '\r') & static_cast<uint64_t>(text[i + 1] == '\n');
    }
    return pairs;
}

#if defined(__SSE2__)

inline __m128i load(const void* p) noexcept { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }

// Each vector loop below stops one code point short of the end, as its CR LF test reads
// the code point after each CR; the scalar tail takes the rest.

// Bytes: a byte from 0x80 up adds one, but NEL (0x85, which becomes an LF). Byte
// counters, emptied into 64-bit sums before they can wrap.
uint64_t extra_less_pairs(const uint8_t* text, size_t size) noexcept {
    const __m128i zero = _mm_setzero_si128();
    const __m128i nel = _mm_set1_epi8(static_cast<char>(0x85));
    const __m128i cr = _mm_set1_epi8('\r'), lf = _mm_set1_epi8('\n');
    const size_t stop = size > 0 ? size - 1 : 0;
    __m128i up = zero, down = zero;
    size_t i = 0;
    while (i + 16 <= stop) {
        __m128i high = zero, back = zero;
        for (int round = 0; round < 255 && i + 16 <= stop; ++round, i += 16) {
            const __m128i x = load(text + i);
            const __m128i pair = _mm_and_si128(_mm_cmpeq_epi8(x, cr), _mm_cmpeq_epi8(load(text + i + 1), lf));
            // Compares give -1: a high byte counts up, NEL and a CR LF pair count down.
            high = _mm_sub_epi8(high, _mm_cmplt_epi8(x, zero));
            back = _mm_sub_epi8(back, _mm_or_si128(_mm_cmpeq_epi8(x, nel), pair));
        }
        up = _mm_add_epi64(up, _mm_sad_epu8(high, zero));
        down = _mm_add_epi64(down, _mm_sad_epu8(back, zero));
    }
    uint64_t u[2], d[2];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u), up);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), down);
    return u[0] + u[1] - d[0] - d[1] + scalar_extra(text, i, size) - scalar_pairs(text, i, size);
}

// The wide kinds hold mostly ASCII in practice (one wide character makes a whole file
// wide), so a group of 64 bytes is first asked whether it holds a code point above 0x7F
// or a CR; one that holds neither adds nothing. Any other is measured lane by lane:
// every compare gives -1, so lanes count the extra bytes negated, in 16 or 32 bits,
// emptied before they can overflow.

// Whether a group of four vectors may add anything.
inline bool plain_group(const __m128i* v, uint16_t) noexcept {
    const __m128i any = _mm_or_si128(_mm_or_si128(v[0], v[1]), _mm_or_si128(v[2], v[3]));
    const __m128i high = _mm_and_si128(any, _mm_set1_epi16(static_cast<short>(0xFF80)));
    // Packed with unsigned saturation only a CR stays 0x0D.
    const __m128i cr = _mm_set1_epi8('\r');
    const __m128i crs = _mm_or_si128(_mm_cmpeq_epi8(_mm_packus_epi16(v[0], v[1]), cr),
                                     _mm_cmpeq_epi8(_mm_packus_epi16(v[2], v[3]), cr));
    return _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_or_si128(high, crs), _mm_setzero_si128())) == 0xFFFF;
}

inline bool plain_group(const __m128i* v, uint32_t) noexcept {
    // Narrowed to bytes by saturation: from 0x80 up the top bit is set, and only a CR
    // is 0x0D.
    const __m128i x = _mm_packus_epi16(_mm_packs_epi32(v[0], v[1]), _mm_packs_epi32(v[2], v[3]));
    return _mm_movemask_epi8(_mm_or_si128(x, _mm_cmpeq_epi8(x, _mm_set1_epi8('\r')))) == 0;
}

// 16-bit lanes: -(extra) = -[c >= 0x80] - [c >= 0x800] + NEL + 2 (surrogate or
// separator) + (CR before LF), the -[c >= N] written as [c < N] - 1.
inline __m128i negated_extra(__m128i x, __m128i next, uint16_t) noexcept {
    const __m128i zero = _mm_setzero_si128();
    const __m128i hi5 = _mm_and_si128(x, _mm_set1_epi16(static_cast<short>(0xF800)));
    const __m128i below80 = _mm_cmpeq_epi16(_mm_and_si128(x, _mm_set1_epi16(static_cast<short>(0xFF80))), zero);
    const __m128i below800 = _mm_cmpeq_epi16(hi5, zero);
    const __m128i nel = _mm_cmpeq_epi16(x, _mm_set1_epi16(0x85));
    const __m128i one_byte = _mm_or_si128(
        _mm_cmpeq_epi16(hi5, _mm_set1_epi16(static_cast<short>(0xD800))),
        _mm_cmpeq_epi16(_mm_or_si128(x, _mm_set1_epi16(1)), _mm_set1_epi16(0x2029)));
    const __m128i pair = _mm_and_si128(_mm_cmpeq_epi16(x, _mm_set1_epi16('\r')),
                                       _mm_cmpeq_epi16(next, _mm_set1_epi16('\n')));
    // below80 + below800 is the width's extra less 2; `back` is -1 for each byte taken off.
    const __m128i extra_less_2 = _mm_add_epi16(below80, below800);
    const __m128i back = _mm_add_epi16(_mm_add_epi16(nel, pair), _mm_add_epi16(one_byte, one_byte));
    return _mm_sub_epi16(_mm_sub_epi16(_mm_set1_epi16(-2), extra_less_2), back);
}

inline __m128i negated_extra(__m128i x, __m128i next, uint32_t) noexcept {
    // Code points are at most 0x10FFFF, so signed compares are unsigned ones here.
    const __m128i above7f = _mm_cmpgt_epi32(x, _mm_set1_epi32(0x7F));
    const __m128i above7ff = _mm_cmpgt_epi32(x, _mm_set1_epi32(0x7FF));
    const __m128i aboveffff = _mm_cmpgt_epi32(x, _mm_set1_epi32(0xFFFF));
    const __m128i nel = _mm_cmpeq_epi32(x, _mm_set1_epi32(0x85));
    const __m128i one_byte = _mm_or_si128(
        _mm_cmpeq_epi32(_mm_and_si128(x, _mm_set1_epi32(static_cast<int>(0xFFFFF800u))), _mm_set1_epi32(0xD800)),
        _mm_cmpeq_epi32(_mm_or_si128(x, _mm_set1_epi32(1)), _mm_set1_epi32(0x2029)));
    const __m128i pair = _mm_and_si128(_mm_cmpeq_epi32(x, _mm_set1_epi32('\r')),
                                       _mm_cmpeq_epi32(next, _mm_set1_epi32('\n')));
    const __m128i up = _mm_add_epi32(_mm_add_epi32(above7f, above7ff), aboveffff);
    const __m128i back = _mm_add_epi32(_mm_add_epi32(nel, pair), _mm_add_epi32(one_byte, one_byte));
    return _mm_sub_epi32(up, back);
}

template <class Char>
uint64_t extra_less_pairs(const Char* text, size_t size) noexcept {
    constexpr size_t kLanes = 16 / sizeof(Char);
    constexpr size_t kGroup = 4 * kLanes;
    const size_t stop = size > 0 ? size - 1 : 0;
    uint64_t extra = 0;
    size_t i = 0;
    while (i + kGroup <= stop) {
        // A 16-bit lane moves by at most 4 a vector: 1024 groups stay within range.
        __m128i acc = _mm_setzero_si128();
        for (int round = 0; round < 1024 && i + kGroup <= stop; ++round, i += kGroup) {
            __m128i v[4];
            for (int k = 0; k < 4; ++k) v[k] = load(text + i + k * kLanes);
            if (plain_group(v, Char{})) continue;
            for (int k = 0; k < 4; ++k) {
                const __m128i e = negated_extra(v[k], load(text + i + k * kLanes + 1), Char{});
                acc = sizeof(Char) == 2 ? _mm_add_epi16(acc, e) : _mm_add_epi32(acc, e);
            }
        }
        if constexpr (sizeof(Char) == 2) acc = _mm_madd_epi16(acc, _mm_set1_epi16(1));  // to 32 bits
        int32_t sums[4];
        _mm_storeu_si128(reinterpret_cast<__m128i*>(sums), acc);
        extra -= static_cast<uint64_t>(static_cast<int64_t>(sums[0]) + sums[1] + sums[2] + sums[3]);
    }
    return extra + scalar_extra(text, i, size) - scalar_pairs(text, i, size);
}

#else

template <class Char>
uint64_t extra_less_pairs(const Char* text, size_t size) noexcept {
    return scalar_extra(text, 0, size) - scalar_pairs(text, 0, size);
}

#endif

// CR LF pairs of an ASCII text. Most code has no CR at all: one memchr, and done.
uint64_t crlf_pairs(const uint8_t* text, size_t size) noexcept {
    uint64_t pairs = 0;
    const uint8_t* end = text + size;
    for (const uint8_t* p = text; p < end;) {
        const void* hit = std::memchr(p, '\r', static_cast<size_t>(end - p));
        if (hit == nullptr) break;
        p = static_cast<const uint8_t*>(hit) + 1;
        pairs += static_cast<uint64_t>(p < end && *p == '\n');
    }
    return pairs;
}

}  // namespace

template <class Char>
uint64_t stored_text_bytes(const Char* text, size_t size) noexcept {
    // Every code point one byte plus its extra; a CR LF pair one byte less (it is one
    // boundary); the boundary that ends the text nothing.
    const bool trailing = size != 0 && is_line_boundary(text[size - 1]);
    return size + extra_less_pairs(text, size) - static_cast<uint64_t>(trailing);
}

uint64_t stored_ascii_bytes(const uint8_t* text, size_t size) noexcept {
    const bool trailing = size != 0 && is_line_boundary(text[size - 1]);
    return size - crlf_pairs(text, size) - static_cast<uint64_t>(trailing);
}

template uint64_t stored_text_bytes<uint8_t>(const uint8_t*, size_t) noexcept;
template uint64_t stored_text_bytes<uint16_t>(const uint16_t*, size_t) noexcept;
template uint64_t stored_text_bytes<uint32_t>(const uint32_t*, size_t) noexcept;

}  // namespace velmora::core
