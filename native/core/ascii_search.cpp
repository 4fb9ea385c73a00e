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

// The plain scan: the first code point is tested before the rest.
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
// A byte x stands for `c` exactly when (x | bit) == c: bit is 0x20 for a lower-case
// letter of a case-ignoring search (its upper case differs in that bit alone), else 0.
struct ByteProbe {
    __m128i bit;
    __m128i value;
    ByteProbe(uint8_t c, bool folded) noexcept
        : bit(_mm_set1_epi8(folded && is_lower(c) ? 0x20 : 0)),
          value(_mm_set1_epi8(static_cast<char>(c))) {}
    unsigned hits(const uint8_t* at) const noexcept {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_or_si128(x, bit), value)));
    }
};

// Texts this short are searched in a zero-padded copy, so that one block covers them.
constexpr size_t kShort = 48;

// The first candidate of `mask` (bit i: a start at base + i whose first and last bytes
// are right) at which the bytes between are right too.
template <bool Folded>
size_t first_verified(const uint8_t* text, size_t base, unsigned mask, const uint8_t* needle,
                      size_t m) noexcept {
    while (mask != 0) {
        const size_t at = base + static_cast<size_t>(__builtin_ctz(mask));
        bool same = true;
        if constexpr (Folded) {
            for (size_t i = 1; i + 1 < m && same; ++i) same = fold_ascii(text[at + i]) == needle[i];
        } else {
            same = m <= 2 || std::memcmp(text + at + 1, needle + 1, m - 2) == 0;
        }
        if (same) return at;
        mask &= mask - 1;
    }
    return kNotFound;
}

// Bytes, sixteen candidate starts at a time: a candidate must have the needle's first
// byte at its start and its last byte at its end; the bytes between are compared only
// then. Every load lies inside the text: the last block is moved back to end with it
// (the starts it repeats are masked off), and a text shorter than a block is copied.
template <bool Folded>
size_t scan_bytes(const uint8_t* text, size_t size, const uint8_t* needle, size_t m) noexcept {
    if (size < m) return kNotFound;
    const size_t starts = size - m + 1;
    const ByteProbe head(needle[0], Folded);
    const ByteProbe tail(needle[m - 1], Folded);
    if (starts < 16) {
        if (size > kShort) {
            if constexpr (Folded) {
                return scan(text, size, needle, m);
            } else {
                const void* hit = memmem(text, size, needle, m);
                return hit ? static_cast<size_t>(static_cast<const uint8_t*>(hit) - text) : kNotFound;
            }
        }
        alignas(16) uint8_t copy[kShort + 16] = {};
        std::memcpy(copy, text, size);
        const unsigned mask = head.hits(copy) & tail.hits(copy + m - 1) & ((1u << starts) - 1);
        return first_verified<Folded>(text, 0, mask, needle, m);
    }
    size_t p = 0;
    size_t candidates = 0;
    for (; p + 16 <= starts; p += 16) {
        const unsigned mask = head.hits(text + p) & tail.hits(text + p + m - 1);
        if (mask == 0) continue;
        if constexpr (!Folded) {
            // Too many false starts (a needle of common bytes over a long text): the rest
            // goes to the C library's search, which keeps to linear time.
            candidates += static_cast<size_t>(__builtin_popcount(mask));
            if (candidates > 64 + p / 4) {
                const void* hit = memmem(text + p, size - p, needle, m);
                return hit ? static_cast<size_t>(static_cast<const uint8_t*>(hit) - text) : kNotFound;
            }
        }
        const size_t at = first_verified<Folded>(text, p, mask, needle, m);
        if (at != kNotFound) return at;
    }
    if (p == starts) return kNotFound;
    const size_t back = starts - 16;
    const unsigned skip = static_cast<unsigned>(p - back);
    const unsigned mask = head.hits(text + back) & tail.hits(text + back + m - 1);
    return first_verified<Folded>(text, back, (mask >> skip) << skip, needle, m);
}
#endif

}  // namespace

FoldedNeedle fold_needle(const uint8_t* bytes, size_t size) noexcept {
    bool matchable = true;
    for (size_t i = 0; i < size; ++i) matchable = matchable && !is_upper(bytes[i]);
    return {bytes, size, matchable};
}

template <class Char>
size_t find_folded(const Char* text, size_t size, const FoldedNeedle& needle) noexcept {
    if (needle.size == 0) return 0;
    if (!needle.matchable) return kNotFound;
#if defined(__SSE2__)
    if constexpr (sizeof(Char) == 1) return scan_bytes<true>(text, size, needle.bytes, needle.size);
#endif
    return scan(text, size, needle.bytes, needle.size);
}

size_t find_bytes(const uint8_t* text, size_t size, const uint8_t* needle, size_t needle_size) noexcept {
    if (needle_size == 0) return 0;
#if defined(__SSE2__)
    return scan_bytes<false>(text, size, needle, needle_size);
#else
    const void* hit = memmem(text, size, needle, needle_size);
    return hit ? static_cast<size_t>(static_cast<const uint8_t*>(hit) - text) : kNotFound;
#endif
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
    // leads, one sweep of the text for each kind.
    const uint8_t* end = bytes + size;
    const auto next = [end](const uint8_t* from, uint8_t lead) {
        const void* hit = from < end ? std::memchr(from, lead, static_cast<size_t>(end - from)) : nullptr;
        return hit ? static_cast<const uint8_t*>(hit) : end;
    };
    for (const uint8_t* e2 = next(bytes, 0xE2); e2 < end; e2 = next(e2 + 1, 0xE2)) {
        if (end - e2 >= 3 && e2[1] == 0x84 && e2[2] == 0xAA) return true;
    }
    for (const uint8_t* c4 = next(bytes, 0xC4); c4 < end; c4 = next(c4 + 1, 0xC4)) {
        if (end - c4 >= 2 && c4[1] == 0xB0) return true;
    }
    return false;
}

template size_t find_folded<uint8_t>(const uint8_t*, size_t, const FoldedNeedle&) noexcept;
template size_t find_folded<uint16_t>(const uint16_t*, size_t, const FoldedNeedle&) noexcept;
template size_t find_folded<uint32_t>(const uint32_t*, size_t, const FoldedNeedle&) noexcept;
template size_t folded_index<uint8_t>(const uint8_t*, size_t) noexcept;
template size_t folded_index<uint16_t>(const uint16_t*, size_t) noexcept;
template size_t folded_index<uint32_t>(const uint32_t*, size_t) noexcept;

}  // namespace velmora::core
