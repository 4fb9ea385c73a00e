// UTF-8 as the host's strict codec reads it: what it accepts, and code points counted or
// decoded from text it accepted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace velmora::core {

// Whether `bytes` decode with bytes.decode("utf-8"): no overlong form, no surrogate, nothing
// past U+10FFFF, no sequence cut short.
bool is_valid_utf8(const uint8_t* bytes, size_t size) noexcept;

// Code points in valid UTF-8: the bytes that are not continuation bytes.
size_t utf8_code_points(const uint8_t* bytes, size_t size) noexcept;

// The bytes that the first `code_points` code points of valid UTF-8 take (all of them when
// it holds fewer).
size_t utf8_prefix_bytes(const uint8_t* bytes, size_t size, size_t code_points) noexcept;

// The code points of valid UTF-8, in place of what `out` held.
void decode_utf8(const uint8_t* bytes, size_t size, std::vector<uint32_t>& out);

}  // namespace velmora::core
