// The scan of a group of chunks against a plain reading of the host's rules: every chunk
// decoded whole, checked as UTF-8 by a code-point decoder, split on LF, each line lower-cased
// as far as an ASCII needle can tell, and searched by brute force.
//
// Input layout: byte 0 holds the flags (bit 0 case kept, bits 1..2 the mode, bits 3..4 the
// match limit, 0 for none), byte 1 the needle's size, then the needle, then the chunks'
// texts, raw bytes (any UTF-8, good or bad), separated by 0xFF. A text starting with 0xFE
// is stored as it is, not as a frame; one starting with 0xFD gets a wrong last-line number;
// one starting with 0xFC starts the next file.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include <zstd.h>

#include "core/chunk_scan.hpp"
#include "fuzz_text.hpp"

using namespace velmora::core;
using velmora::fuzz::fail;

namespace {

// Strict UTF-8, one code point at a time; false on anything the host's decoder refuses.
bool ref_decode(const std::string& bytes, std::vector<uint32_t>& out) {
    out.clear();
    for (size_t i = 0; i < bytes.size();) {
        const uint8_t lead = static_cast<uint8_t>(bytes[i]);
        const size_t width = lead < 0x80 ? 1 : (lead >> 5) == 6 ? 2 : (lead >> 4) == 14 ? 3 : (lead >> 3) == 30 ? 4 : 0;
        if (width == 0 || i + width > bytes.size()) return false;
        uint32_t cp = width == 1 ? lead : lead & (0xFF >> (width + 1));
        for (size_t k = 1; k < width; ++k) {
            const uint8_t b = static_cast<uint8_t>(bytes[i + k]);
            if ((b & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (b & 0x3F);
        }
        static constexpr uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < smallest[width] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        out.push_back(cp);
        i += width;
    }
    return true;
}

size_t ref_find(const std::vector<uint32_t>& hay, const std::vector<uint32_t>& needle) {
    for (size_t p = 0; p + needle.size() <= hay.size(); ++p) {
        if (std::equal(needle.begin(), needle.end(), hay.begin() + static_cast<ptrdiff_t>(p))) return p;
    }
    return kNotFound;
}

// The column of the first match in `line` (code points), or kNotFound.
size_t ref_column(const std::vector<uint32_t>& line, const std::vector<uint32_t>& needle, bool keep_case) {
    if (keep_case) return ref_find(line, needle);
    std::vector<uint32_t> lowered;
    std::vector<size_t> origin;
    velmora::fuzz::ref_lower(line, lowered, origin);
    const size_t at = ref_find(lowered, needle);
    return at == kNotFound ? at : at < origin.size() ? origin[at] : line.size();
}

struct Input {
    std::string text;  // what the body decodes to, by libzstd itself
    std::string body;
    int64_t first, end;
    size_t file;
    bool decoded;
};

// The body's text by libzstd's one-shot call; false when it is no frame of known size.
bool ref_frame(const std::string& body, std::string& text) {
    const unsigned long long claimed = ZSTD_getFrameContentSize(body.data(), body.size());
    if (claimed == ZSTD_CONTENTSIZE_ERROR || claimed == ZSTD_CONTENTSIZE_UNKNOWN || claimed > (1u << 20)) return false;
    text.resize(claimed);
    const size_t got = ZSTD_decompress(text.data(), text.size(), body.data(), body.size());
    return !ZSTD_isError(got) && got == claimed;
}

ScanResult reference(const ScanQuery& query, const std::vector<Input>& chunks, const std::vector<ScanFile>& files) {
    ScanResult want;
    std::vector<uint32_t> needle, text;
    ref_decode(query.needle, needle);
    const bool decodes_all = !query.case_sensitive || query.needle.empty() || query.needle.find('\0') != std::string::npos;
    // Every body is decoded before any file is looked at.
    for (const Input& chunk : chunks) {
        const bool checked = decodes_all || chunk.text.find(query.needle) != std::string::npos;
        if (!chunk.decoded || (checked && !ref_decode(chunk.text, text))) {
            want.fault = ScanResult::Fault::damaged;
            return want;
        }
    }
    for (size_t f = 0; f < files.size(); ++f) {
        std::string block;
        uint64_t taken = 0;
        for (const Input& chunk : chunks) {
            if (chunk.file != f) continue;
            if (!ref_decode(chunk.text, text)) continue;  // unchecked: it lacks the needle
            if (ref_column(text, needle, query.case_sensitive) == kNotFound) continue;
            const int64_t count = chunk.end >= chunk.first ? std::count(chunk.text.begin(), chunk.text.end(), '\n') + 1 : 0;
            if (count != chunk.end - chunk.first + 1) {
                want.fault = ScanResult::Fault::numbering;
                return want;
            }
            size_t begin = 0;
            for (int64_t number = chunk.first; number - chunk.first < count; ++number) {
                const size_t end = std::min(chunk.text.find('\n', begin), chunk.text.size());
                const std::string line = chunk.text.substr(begin, end - begin);
                std::vector<uint32_t> points;
                ref_decode(line, points);
                const size_t column = ref_column(points, needle, query.case_sensitive);
                if (column != kNotFound && taken < query.max_count) {
                    ++taken;
                    if (query.mode == ScanMode::lines) {
                        // Columns count bytes, as rg's do: the UTF-8 width of the points before.
                        size_t byte_column = 0;
                        for (size_t k = 0; k < column; ++k) {
                            byte_column += points[k] < 0x80 ? 1 : points[k] < 0x800 ? 2 : points[k] < 0x10000 ? 3 : 4;
                        }
                        block += files[f].shown + ":" + std::to_string(number) + ":" + std::to_string(byte_column + 1) + ":" + line + "\n";
                    }
                }
                begin = end + 1;
            }
        }
        if (taken == 0) continue;
        if (query.mode == ScanMode::count) block = files[f].shown + ":" + std::to_string(taken) + "\n";
        if (query.mode == ScanMode::files) block = files[f].shown + "\n";
        want.blocks.push_back(FileBlock{f, want.out.size(), want.out.size() + block.size()});
        want.out += block;
    }
    return want;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint8_t flags = data[0];
    const size_t needle_size = std::min<size_t>(data[1] % 8, size - 2);
    ScanQuery query;
    query.needle.assign(reinterpret_cast<const char*>(data + 2), needle_size);
    query.case_sensitive = flags & 1;
    query.mode = static_cast<ScanMode>(((flags >> 1) & 3) % 3);
    query.max_count = (flags >> 3) & 3 ? (flags >> 3) & 3 : UINT64_MAX;
    if (!query.case_sensitive) {
        // The host lower-cases the needle, and takes only an ASCII one here.
        for (char& c : query.needle) c = static_cast<char>(std::tolower(c & 0x7F));
    } else {
        std::vector<uint32_t> points;
        if (!ref_decode(query.needle, points)) return 0;  // a query is UTF-8
    }

    std::vector<Input> chunks;
    std::vector<ScanFile> files{{"f0", "./f0"}};
    int64_t next_line = 1;
    size_t at = 2 + needle_size;
    while (at <= size && chunks.size() < 64) {
        const uint8_t* stop = static_cast<const uint8_t*>(std::memchr(data + at, 0xFF, size - at));
        const size_t end = stop ? static_cast<size_t>(stop - data) : size;
        std::string text(reinterpret_cast<const char*>(data + at), end - at);
        at = end + 1;
        const uint8_t kind = text.empty() ? 0 : static_cast<uint8_t>(text[0]);
        if (kind == 0xFC) {
            files.push_back({"f" + std::to_string(files.size()), "./f" + std::to_string(files.size())});
            next_line = 1;
        }
        if (kind >= 0xFC) text.erase(0, 1);
        Input chunk{text, text, next_line, next_line + std::count(text.begin(), text.end(), '\n'), files.size() - 1, true};
        if (kind == 0xFD) chunk.end += (text.size() & 1) ? -2 : 1;
        if (kind != 0xFE) {
            chunk.body.resize(ZSTD_compressBound(text.size()));
            chunk.body.resize(ZSTD_compress(chunk.body.data(), chunk.body.size(), text.data(), text.size(), 1));
        }
        chunk.decoded = ref_frame(chunk.body, chunk.text);
        next_line = chunk.end + 1;
        chunks.push_back(std::move(chunk));
    }

    std::vector<ScanChunk> scan;
    for (const Input& chunk : chunks) {
        scan.push_back(ScanChunk{reinterpret_cast<const uint8_t*>(chunk.body.data()), chunk.body.size(), chunk.first,
                                 chunk.end, chunk.file});
    }
    const ScanResult got = scan_chunks(query, nullptr, scan.data(), scan.size(), files.data());
    const ScanResult want = reference(query, chunks, files);
    FUZZ_CHECK_EQ(static_cast<int>(got.fault), static_cast<int>(want.fault), "fault");
    FUZZ_CHECK_EQ(got.blocks.size(), want.blocks.size(), "files with output");
    for (size_t i = 0; i < want.blocks.size(); ++i) {
        FUZZ_CHECK_EQ(got.blocks[i].file, want.blocks[i].file, "file of a block");
        FUZZ_CHECK_EQ(got.blocks[i].end, want.blocks[i].end, "end of a block");
    }
    if (got.out != want.out) fail("output", got.out.size(), want.out.size());
    return 0;
}
