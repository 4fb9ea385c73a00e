// Chunk planning against a plain split-and-join: every span's lines, range, length, ASCII
// flag and boundaries to rewrite, the width bound of its joined text, copy_joined into each
// width that holds it, and an early stop.
#include <memory>
#include <vector>

#include "core/chunk_plan.hpp"
#include "fuzz_text.hpp"

using namespace velmora::core;
using namespace velmora::fuzz;

namespace {

struct RefChunk {
    size_t first_line, last_line, begin, end;
    std::vector<uint32_t> joined;
    std::vector<size_t> specials;
};

std::vector<RefChunk> ref_chunks(const std::vector<uint32_t>& t) {
    const std::vector<RefLine> lines = ref_lines(t);
    if (lines.empty()) return {RefChunk{1, 0, 0, 0, {}, {}}};
    std::vector<RefChunk> chunks;
    for (size_t start = 0; start < lines.size(); start += kChunkLines) {
        const size_t stop = std::min(start + kChunkLines, lines.size());
        RefChunk c{start + 1, stop, lines[start].begin, lines[stop - 1].end, ref_join(t, lines, start, stop), {}};
        for (size_t j = start; j + 1 < stop; ++j) {
            if (t[lines[j].end] != 0x0A) c.specials.push_back(lines[j].end);
        }
        chunks.push_back(std::move(c));
    }
    return chunks;
}

uint32_t ref_bound(const std::vector<uint32_t>& joined) {
    uint32_t top = 0;
    for (uint32_t c : joined) top = std::max(top, c);
    return top <= 0x7F ? 0x7F : top <= 0xFF ? 0xFF : top <= 0xFFFF ? 0xFFFF : 0x10FFFF;
}

// copy_joined into a block of exactly the joined length, compared with the reference.
template <class Dst, class Src>
void check_copy(const Src* text, const ChunkSpan& span, const RefChunk& want) {
    std::unique_ptr<Dst[]> out(new Dst[span.length + 1]);
    out[span.length] = static_cast<Dst>(0x5A);  // a guard where ASan cannot see (the +1)
    copy_joined(text, span, out.get());
    for (size_t i = 0; i < span.length; ++i) FUZZ_CHECK_EQ(static_cast<uint32_t>(out[i]), want.joined[i], "copy_joined");
    FUZZ_CHECK_EQ(static_cast<uint32_t>(out[span.length]), 0x5Au, "copy_joined wrote past the end");
}

template <class Char>
void check(const Char* text, size_t size, const std::vector<uint32_t>& t, const uint8_t* params) {
    const std::vector<RefChunk> chunks = ref_chunks(t);
    size_t k = 0;
    const bool ok = plan_chunks(text, size, [&](const ChunkSpan& span) {
        if (k >= chunks.size()) fail("more chunks than the reference", k, chunks.size());
        const RefChunk& want = chunks[k++];
        FUZZ_CHECK_EQ(span.first_line, want.first_line, "first_line");
        FUZZ_CHECK_EQ(span.last_line, want.last_line, "last_line");
        FUZZ_CHECK_EQ(span.begin, want.begin, "begin");
        FUZZ_CHECK_EQ(span.end, want.end, "end");
        FUZZ_CHECK_EQ(span.length, want.joined.size(), "length");
        bool ascii = true;
        for (uint32_t c : want.joined) ascii = ascii && c < 0x80;
        FUZZ_CHECK_EQ(span.ascii, ascii, "ascii");
        FUZZ_CHECK_EQ(span.special_count, want.specials.size(), "special_count");
        for (size_t i = 0; i < span.special_count; ++i) FUZZ_CHECK_EQ(span.specials[i], want.specials[i], "specials");
        if (span.special_count == 0) {
            // LF-only: the source range is the joined text as it stands.
            FUZZ_CHECK_EQ(span.end - span.begin, want.joined.size(), "LF-only range length");
            for (size_t i = 0; i < want.joined.size(); ++i) FUZZ_CHECK_EQ(t[span.begin + i], want.joined[i], "LF-only range");
        }
        const uint32_t bound = ref_bound(want.joined);
        FUZZ_CHECK_EQ(joined_char_bound(text, span.begin, span.end), bound, "joined_char_bound");
        // Every destination width that holds the joined text.
        if (bound <= 0xFF) check_copy<uint8_t>(text, span, want);
        if (bound <= 0xFFFF) check_copy<uint16_t>(text, span, want);
        check_copy<uint32_t>(text, span, want);
        return true;
    });
    FUZZ_CHECK_EQ(ok, true, "plan_chunks result");
    FUZZ_CHECK_EQ(k, chunks.size(), "chunk count");

    // Stopped by the caller at chunk `stop`: no chunk after it, and false.
    const size_t stop = params[0] % (chunks.size() + 1);
    size_t seen = 0;
    const bool finished = plan_chunks(text, size, [&](const ChunkSpan&) { return seen++ != stop; });
    FUZZ_CHECK_EQ(finished, stop >= chunks.size(), "plan_chunks result when stopped");
    FUZZ_CHECK_EQ(seen, std::min(stop + 1, chunks.size()), "chunks emitted before the stop");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    const int width = width_of(data[0]);
    const std::vector<uint32_t> t = decode_text(data + 4, size - 4, width);
    with_text(width, t, (data[0] / 3) % 16, [&](const auto* text, size_t n) { check(text, n, t, data + 1); });
    return 0;
}
