#include "core/chunk_plan.hpp"

namespace velmora::core {

template <class Char>
uint32_t joined_max_char(const Char* text, size_t begin, size_t end) noexcept {
    uint32_t top = 0;
    for (size_t i = begin; i < end; ++i) {
        const uint32_t c = text[i];
        // Written without branches so the loop vectorises.
        const bool wide_boundary = c == 0x85u || (c - 0x2028u) <= 1u;
        const uint32_t kept = wide_boundary ? 0u : c;
        top = kept > top ? kept : top;
    }
    return top;
}

template uint32_t joined_max_char<uint8_t>(const uint8_t*, size_t, size_t) noexcept;
template uint32_t joined_max_char<uint16_t>(const uint16_t*, size_t, size_t) noexcept;
template uint32_t joined_max_char<uint32_t>(const uint32_t*, size_t, size_t) noexcept;

}  // namespace velmora::core
