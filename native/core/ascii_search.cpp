#include "core/ascii_search.hpp"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace velmora::core {
namespace {

constexpr uint8_t fold_ascii(uint32_t c) noexcept {
    return static_cast<uint8_t>(c - 'A' < 26u ? c + 32 : c);
}

constexpr bool is_upper(uint8_t c) noexcept { return static_cast<uint8_t>(c - 'A') < 26u; }
constexpr bool is_lower(uint8_t c) noexcept { return static_cast<uint8_t>(c - 'a') < 26u; }

// Does the code point `c` of the text stand for needle[i] in the lower-cased text?
template <class Char>
inline bool folds_to(Char c, uint8_t want, bool last) noexcept {
    const uint32_t u = c;
    if (u < 0x80) return fold_ascii(u) == want;
    if constexpr (sizeof(Char) == 1) {
        return false;
    } else {
        return (u == 0x212A && want == 'k') || (u == 0x130 && want == 'i' && last);
    }
}

template <class Char>
inline bool matches_at(const Char* at, const uint8_t* needle, size_t m) noexcept {
    for (size_t i = 0; i < m; ++i) {
        if (!folds_to(at[i], needle[i], i + 1 == m)) return false;
    }
    return true;
}

// The generic scan: the first code point is tested before the rest.
template <class Char>
size_t scan(const Char* text, size_t size, const uint8_t* needle, size_t m) noexcept {
    const uint8_t first = needle[0];
    const bool first_is_last = m == 1;
    for (size_t p = 0; p + m <= size; ++p) {
        if (folds_to(text[p], first, first_is_last) && matches_at(text + p, needle, m)) return p;
    }
    return kNotFound;
}

#if defined(__SSE2__)
// A byte x folds to `c` exactly when (x | bit) == c, bit being 0x20 for a lower-case
// letter (its upper case differs in that bit alone) and 0 for anything else.
struct ByteProbe {
    __m128i bit;
    __m128i value;
    explicit ByteProbe(uint8_t c) noexcept
        : bit(_mm_set1_epi8(is_lower(c) ? 0x20 : 0)), value(_mm_set1_epi8(static_cast<char>(c))) {}
    unsigned hits(const uint8_t* at) const noexcept {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_or_si128(x, bit), value)));
    }
};

// Bytes, sixteen candidates at a time: a candidate must have the needle's first byte at
// its start and its last byte at its end; the bytes between are compared only then.
size_t scan_bytes(const uint8_t* text, size_t size, const uint8_t* needle, size_t m) noexcept {
    if (size < m) return kNotFound;
    const ByteProbe head(needle[0]);
    const ByteProbe tail(needle[m - 1]);
    const size_t last_start = size - m;  // the last index where a match can begin
    size_t p = 0;
    while (p + 16 <= last_start + 1) {
        unsigned mask = head.hits(text + p) & tail.hits(text + p + m - 1);
        while (mask != 0) {
            const size_t at = p + static_cast<size_t>(__builtin_ctz(mask));
            if (matches_at(text + at, needle, m)) return at;
            mask &= mask - 1;
        }
        p += 16;
    }
    for (; p <= last_start; ++p) {
        if (matches_at(text + p, needle, m)) return p;
    }
    return kNotFound;
}
#endif

}  // namespace

template <class Char>
size_t find_ascii_folded(const Char* text, size_t size, const uint8_t* needle,
                         size_t needle_size) noexcept {
    if (needle_size == 0) return 0;
    for (size_t i = 0; i < needle_size; ++i) {
        if (is_upper(needle[i])) return kNotFound;
    }
#if defined(__SSE2__)
    if constexpr (sizeof(Char) == 1) return scan_bytes(text, size, needle, needle_size);
#endif
    return scan(text, size, needle, needle_size);
}

template <class Char>
size_t folded_index(const Char* text, size_t index) noexcept {
    if constexpr (sizeof(Char) == 1) {
        (void)text;
        return index;
    } else {
        size_t grown = 0;
        for (size_t i = 0; i < index; ++i) grown += text[i] == 0x130;
        return index + grown;
    }
}

bool needle_has_foreign_folds(const uint8_t* needle, size_t needle_size) noexcept {
    if (needle_size == 0) return false;
    return std::memchr(needle, 'k', needle_size) != nullptr || needle[needle_size - 1] == 'i';
}

bool utf8_holds_foreign_folds(const uint8_t* bytes, size_t size) noexcept {
    // Each encoding starts with a lead byte that the rest of it does not repeat: find the
    // leads, keeping the next one of each kind so the text is swept once per kind.
    const uint8_t* end = bytes + size;
    const auto next = [end](const uint8_t* from, uint8_t lead) {
        const void* hit = from < end ? std::memchr(from, lead, static_cast<size_t>(end - from)) : nullptr;
        return hit ? static_cast<const uint8_t*>(hit) : end;
    };
    const uint8_t* e2 = next(bytes, 0xE2);
    while (e2 < end) {
        if (end - e2 >= 3 && e2[1] == 0x84 && e2[2] == 0xAA) return true;
        e2 = next(e2 + 1, 0xE2);
    }
    const uint8_t* c4 = next(bytes, 0xC4);
    while (c4 < end) {
        if (end - c4 >= 2 && c4[1] == 0xB0) return true;
        c4 = next(c4 + 1, 0xC4);
    }
    return false;
}

template size_t find_ascii_folded<uint8_t>(const uint8_t*, size_t, const uint8_t*, size_t) noexcept;
template size_t find_ascii_folded<uint16_t>(const uint16_t*, size_t, const uint8_t*, size_t) noexcept;
template size_t find_ascii_folded<uint32_t>(const uint32_t*, size_t, const uint8_t*, size_t) noexcept;
template size_t folded_index<uint8_t>(const uint8_t*, size_t) noexcept;
template size_t folded_index<uint16_t>(const uint16_t*, size_t) noexcept;
template size_t folded_index<uint32_t>(const uint32_t*, size_t) noexcept;

}  // namespace velmora::core
