#include "core/stored_size.hpp"

#include "core/line_scan.hpp"

namespace velmora::core {
namespace {

// Bytes one code point adds, with each boundary counted as the one LF it becomes.
constexpr uint32_t stored_width(uint32_t c) noexcept {
    if (c < 0x80u) return 1;
    if (c < 0x800u) return c == 0x85u ? 1 : 2;
    if (c < 0x10000u) {
        const bool surrogate = (c - 0xD800u) < 0x800u;
        const bool separator = (c - 0x2028u) <= 1u;
        return (surrogate || separator) ? 1 : 3;
    }
    return 4;
}

// CR LF is one boundary, so it counts once; the boundary that ends the text counts not at all.
template <class Char>
uint64_t boundary_correction(const Char* text, size_t size) noexcept {
    uint64_t pairs = 0;
    for (size_t i = 1; i < size; ++i) {
        pairs += static_cast<uint64_t>(text[i - 1] == '\r') & static_cast<uint64_t>(text[i] == '\n');
    }
    const uint64_t trailing = size != 0 && is_line_boundary(text[size - 1]) ? 1 : 0;
    return pairs + trailing;
}

}  // namespace

template <class Char>
uint64_t stored_text_bytes(const Char* text, size_t size) noexcept {
    uint64_t bytes = 0;
    for (size_t i = 0; i < size; ++i) bytes += stored_width(text[i]);
    return bytes - boundary_correction(text, size);
}

uint64_t stored_ascii_bytes(const uint8_t* text, size_t size) noexcept {
    return size - boundary_correction(text, size);
}

template uint64_t stored_text_bytes<uint8_t>(const uint8_t*, size_t) noexcept;
template uint64_t stored_text_bytes<uint16_t>(const uint16_t*, size_t) noexcept;
template uint64_t stored_text_bytes<uint32_t>(const uint32_t*, size_t) noexcept;

}  // namespace velmora::core
