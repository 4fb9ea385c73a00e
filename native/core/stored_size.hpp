// Stored size: the UTF-8 length of a text's lines joined with one LF each, which is what
// its chunks hold. A lone surrogate counts one byte (it is stored as "?"), every boundary
// between two lines one byte (CR LF included), and a boundary at the very end nothing.
//
// A text is a pointer and a length in code points of one of the three CPython widths
// (uint8_t, uint16_t, uint32_t); nothing is owned or allocated. The size is computed in
// one pass, sixteen bytes at a time: an ASCII text needs only a search for CR, and the
// wide kinds pass over groups that hold neither a non-ASCII code point nor a CR.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velmora::core {

template <class Char>
uint64_t stored_text_bytes(const Char* text, size_t size) noexcept;

// The same for a text known to be ASCII, where only CR LF pairs and the end differ
// from the length.
uint64_t stored_ascii_bytes(const uint8_t* text, size_t size) noexcept;

}  // namespace velmora::core
