// How the scan of a plain needle prints what it found: the host printer's layouts, byte for
// byte.
//
// Mode lines, per file with a match: under `heading` (with `filename`) the name alone, ended
// by LF (NUL under `null`); then for each matching line the record
//     [name SEP][number ":"][column ":"]text LF
// the name only with `filename` and without `heading`, SEP ":" (NUL under `null`), the number
// with `line_number`, the column (in bytes, from 1) with `column`. A line prints one record,
// whole, with the column of its first match; under `vimgrep` one record per match, whole,
// with that match's column; under `only_matching` one record per match holding the match
// alone (it wins over `vimgrep`).
// Mode count: "name:count" LF ("name" NUL "count" LF under `null`, the count alone without
// `filename`); the count is of matching lines, or of matches under `only_matching`.
// Mode files: "name" LF ("name" NUL under `null`).
// In colour the name prints as kPath name kReset, the line number as kNumber number kReset,
// and each non-empty match as kMatch match kReset; columns and separators are never coloured.
// Nothing separates two files: what goes between them (a heading's blank line) is the
// caller's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::core {

enum class ScanMode : uint8_t { lines, count, files };

struct ScanLayout {
    bool filename = true;
    bool heading = false;
    bool line_number = true;
    bool column = true;
    bool null = false;
    bool only_matching = false;
    bool vimgrep = false;
    bool color = false;
};

inline constexpr std::string_view kPath = "\x1b[35m", kNumber = "\x1b[32m", kMatch = "\x1b[1;31m",
                                  kReset = "\x1b[0m";

// A match on a line: the line's bytes [begin, end).
struct Span {
    size_t begin;
    size_t end;
};

// Whether printing a matching line in `mode` needs every match on it, not only where the
// first one starts.
bool needs_spans(ScanMode mode, const ScanLayout& layout) noexcept;

// What opens a file's matching lines in mode lines (nothing without a heading).
void write_head(std::string& out, const ScanLayout& layout, std::string_view shown);

// The records of one matching line: `column` is the byte offset of its first match, `spans`
// its matches when needs_spans says they are needed.
void write_line(std::string& out, const ScanLayout& layout, std::string_view shown, int64_t number,
                std::string_view text, size_t column, const std::vector<Span>& spans);

// A file's line in mode count (`count` as the layout counts) or files.
void write_total(std::string& out, ScanMode mode, const ScanLayout& layout, std::string_view shown,
                 uint64_t count);

// `value` in decimal.
void append_number(std::string& out, int64_t value);

}  // namespace velmora::core
