#include "core/chunk_scan.hpp"

#include "core/utf8.hpp"

#include <algorithm>
#include <cstring>

namespace velmora::core {
namespace {

constexpr size_t kNoLimit = SIZE_MAX;

// Where a line is found: its bytes [begin, end) in the chunk's text, and the column of the
// first match on it, in bytes.
struct FoundLine {
    size_t begin;
    size_t end;
    size_t column;
};

// The needle with the host's rules, ready for a run of chunk texts.
class Needle {
  public:
    explicit Needle(const ScanQuery& query)
        : bytes_(reinterpret_cast<const uint8_t*>(query.needle.data())),
          size_(query.needle.size()),
          case_sensitive_(query.case_sensitive),
          folded_(fold_needle(bytes_, size_)),
          foreign_(!case_sensitive_ && needle_has_foreign_folds(bytes_, size_)),
          has_lf_(std::memchr(bytes_, '\n', size_) != nullptr),
          // The host tests a body's bytes for the needle before decoding it only when the
          // needle keeps its case and holds no NUL (see the header).
          decodes_all_(!case_sensitive_ || size_ == 0 || std::memchr(bytes_, 0, size_) != nullptr) {}

    bool decodes_all() const noexcept { return decodes_all_; }
    bool in_bytes(const uint8_t* text, size_t size) const noexcept {
        return find_bytes(text, size, bytes_, size_) != kNotFound;
    }

    // Calls found(FoundLine) for each line of the text holding a match, in order, until it
    // returns false. Returns whether the whole text holds the needle (across lines too).
    template <class Found>
    bool each_line(const uint8_t* text, size_t size, Found&& found) {
        if (foreign_ && utf8_holds_foreign_folds(text, size)) return each_line_wide(text, size, found);
        size_t at = find(text, size, 0);
        if (at == kNotFound) return false;
        if (has_lf_) return true;  // a line never holds an LF
        size_t line_start = 0;
        while (at != kNotFound) {
            const void* lf_before = at > line_start ? memrchr(text + line_start, '\n', at - line_start) : nullptr;
            const size_t begin = lf_before ? static_cast<size_t>(static_cast<const uint8_t*>(lf_before) - text) + 1
                                           : line_start;
            const void* lf_after = std::memchr(text + at, '\n', size - at);
            const size_t end = lf_after ? static_cast<size_t>(static_cast<const uint8_t*>(lf_after) - text) : size;
            if (!found(FoundLine{begin, end, at - begin})) break;
            if (end == size) break;
            line_start = end + 1;
            at = find(text, size, line_start);
        }
        return true;
    }

    // Every match on a line, in place of what `out` held.
    void spans(const uint8_t* line, size_t size, std::vector<Span>& out) {
        out.clear();
        if (size_ == 0) return empty_spans(line, size, out);
        if (foreign_ && utf8_holds_foreign_folds(line, size)) return wide_spans(line, size, out);
        for (size_t at = find(line, size, 0); at != kNotFound; at = find(line, size, at + size_)) {
            out.push_back(Span{at, at + size_});
        }
    }

  private:
    void empty_spans(const uint8_t* line, size_t size, std::vector<Span>& out) const {
        for (size_t at = 0; at <= size; ++at) {
            if (at < size && (line[at] & 0xC0) == 0x80) continue;  // inside a code point
            out.push_back(Span{at, at});
            const bool dotted_i = at + 1 < size && line[at] == 0xC4 && line[at + 1] == 0xB0;
            if (!case_sensitive_ && dotted_i) out.push_back(Span{at, at});
        }
    }

    // Over code points: a match may end on a letter whose lower case is "k" or starts with "i".
    void wide_spans(const uint8_t* line, size_t size, std::vector<Span>& out) {
        decode_utf8(line, size, wide_);
        for (size_t at = 0; at + size_ <= wide_.size();) {
            const size_t found = find_folded(wide_.data() + at, wide_.size() - at, folded_);
            if (found == kNotFound) break;
            at += found;
            out.push_back(Span{utf8_prefix_bytes(line, size, at), utf8_prefix_bytes(line, size, at + size_)});
            at += size_;
        }
    }

    size_t find(const uint8_t* text, size_t size, size_t from) const noexcept {
        const size_t at = case_sensitive_ ? find_bytes(text + from, size - from, bytes_, size_)
                                          : find_folded(text + from, size - from, folded_);
        return at == kNotFound ? at : from + at;
    }

    // A case-ignoring search of a text whose non-ASCII letters may lower-case into the
    // needle's: over code points, line by line.
    template <class Found>
    bool each_line_wide(const uint8_t* text, size_t size, Found& found) {
        decode_utf8(text, size, wide_);
        if (find_folded(wide_.data(), wide_.size(), folded_) == kNotFound) return false;
        if (has_lf_) return true;
        size_t begin = 0, wide_begin = 0;
        for (;;) {
            const void* lf = std::memchr(text + begin, '\n', size - begin);
            const size_t end = lf ? static_cast<size_t>(static_cast<const uint8_t*>(lf) - text) : size;
            const size_t wide_size = utf8_code_points(text + begin, end - begin);
            const size_t at = find_folded(wide_.data() + wide_begin, wide_size, folded_);
            if (at != kNotFound &&
                !found(FoundLine{begin, end, utf8_prefix_bytes(text + begin, end - begin, at)})) {
                break;
            }
            if (end == size) break;
            begin = end + 1;
            wide_begin += wide_size + 1;
        }
        return true;
    }

