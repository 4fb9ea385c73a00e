// Case-ignoring search against a plain lower-then-find. The reference lower-cases by a
// small table, which is all an ASCII needle can tell apart: ASCII letters to lower case,
// U+0130 to "i" U+0307, U+212A to "k", and every other code point to itself (its lower
// case is not ASCII, and only U+0130 changes length). Also the exact byte search, the
// folded index, and the two foreign-fold probes.
#include <vector>

#include "core/ascii_search.hpp"
#include "fuzz_text.hpp"

using namespace velmora::core;
using namespace velmora::fuzz;

namespace {

// Index of the first occurrence of `needle` in `hay`, or kNotFound.
template <class T, class U>
size_t ref_find(const std::vector<T>& hay, const std::vector<U>& needle) {
    if (needle.size() > hay.size()) return kNotFound;
    for (size_t p = 0; p + needle.size() <= hay.size(); ++p) {
        size_t i = 0;
        while (i < needle.size() && hay[p + i] == static_cast<T>(needle[i])) ++i;
        if (i == needle.size()) return p;
    }
    return kNotFound;
}

template <class Char>
void check(const Char* text, size_t size, const std::vector<uint32_t>& t, const std::vector<uint8_t>& folded,
           const std::vector<uint8_t>& exact, uint8_t sample) {
    // The lower-cased text, and the index in `t` of each of its code points.
    std::vector<uint32_t> lowered;
    std::vector<size_t> origin;
    ref_lower(t, lowered, origin);
    const size_t column = ref_find(lowered, folded);
    // An empty needle matches at 0, also in an empty text.
    const size_t want = column == kNotFound ? kNotFound : column < origin.size() ? origin[column] : t.size();

    FUZZ_CHECK_EQ(find_folded(text, size, fold_needle(folded.data(), folded.size())), want, "find_folded");
    FUZZ_CHECK_EQ(find_ascii_folded(text, size, folded.data(), folded.size()), want, "find_ascii_folded");
    if (want != kNotFound) FUZZ_CHECK_EQ(folded_index(text, want), column, "folded_index of the match");

    // folded_index anywhere: the index plus the U+0130 before it.
    const size_t index = size == 0 ? 0 : (size * sample) / 255;
    size_t grown = 0;
    for (size_t i = 0; i < index; ++i) grown += t[i] == 0x130;
    FUZZ_CHECK_EQ(folded_index(text, index), index + grown, "folded_index");

    if constexpr (sizeof(Char) == 1) {
        FUZZ_CHECK_EQ(find_bytes(text, size, exact.data(), exact.size()), ref_find(t, exact), "find_bytes");
        // The text's bytes as UTF-8, probed for the encodings of U+212A and U+0130.
        const bool foreign = ref_find(t, std::vector<uint8_t>{0xE2, 0x84, 0xAA}) != kNotFound ||
                             ref_find(t, std::vector<uint8_t>{0xC4, 0xB0}) != kNotFound;
        FUZZ_CHECK_EQ(utf8_holds_foreign_folds(text, size), foreign, "utf8_holds_foreign_folds");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    const int width = width_of(data[0]);
    const size_t needle_size = std::min<size_t>(data[1] % 24, size - 4);
    std::vector<uint8_t> exact(data + 4, data + 4 + needle_size);
    std::vector<uint8_t> folded(exact);
    for (auto& c : folded) c &= 0x7F;
    if ((data[3] & 1) == 0) exact = folded;

    bool foreign = false;
    for (uint8_t c : folded) foreign = foreign || c == 'k';
    foreign = foreign || (!folded.empty() && folded.back() == 'i');
    FUZZ_CHECK_EQ(needle_has_foreign_folds(folded.data(), folded.size()), foreign, "needle_has_foreign_folds");

    const size_t head = 4 + needle_size;
    const std::vector<uint32_t> t = decode_text(data + head, size - head, width, &folded);
    with_text(width, t, (data[0] / 3) % 16,
              [&](const auto* text, size_t n) { check(text, n, t, folded, exact, data[2]); });
    return 0;
}
