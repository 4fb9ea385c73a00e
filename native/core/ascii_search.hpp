// Case-ignoring search for an ASCII needle, giving the answer of the host's
// `text.lower().find(needle)` without making the lower-cased copy.
//
// Why no copy is needed: lower-casing turns an ASCII code point into its ASCII lower
// case, and of all the other code points only two lower-case into anything ASCII:
// U+212A KELVIN SIGN becomes "k", and U+0130 CAPITAL I WITH DOT ABOVE becomes "i"
// followed by U+0307 (non-ASCII). Every other code point, final sigma included, becomes
// non-ASCII code points only. So an ASCII needle matches the lower-cased text exactly
// where, code point by code point, the text holds:
//   - an ASCII code point whose lower case is the needle's code point,
//   - U+212A where the needle holds "k",
//   - U+0130 where the needle holds "i" as its last code point (the U+0307 that follows
//     in the lower-cased text ends any longer match).
// U+0130 is also the only code point whose lower case is longer than itself, so the
// column of a match in the lower-cased text is its index in the text plus the U+0130
// before it. A text of one byte per code point (ASCII or Latin-1) holds neither of the
// two, and there the column is the index itself.
//
// Units and ownership: a text is a run of code points of type Char (uint8_t, uint16_t or
// uint32_t, the three CPython widths), given as a pointer and a length in code points;
// a needle is a run of ASCII bytes (each below 0x80). Nothing here allocates or keeps a
// pointer. Offsets are code-point indexes into the text.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velmora::core {

inline constexpr size_t kNotFound = SIZE_MAX;

// An ASCII needle made ready once for the many lines it is looked for in. It points into
// the caller's bytes, which must outlive it.
struct FoldedNeedle {
    const uint8_t* bytes;
    size_t size;
    bool matchable;  // false when it holds an upper-case letter: a lower-cased text has none
};

FoldedNeedle fold_needle(const uint8_t* bytes, size_t size) noexcept;

// Index in `text` of the first code point of the first case-ignoring match of `needle`,
// or kNotFound. An empty needle matches at 0.
template <class Char>
size_t find_folded(const Char* text, size_t size, const FoldedNeedle& needle) noexcept;

// The same for a needle used once.
template <class Char>
size_t find_ascii_folded(const Char* text, size_t size, const uint8_t* needle,
                         size_t needle_size) noexcept {
    return find_folded(text, size, fold_needle(needle, needle_size));
}

// Index of the first occurrence of `needle` in `text`, both one byte per code point (as
// str.find gives it over ASCII or Latin-1 text), or kNotFound; an empty needle is at 0.
// The exact search of the same scan, for the short lines a search runs over.
size_t find_bytes(const uint8_t* text, size_t size, const uint8_t* needle, size_t needle_size) noexcept;

// Where the code point at `index` of `text` lands in the lower-cased text: `index` plus
// the U+0130 before it.
template <class Char>
size_t folded_index(const Char* text, size_t index) noexcept;

// Whether the lower-cased text can gain a match over what the text's bytes show when read
// as ASCII: true when `needle` holds a "k" or ends with an "i" (the two ASCII letters that
// a non-ASCII code point lower-cases into).
bool needle_has_foreign_folds(const uint8_t* needle, size_t needle_size) noexcept;

// Whether UTF-8 `bytes` hold the encoding of U+212A (E2 84 AA) or of U+0130 (C4 B0). When
// they do not, the case-ignoring match of an ASCII needle in the decoded text is found
// in the bytes themselves: find_ascii_folded over them, every byte from 0x80 up being
// part of a non-ASCII code point or of an undecodable piece, and so never matching.
bool utf8_holds_foreign_folds(const uint8_t* bytes, size_t size) noexcept;

}  // namespace velmora::core
