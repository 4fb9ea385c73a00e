#include "core/line_scan.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace velmora::core {

template <class Char>
size_t find_line_boundary(const Char* text, size_t pos, size_t size) noexcept {
    for (; pos < size; ++pos) {
        if (is_line_boundary(text[pos])) return pos;
    }
    return size;
}

#if defined(__SSE2__)
// Bytes are the common case (ASCII and Latin-1 source): sixteen at a time, the same
// test as is_line_boundary written as unsigned range checks.
template <>
size_t find_line_boundary<uint8_t>(const uint8_t* text, size_t pos, size_t size) noexcept {
    const __m128i lf = _mm_set1_epi8(0x0A), three = _mm_set1_epi8(3);
    const __m128i fs = _mm_set1_epi8(0x1C), two = _mm_set1_epi8(2);
    const __m128i nel = _mm_set1_epi8(static_cast<char>(0x85));
    while (pos + 16 <= size) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + pos));
        const __m128i a = _mm_sub_epi8(x, lf);
        const __m128i b = _mm_sub_epi8(x, fs);
        const __m128i hit = _mm_or_si128(
            _mm_or_si128(_mm_cmpeq_epi8(_mm_min_epu8(a, three), a),
                         _mm_cmpeq_epi8(_mm_min_epu8(b, two), b)),
            _mm_cmpeq_epi8(x, nel));
        const int mask = _mm_movemask_epi8(hit);
        if (mask != 0) return pos + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
        pos += 16;
    }
    for (; pos < size; ++pos) {
        if (is_line_boundary(text[pos])) return pos;
    }
    return size;
}
#endif

template size_t find_line_boundary<uint8_t>(const uint8_t*, size_t, size_t) noexcept;
template size_t find_line_boundary<uint16_t>(const uint16_t*, size_t, size_t) noexcept;
template size_t find_line_boundary<uint32_t>(const uint32_t*, size_t, size_t) noexcept;

}  // namespace velmora::core
