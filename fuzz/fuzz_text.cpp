// The fuzz targets' input decoding and plain references (see fuzz_text.hpp).
#include "fuzz_text.hpp"

namespace velmora::fuzz {
namespace {

// The needle inserted by tokens F8..FF: bit 0 upper-cases its letters, bit 1 spells each
// "k" as U+212A, bit 2 spells a last "i" as U+0130.
void insert_needle(std::vector<uint32_t>& out, const std::vector<uint8_t>& needle, unsigned bits) {
    for (size_t i = 0; i < needle.size(); ++i) {
        uint32_t c = needle[i];
        if ((bits & 1) && c >= 'a' && c <= 'z') c -= 32;
        if ((bits & 2) && needle[i] == 'k') c = 0x212A;
        if ((bits & 4) && needle[i] == 'i' && i + 1 == needle.size()) c = 0x130;
        out.push_back(c);
    }
}

}  // namespace

std::vector<uint32_t> decode_text(const uint8_t* data, size_t size, int width, const std::vector<uint8_t>* needle,
                                  size_t max_text) {
    std::vector<uint32_t> out;
    size_t i = 0;
    const auto next = [&]() -> uint32_t { return i < size ? data[i++] : 0; };
    while (i < size && out.size() < max_text) {
        const uint32_t t = data[i++];
        if (t < 0x80) {
            out.push_back(t);
        } else if (t < 0xC0) {
            out.push_back(clamp_to(kSpecial[(t - 0x80) % kSpecialCount], width));
        } else if (t < 0xE0) {
            const uint32_t lo = next();
            out.push_back(clamp_to(lo | next() << 8, width));
        } else if (t < 0xF0) {
            const uint32_t b0 = next(), b1 = next(), b2 = next();
            out.push_back(clamp_to((b0 | b1 << 8 | (b2 & 0x1F) << 16) % 0x110000, width));
        } else if (t >= 0xF8 && needle != nullptr) {
            const size_t from = out.size();
            insert_needle(out, *needle, t & 7);
            for (size_t k = from; k < out.size(); ++k) out[k] = clamp_to(out[k], width);
        } else {
            const size_t span = 1 + (next() & 0x3F);
            const size_t times = (1 + next()) << ((t & 7) >> 1);
            if (out.empty()) continue;
            const size_t from = out.size() - std::min(span, out.size());
            const size_t len = out.size() - from;
            for (size_t r = 0; r < times && out.size() + len <= max_text; ++r) {
                for (size_t k = 0; k < len; ++k) out.push_back(out[from + k]);
            }
        }
    }
    if (out.size() > max_text) out.resize(max_text);
    return out;
}

// The boundaries of str.splitlines, listed.
bool ref_boundary(uint32_t c) {
    switch (c) {
        case 0x0A: case 0x0B: case 0x0C: case 0x0D: case 0x1C: case 0x1D: case 0x1E:
        case 0x85: case 0x2028: case 0x2029:
            return true;
        default:
            return false;
    }
}

// str.splitlines(): a line ends at each boundary, CR LF being one; a boundary at the very
// end starts no further line.
std::vector<RefLine> ref_lines(const std::vector<uint32_t>& t) {
    std::vector<RefLine> lines;
    size_t start = 0, i = 0;
    while (i < t.size()) {
        if (ref_boundary(t[i])) {
            const size_t w = (t[i] == 0x0D && i + 1 < t.size() && t[i + 1] == 0x0A) ? 2 : 1;
            lines.push_back({start, i, i + w});
            i += w;
            start = i;
        } else {
            ++i;
        }
    }
    if (start < t.size()) lines.push_back({start, t.size(), t.size()});
    return lines;
}

// The lines [from, to) joined with one LF.
std::vector<uint32_t> ref_join(const std::vector<uint32_t>& t, const std::vector<RefLine>& lines,
                                      size_t from, size_t to) {
    std::vector<uint32_t> out;
    for (size_t j = from; j < to; ++j) {
        if (j != from) out.push_back(0x0A);
        out.insert(out.end(), t.begin() + static_cast<std::ptrdiff_t>(lines[j].begin),
                   t.begin() + static_cast<std::ptrdiff_t>(lines[j].end));
    }
    return out;
}

// UTF-8 length, a lone surrogate being the one byte "?" it is stored as.
void ref_lower(const std::vector<uint32_t>& t, std::vector<uint32_t>& lowered, std::vector<size_t>& origin) {
    lowered.clear();
    origin.clear();
    for (size_t i = 0; i < t.size(); ++i) {
        const uint32_t c = t[i];
        if (c == 0x130) {
            lowered.insert(lowered.end(), {'i', 0x307});
            origin.insert(origin.end(), {i, i});
        } else {
            lowered.push_back(c >= 'A' && c <= 'Z' ? c + 32 : c == 0x212A ? 'k' : c);
            origin.push_back(i);
        }
    }
}

uint64_t ref_utf8_length(const std::vector<uint32_t>& t) {
    uint64_t n = 0;
    for (uint32_t c : t) {
        if (c < 0x80 || (c >= 0xD800 && c <= 0xDFFF)) n += 1;
        else if (c < 0x800) n += 2;
        else if (c < 0x10000) n += 3;
        else n += 4;
    }
    return n;
}

}  // namespace velmora::fuzz