    const uint8_t* bytes_;
    size_t size_;
    bool case_sensitive_;
    FoldedNeedle folded_;
    bool foreign_;
    bool has_lf_;
    bool decodes_all_;
    std::vector<uint32_t> wide_;
};

// Builds the output file by file.
class Printer {
  public:
    Printer(const ScanQuery& query, const ScanFile* files, Needle& needle, ScanResult& result)
        : query_(query),
          files_(files),
          needle_(needle),
          result_(result),
          spans_wanted_(needs_spans(query.mode, query.layout)) {}

    bool wants_more() const noexcept { return taken_ < query_.max_count; }

    void begin_file(size_t file) {
        finish_file();
        file_ = file;
        taken_ = matches_ = 0;
        begin_ = result_.out.size();
    }

    void line(int64_t number, const uint8_t* text, size_t size, size_t column) {
        if (spans_wanted_) needle_.spans(text, size, spans_);
        matches_ += spans_.size();
        const std::string& shown = files_[file_].shown;
        if (query_.mode == ScanMode::lines) {
            if (taken_ == 0) write_head(result_.out, query_.layout, shown);
            write_line(result_.out, query_.layout, shown, number,
                       std::string_view(reinterpret_cast<const char*>(text), size), column, spans_);
        }
        ++taken_;
    }

    void finish_file() {
        if (file_ == kNoLimit || taken_ == 0) return;
        if (query_.mode != ScanMode::lines) {
            const uint64_t count = query_.layout.only_matching ? matches_ : taken_;
            write_total(result_.out, query_.mode, query_.layout, files_[file_].shown, count);
        }
        result_.blocks.push_back(FileBlock{file_, begin_, result_.out.size()});
        taken_ = 0;
    }

  private:
    const ScanQuery& query_;
    const ScanFile* files_;
    Needle& needle_;
    ScanResult& result_;
    const bool spans_wanted_;
    std::vector<Span> spans_;
    size_t file_ = kNoLimit;
    uint64_t taken_ = 0;
    uint64_t matches_ = 0;
    size_t begin_ = 0;
};

std::string numbering_fault(const ScanFile& file, const ScanChunk& chunk, size_t count) {
    std::string message = "a chunk of " + file.path + " numbers lines ";
    append_number(message, chunk.first);
    message += '-';
    append_number(message, chunk.end);
    message += " but holds ";
    append_number(message, static_cast<int64_t>(count));
    return message;
}

// What is wrong with a chunk's body (empty when nothing is); its text in text[0, size).
std::string damage_of(FrameDecoder& decoder, const Needle& needle, const ScanChunk& chunk,
                      const uint8_t*& text, size_t& size) {
    std::string damage = decoder.decode(chunk.body, chunk.size, text, size);
    if (damage.empty() && (needle.decodes_all() || needle.in_bytes(text, size)) &&
        !is_valid_utf8(text, size)) {
        damage = "the text is not UTF-8";
    }
    return damage;
}

}  // namespace

ScanResult scan_chunks(const ScanQuery& query, const FrameDictionary* dictionary,
                       const ScanChunk* chunks, size_t chunk_count, const ScanFile* files) {
    ScanResult result;
    FrameDecoder decoder(dictionary);
    Needle needle(query);
    Printer printer(query, files, needle, result);
    const uint8_t* data = nullptr;
    std::vector<FoundLine> found;
    size_t file = kNoLimit;
    // The host decodes a whole group before it looks at any file of it: damage anywhere
    // in the group is the answer, whatever the chunks before it hold.
    const auto damaged = [&](std::string damage) {
        result.out.clear();
        result.blocks.clear();
        result.fault = ScanResult::Fault::damaged;
        result.detail = std::move(damage);
        return result;
    };
    for (size_t i = 0; i < chunk_count; ++i) {
        const ScanChunk& chunk = chunks[i];
        if (chunk.file != file) {
            printer.begin_file(chunk.file);
            file = chunk.file;
        }
        size_t size = 0;
        std::string damage = damage_of(decoder, needle, chunk, data, size);
        if (!damage.empty()) return damaged(std::move(damage));
        // Matches are held back until the chunk's numbers are checked.
        found.clear();
        const bool wanted = printer.wants_more();
        const bool held = needle.each_line(data, size, [&](const FoundLine& line) {
            found.push_back(line);
            return wanted;
        });
        if (!held) continue;
        const bool has_lines = chunk.end >= chunk.first;
        const size_t count = has_lines ? static_cast<size_t>(std::count(data, data + size, '\n')) + 1 : 0;
        if (static_cast<int64_t>(count) != chunk.end - chunk.first + 1) {
            for (size_t j = i + 1; j < chunk_count; ++j) {
                damage = damage_of(decoder, needle, chunks[j], data, size);
                if (!damage.empty()) return damaged(std::move(damage));
            }
            // The files before this one keep their output; this one prints nothing.
            result.out.resize(result.blocks.empty() ? 0 : result.blocks.back().end);
            result.fault = ScanResult::Fault::numbering;
            result.detail = numbering_fault(files[file], chunk, count);
            return result;
        }
        if (!has_lines) continue;  // numbered as holding none, and it holds none
        int64_t number = chunk.first;
        size_t counted = 0;
        for (const FoundLine& line : found) {
            if (!printer.wants_more()) break;
            number += std::count(data + counted, data + line.begin, '\n');
            counted = line.begin;
            printer.line(number, data + line.begin, line.end - line.begin, line.column);
        }
    }
    printer.finish_file();
    return result;
}

}  // namespace velmora::core
