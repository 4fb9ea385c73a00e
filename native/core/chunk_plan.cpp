#include "core/chunk_plan.hpp"

namespace velmora::core {
namespace {

// The width bounds are powers of two less one, so the OR of the code points lands in
// the same width as their maximum, and an OR vectorises where an unsigned max does not
// (SSE2 has none for 16 and 32 bits).
constexpr uint32_t bound_of(uint32_t bits) noexcept {
    return bits < 0x80u ? 0x7Fu : bits < 0x100u ? 0xFFu : bits < 0x10000u ? 0xFFFFu : 0x10FFFFu;
}

template <class Char>
uint32_t joined_or(const Char* text, size_t begin, size_t end) noexcept {
    Char bits = 0;
    for (size_t i = begin; i < end; ++i) {
        const Char c = text[i];
        bool wide_boundary = c == 0x85;
        if constexpr (sizeof(Char) > 1) wide_boundary = wide_boundary || (c | 1) == 0x2029;
        bits |= wide_boundary ? Char{0} : c;
    }
    return bits;
}

}  // namespace

template <class Char>
uint32_t joined_char_bound(const Char* text, size_t begin, size_t end) noexcept {
    // Past the widest bound a text of this width can reach, the rest cannot change it:
    // look in slices so that wide text stops early.
    constexpr uint32_t top = sizeof(Char) == 1 ? 0x80u : sizeof(Char) == 2 ? 0x100u : 0x10000u;
    constexpr size_t kSlice = 512;
    uint32_t bits = 0;
    for (size_t pos = begin; pos < end && bits < top; pos += kSlice) {
        bits |= joined_or(text, pos, end - pos < kSlice ? end : pos + kSlice);
    }
    return bound_of(bits);
}

template uint32_t joined_char_bound<uint8_t>(const uint8_t*, size_t, size_t) noexcept;
template uint32_t joined_char_bound<uint16_t>(const uint16_t*, size_t, size_t) noexcept;
template uint32_t joined_char_bound<uint32_t>(const uint32_t*, size_t, size_t) noexcept;

}  // namespace velmora::core
