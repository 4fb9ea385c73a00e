#include "core/utf8.hpp"

#include <cstring>

namespace velmora::core {
namespace {

// Eight ASCII bytes at a time: most text is ASCII.
inline bool ascii_word(const uint8_t* at) noexcept {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return (word & 0x8080808080808080ull) == 0;
}

inline bool continuation(uint8_t b) noexcept { return (b & 0xC0) == 0x80; }

}  // namespace

bool is_valid_utf8(const uint8_t* bytes, size_t size) noexcept {
    size_t i = 0;
    while (i < size) {
        if (i + 8 <= size && ascii_word(bytes + i)) {
            i += 8;
            continue;
        }
        const uint8_t lead = bytes[i];
        if (lead < 0x80) {
            ++i;
            continue;
        }
        // The second byte's range depends on the lead: it rules out overlong forms,
        // surrogates (ED A0..BF) and code points past U+10FFFF (F4 90..).
        size_t width;
        uint8_t low = 0x80, high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            width = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            width = 3;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            width = 4;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        } else {
            return false;
        }
        if (size - i < width || bytes[i + 1] < low || bytes[i + 1] > high) return false;
        for (size_t k = 2; k < width; ++k) {
            if (!continuation(bytes[i + k])) return false;
        }
        i += width;
    }
    return true;
}

size_t utf8_code_points(const uint8_t* bytes, size_t size) noexcept {
    size_t count = 0;
    for (size_t i = 0; i < size; ++i) count += !continuation(bytes[i]);
    return count;
}

size_t utf8_prefix_bytes(const uint8_t* bytes, size_t size, size_t code_points) noexcept {
    size_t i = 0;
    for (size_t seen = 0; i < size; ++i) {
        if (!continuation(bytes[i]) && seen++ == code_points) break;
    }
    return i;
}

void decode_utf8(const uint8_t* bytes, size_t size, std::vector<uint32_t>& out) {
    out.clear();
    for (size_t i = 0; i < size;) {
        const uint8_t lead = bytes[i];
        const size_t width = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        uint32_t code = width == 1 ? lead : lead & (0x7Fu >> width);
        for (size_t k = 1; k < width && i + k < size; ++k) code = (code << 6) | (bytes[i + k] & 0x3Fu);
        out.push_back(code);
        i += width;
    }
}

}  // namespace velmora::core
