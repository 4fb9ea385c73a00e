#include "core/line_scan.hpp"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace velmora::core {
namespace {

// Raw masks of 64 code points: every boundary code point, LFs, CRs, and code points
// above 0x7F.
struct RawMasks {
    uint64_t boundary;
    uint64_t lf;
    uint64_t cr;
    uint64_t high;
};

#if defined(__SSE2__)

// Sixteen code points as bytes: a code point below 0x100 keeps its value, any other
// becomes 0xFF, which is no boundary and, like them, above 0x7F.
inline __m128i narrow16(const uint8_t* p) noexcept {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

inline __m128i narrow16(const uint16_t* p) noexcept {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8));
    // min(x, 0xFF) by unsigned saturation (SSE2 has no unsigned 16-bit min); the pack is
    // then exact.
    const __m128i ff = _mm_set1_epi16(0xFF);
    return _mm_packus_epi16(_mm_sub_epi16(a, _mm_subs_epu16(a, ff)),
                            _mm_sub_epi16(b, _mm_subs_epu16(b, ff)));
}

inline __m128i narrow16(const uint32_t* p) noexcept {
    const auto* v = reinterpret_cast<const __m128i*>(p);
    // Signed saturation keeps everything below 0x8000 and turns the rest into 0x7FFF;
    // the second pack turns 0x100..0x7FFF into 0xFF.
    const __m128i a = _mm_packs_epi32(_mm_loadu_si128(v), _mm_loadu_si128(v + 1));
    const __m128i b = _mm_packs_epi32(_mm_loadu_si128(v + 2), _mm_loadu_si128(v + 3));
    return _mm_packus_epi16(a, b);
}

// U+2028 and U+2029, the only boundaries above 0xFF, among sixteen code points.
inline int separators16(const uint8_t*) noexcept { return 0; }

inline int separators16(__m128i a, __m128i b) noexcept {
    const __m128i keep = _mm_set1_epi16(static_cast<short>(0xFFFE));
    const __m128i ls = _mm_set1_epi16(0x2028);
    const __m128i sa = _mm_cmpeq_epi16(_mm_and_si128(a, keep), ls);
    const __m128i sb = _mm_cmpeq_epi16(_mm_and_si128(b, keep), ls);
    return _mm_movemask_epi8(_mm_packs_epi16(sa, sb));
}

inline int separators16(const uint16_t* p) noexcept {
    return separators16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                        _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)));
}

inline int separators16(const uint32_t* p) noexcept {
    // Signed saturation keeps U+2028/U+2029 and makes nothing else equal to them.
    const auto* v = reinterpret_cast<const __m128i*>(p);
    return separators16(_mm_packs_epi32(_mm_loadu_si128(v), _mm_loadu_si128(v + 1)),
                        _mm_packs_epi32(_mm_loadu_si128(v + 2), _mm_loadu_si128(v + 3)));
}

// Boundaries below 0x100 among sixteen bytes, as unsigned range checks.
inline int byte_boundaries(__m128i x) noexcept {
    const __m128i a = _mm_sub_epi8(x, _mm_set1_epi8(0x0A));
    const __m128i b = _mm_sub_epi8(x, _mm_set1_epi8(0x1C));
    const __m128i hit = _mm_or_si128(
        _mm_or_si128(_mm_cmpeq_epi8(_mm_min_epu8(a, _mm_set1_epi8(3)), a),
                     _mm_cmpeq_epi8(_mm_min_epu8(b, _mm_set1_epi8(2)), b)),
        _mm_cmpeq_epi8(x, _mm_set1_epi8(static_cast<char>(0x85))));
    return _mm_movemask_epi8(hit);
}

inline uint64_t u16(int mask) noexcept { return static_cast<uint64_t>(static_cast<uint16_t>(mask)); }

