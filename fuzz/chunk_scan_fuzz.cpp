// The scan of a group of chunks against a plain reading of the host's rules: every chunk
// decoded whole, checked as UTF-8 by a code-point decoder, split on LF, each line lower-cased
// as far as an ASCII needle can tell, and searched by brute force.
//
// Every match of a line is found as the host's printer finds it (in the lower-cased line,
// mapped back), and each layout is written out field by field.
//
// Input layout: byte 0 holds the flags (bit 0 case kept, bits 1..2 the mode, bits 3..4 the
// match limit, 0 for none, bits 5..7 colour, only the matches, vimgrep), byte 1 the needle's
// size (bits 0..2) and the rest of the layout (bits 3..7: no file name, heading, no line
// number, no column, NUL after names), then the needle, then the chunks' texts, raw bytes
// (any UTF-8, good or bad), separated by 0xFF. A text starting with 0xFE
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

size_t ref_find(const std::vector<uint32_t>& hay, const std::vector<uint32_t>& needle, size_t from = 0) {
    for (size_t p = from; p + needle.size() <= hay.size(); ++p) {
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

struct RefSpan {
    size_t begin, end;  // code points of the line
};

// Every match on the line: non-overlapping, each search from the end of the one before (one
// further after an empty match), in the lower-cased line when case is ignored.
std::vector<RefSpan> ref_spans(const std::vector<uint32_t>& line, const std::vector<uint32_t>& needle, bool keep_case) {
    std::vector<uint32_t> lowered = line;
    std::vector<size_t> origin;
    if (!keep_case) velmora::fuzz::ref_lower(line, lowered, origin);
    const auto back = [&](size_t at) { return keep_case ? at : at < origin.size() ? origin[at] : line.size(); };
    std::vector<RefSpan> out;
    for (size_t at = ref_find(lowered, needle); at != kNotFound;
         at = ref_find(lowered, needle, at + std::max<size_t>(needle.size(), 1))) {
        const size_t end = at + needle.size();
        out.push_back(RefSpan{back(at), end > at ? back(end - 1) + 1 : back(at)});
    }
    return out;
}

// The UTF-8 size of the first `count` code points.
size_t ref_bytes(const std::vector<uint32_t>& points, size_t count) {
    size_t bytes = 0;
    for (size_t k = 0; k < count; ++k) bytes += points[k] < 0x80 ? 1 : points[k] < 0x800 ? 2 : points[k] < 0x10000 ? 3 : 4;
    return bytes;
}

const std::string kNul(1, '\0');

// A file's records, written out as the printer writes them.
struct RefWriter {
    const ScanLayout& layout;
    std::string name;

    RefWriter(const ScanLayout& layout, const std::string& shown)
        : layout(layout), name(layout.color ? "\x1b[35m" + shown + "\x1b[0m" : shown) {}

    std::string prefix(int64_t number, size_t byte_column) const {
        std::string out;
        if (layout.filename && !layout.heading) out += name + (layout.null ? kNul : ":");
        if (layout.line_number) out += layout.color ? "\x1b[32m" + std::to_string(number) + "\x1b[0m:" : std::to_string(number) + ":";
        if (layout.column) out += std::to_string(byte_column + 1) + ":";
        return out;
    }
    std::string match(const std::string& text) const {
        return layout.color && !text.empty() ? "\x1b[1;31m" + text + "\x1b[0m" : text;
    }
    std::string head() const { return layout.heading && layout.filename ? name + (layout.null ? kNul : "\n") : ""; }

    // The records of a matching line; its first match starts at code point `column`.
    std::string records(int64_t number, const std::string& line, const std::vector<uint32_t>& points, size_t column,
                        const std::vector<RefSpan>& spans) const {
        std::string whole, out;
        size_t done = 0;
        for (const RefSpan& span : spans) {
            const size_t begin = ref_bytes(points, span.begin), end = ref_bytes(points, span.end);
            whole += line.substr(done, begin - done) + match(line.substr(begin, end - begin));
            done = end;
        }
        whole += line.substr(done);
        if (!layout.color) whole = line;
        if (!layout.only_matching && !layout.vimgrep) return prefix(number, ref_bytes(points, column)) + whole + "\n";
        for (const RefSpan& span : spans) {
            const size_t begin = ref_bytes(points, span.begin), end = ref_bytes(points, span.end);
            out += prefix(number, begin) + (layout.only_matching ? match(line.substr(begin, end - begin)) : whole) + "\n";
        }
        return out;
    }
    std::string total(ScanMode mode, uint64_t count) const {
        if (mode == ScanMode::files) return name + (layout.null ? kNul : "\n");
        if (!layout.filename) return std::to_string(count) + "\n";
        return name + (layout.null ? kNul : ":") + std::to_string(count) + "\n";
    }
};

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
        const RefWriter writer(query.layout, files[f].shown);
        std::string block;
        uint64_t taken = 0, matches = 0;
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
                    if (taken++ == 0) block += writer.head();
                    const std::vector<RefSpan> spans = ref_spans(points, needle, query.case_sensitive);
                    matches += spans.size();
                    block += writer.records(number, line, points, column, spans);
                }
                begin = end + 1;
            }
        }
        if (taken == 0) continue;
        if (query.mode != ScanMode::lines) block = writer.total(query.mode, query.layout.only_matching ? matches : taken);
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
    const uint8_t shape = data[1];
    query.layout = ScanLayout{!(shape & 0x08), (shape & 0x10) != 0, !(shape & 0x20), !(shape & 0x40),
                              (shape & 0x80) != 0, (flags & 0x40) != 0, (flags & 0x80) != 0, (flags & 0x20) != 0};
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
