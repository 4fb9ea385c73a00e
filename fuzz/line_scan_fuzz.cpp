// Line scanning against a plain splitlines: the lines LineCursor gives, find_line_boundary
// from every position, and the block masks of scan_blocks and BoundaryScanner over a range
// that may start or end inside a CR LF.
#include <vector>

#include "core/line_scan.hpp"
#include "fuzz_text.hpp"

using namespace velmora::core;
using namespace velmora::fuzz;

namespace {

// The masks the scan should give for the block at `base` of [begin, end).
BlockMasks ref_block(const std::vector<uint32_t>& t, size_t base, size_t end) {
    BlockMasks m{0, 0, 0, 0};
    for (size_t p = base; p < end && p < base + kBlock; ++p) {
        const uint64_t bit = uint64_t{1} << (p - base);
        const uint32_t c = t[p];
        const bool lf_of_pair = c == 0x0A && p > 0 && t[p - 1] == 0x0D;
        if (ref_boundary(c) && !lf_of_pair) {
            m.ends |= bit;
            m.count += 1;
            if (c != 0x0A) m.special |= bit;
        }
        if (c > 0x7F && !ref_boundary(c)) m.wide |= bit;
    }
    return m;
}

void check_block(const BlockMasks& got, const BlockMasks& want) {
    FUZZ_CHECK_EQ(got.ends, want.ends, "block ends");
    FUZZ_CHECK_EQ(got.special, want.special, "block special");
    FUZZ_CHECK_EQ(got.wide, want.wide, "block wide");
    FUZZ_CHECK_EQ(got.count, want.count, "block count");
    // The bit helpers, on the masks at hand.
    unsigned bits = 0;
    for (unsigned i = 0; i < 64; ++i) {
        if ((want.ends >> i) & 1) {
            FUZZ_CHECK_EQ(select_bit(want.ends, bits), i, "select_bit");
            ++bits;
        }
    }
    FUZZ_CHECK_EQ(popcount64(want.wide), static_cast<unsigned>(__builtin_popcountll(want.wide)), "popcount64");
    const size_t from = want.count;  // 0..64
    FUZZ_CHECK_EQ(bits_from(from), from >= 64 ? uint64_t{0} : ~uint64_t{0} << from, "bits_from");
}

template <class Char>
void check(const Char* text, size_t size, const std::vector<uint32_t>& t, const uint8_t* params) {
    const std::vector<RefLine> lines = ref_lines(t);

    // LineCursor: the lines themselves.
    LineCursor<Char> cursor(text, size);
    Line line{};
    size_t k = 0;
    while (cursor.next(line)) {
        if (k >= lines.size()) fail("LineCursor: more lines than splitlines", k, lines.size());
        FUZZ_CHECK_EQ(line.begin, lines[k].begin, "line begin");
        FUZZ_CHECK_EQ(line.end, lines[k].end, "line end");
        FUZZ_CHECK_EQ(line.next, lines[k].next, "line next");
        ++k;
    }
    FUZZ_CHECK_EQ(k, lines.size(), "line count");

    // find_line_boundary from every position of a short text; in a long one, from those
    // near its ends and every 61st (all alignments, over many runs), since each search may
    // run to the end. The width of each boundary.
    size_t next_boundary = size;
    for (size_t pos = size; pos-- > 0;) {
        if (ref_boundary(t[pos])) {
            next_boundary = pos;
            const size_t w = (t[pos] == 0x0D && pos + 1 < size && t[pos + 1] == 0x0A) ? 2 : 1;
            FUZZ_CHECK_EQ(boundary_width(text, pos, size), w, "boundary_width");
        }
        if (size <= 300 || pos < 130 || size - pos < 130 || pos % 61 == 0) {
            FUZZ_CHECK_EQ(find_line_boundary(text, pos, size), next_boundary, "find_line_boundary");
        }
    }
    FUZZ_CHECK_EQ(find_line_boundary(text, size, size), size, "find_line_boundary at the end");
    size_t trailing = 0;
    if (size > 0 && ref_boundary(t[size - 1])) trailing = (size >= 2 && t[size - 1] == 0x0A && t[size - 2] == 0x0D) ? 2 : 1;
    FUZZ_CHECK_EQ(trailing_boundary_width(text, size), trailing, "trailing_boundary_width");

    // A range of the text: it may start on the LF of a CR LF, or end on its CR.
    const size_t begin = std::min<size_t>(params[0], size);
    const size_t end = std::max(begin, size - std::min<size_t>(params[1], size));
    BoundaryScanner<Char> scanner(text, begin, end);
    size_t base = 0, expect_base = begin;
    BlockMasks masks{};
    while (scanner.next(base, masks)) {
        FUZZ_CHECK_EQ(base, expect_base, "scanner base");
        if (base >= end) fail("scanner past the end", base, end);
        check_block(masks, ref_block(t, base, end));
        expect_base += kBlock;
    }
    if (expect_base < end) fail("scanner stopped early", expect_base, end);

    // scan_blocks straight, a few blocks a call, carrying the CR across calls.
    const size_t max_blocks = 1 + params[2] % 20;
    std::vector<BlockMasks> out(max_blocks);
    bool cr_before = begin > 0 && t[begin - 1] == 0x0D;
    for (size_t pos = begin; pos < end;) {
        const size_t left = (end - pos + kBlock - 1) / kBlock;
        const size_t n = scan_blocks(text, pos, end, cr_before, out.data(), max_blocks);
        FUZZ_CHECK_EQ(n, std::min(max_blocks, left), "scan_blocks count");
        for (size_t b = 0; b < n; ++b) check_block(out[b], ref_block(t, pos + b * kBlock, end));
        pos += n * kBlock;
        if (pos <= end) FUZZ_CHECK_EQ(cr_before, t[pos - 1] == 0x0D, "scan_blocks cr_before");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    const int width = width_of(data[0]);
    const std::vector<uint32_t> t = decode_text(data + 4, size - 4, width);
    with_text(width, t, (data[0] / 3) % 16, [&](const auto* text, size_t n) { check(text, n, t, data + 1); });
    return 0;
}