template <class Char>
inline RawMasks raw_masks(const Char* p) noexcept {
    // First the cheap question that settles most blocks of source code: a signed
    // compare flags every byte below 0x20 or above 0x7F, which takes in every boundary
    // (U+0085 and, narrowed to 0xFF, U+2028/U+2029 too). When the only such bytes are
    // LFs, the LFs are the boundaries and nothing is wide.
    const __m128i space = _mm_set1_epi8(0x20), nl = _mm_set1_epi8('\n');
    __m128i x[4], is_lf[4];
    __m128i other = _mm_setzero_si128();
    for (int i = 0; i < 4; ++i) {
        x[i] = narrow16(p + 16 * i);
        is_lf[i] = _mm_cmpeq_epi8(x[i], nl);
        other = _mm_or_si128(other, _mm_andnot_si128(is_lf[i], _mm_cmplt_epi8(x[i], space)));
    }
    uint64_t lf = 0;
    for (int i = 0; i < 4; ++i) lf |= u16(_mm_movemask_epi8(is_lf[i])) << (16 * i);
    if (_mm_movemask_epi8(other) == 0) return {lf, lf, 0, 0};
    uint64_t boundary = 0, cr = 0, high = 0;
    for (int i = 0; i < 4; ++i) {
        boundary |= u16(byte_boundaries(x[i]) | separators16(p + 16 * i)) << (16 * i);
        cr |= u16(_mm_movemask_epi8(_mm_cmpeq_epi8(x[i], _mm_set1_epi8('\r')))) << (16 * i);
        high |= u16(_mm_movemask_epi8(x[i])) << (16 * i);
    }
    return {boundary, lf, cr, high};
}

#else

template <class Char>
inline RawMasks raw_masks(const Char* p) noexcept {
    RawMasks m{0, 0, 0, 0};
    for (unsigned i = 0; i < kBlock; ++i) {
        const uint64_t bit = uint64_t{1} << i;
        if (is_line_boundary(p[i])) m.boundary |= bit;
        if (p[i] == '\n') m.lf |= bit;
        if (p[i] == '\r') m.cr |= bit;
        if (p[i] > 0x7F) m.high |= bit;
    }
    return m;
}

#endif

template <class Char>
inline BlockMasks fold(const RawMasks& raw, bool& cr_before) noexcept {
    const uint64_t after_cr = (raw.cr << 1) | static_cast<uint64_t>(cr_before);
    // The LF of a CR LF ends no line: the CR did.
    const uint64_t ends = raw.boundary & ~(raw.lf & after_cr);
    cr_before = (raw.cr >> 63) != 0;
    return {ends, ends & ~raw.lf, raw.high & ~raw.boundary, popcount64(ends)};
}

}  // namespace

template <class Char>
size_t scan_blocks(const Char* text, size_t pos, size_t end, bool& cr_before, BlockMasks* out,
                   size_t max_blocks) noexcept {
    size_t n = 0;
    for (; n < max_blocks && pos + kBlock <= end; ++n, pos += kBlock) {
        out[n] = fold<Char>(raw_masks(text + pos), cr_before);
    }
    if (n < max_blocks && pos < end) {
        // The last, partial block, padded with NULs, which are no boundary.
        Char padded[kBlock] = {};
        std::memcpy(padded, text + pos, (end - pos) * sizeof(Char));
        out[n++] = fold<Char>(raw_masks(padded), cr_before);
    }
    return n;
}

template <class Char>
size_t find_line_boundary(const Char* text, size_t pos, size_t size) noexcept {
#if defined(__SSE2__)
    while (pos + 16 <= size) {
        const int mask = byte_boundaries(narrow16(text + pos)) | separators16(text + pos);
        if (mask != 0) return pos + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
        pos += 16;
    }
#endif
    for (; pos < size; ++pos) {
        if (is_line_boundary(text[pos])) return pos;
    }
    return size;
}

#define VELMORA_LINE_SCAN(Char)                                                              \
    template size_t find_line_boundary<Char>(const Char*, size_t, size_t) noexcept;          \
    template size_t scan_blocks<Char>(const Char*, size_t, size_t, bool&, BlockMasks*, size_t) \
        noexcept;
VELMORA_LINE_SCAN(uint8_t)
VELMORA_LINE_SCAN(uint16_t)
VELMORA_LINE_SCAN(uint32_t)
#undef VELMORA_LINE_SCAN

}  // namespace velmora::core
