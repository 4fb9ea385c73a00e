// Stored size against a plain reckoning: the UTF-8 length of the text's lines joined with
// one LF, a lone surrogate one byte; the ASCII shortcut over the same text made ASCII.
#include <vector>

#include "core/stored_size.hpp"
#include "fuzz_text.hpp"

using namespace velmora::core;
using namespace velmora::fuzz;

namespace {

uint64_t ref_stored(const std::vector<uint32_t>& t) {
    const std::vector<RefLine> lines = ref_lines(t);
    return ref_utf8_length(ref_join(t, lines, 0, lines.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    const int width = width_of(data[0]);
    const size_t offset = (data[0] / 3) % 16;
    std::vector<uint32_t> t = decode_text(data + 4, size - 4, width, nullptr, size_t{1} << 16);
    const uint64_t want = ref_stored(t);
    with_text(width, t, offset, [&](const auto* text, size_t n) {
        FUZZ_CHECK_EQ(stored_text_bytes(text, n), want, "stored_text_bytes");
    });
    for (auto& c : t) c &= 0x7F;
    const uint64_t want_ascii = ref_stored(t);
    with_text(1, t, offset, [&](const auto* text, size_t n) {
        FUZZ_CHECK_EQ(stored_ascii_bytes(reinterpret_cast<const uint8_t*>(text), n), want_ascii,
                      "stored_ascii_bytes");
        FUZZ_CHECK_EQ(stored_text_bytes(text, n), want_ascii, "stored_text_bytes of ASCII");
    });
    return 0;
}
