// The search of a group of stored chunks for a plain needle, from compressed bodies to the
// printed output, with the host's rules:
//   - a chunk's text is its lines joined by LF (its lines are the text split on LF);
//   - a line matches where str.find(needle) finds the needle in it, or, ignoring case,
//     where line.lower().find(needle) does (an ASCII needle, given lower-cased: the rules
//     of core/ascii_search.hpp); the column is the match's byte offset in the line, as rg counts;
//   - a body is damaged when it is no frame of the index's codec, or when its text is no
//     UTF-8 and the host would have decoded it: always when case is ignored, and otherwise
//     only when its bytes hold the needle (a body without it is never turned into a str);
//   - a chunk whose text holds the needle must have as many lines as its numbers say.
// A chunk whose text does not hold the needle is never split into lines.
//
// Output, per file with a match: its matching lines, their count or its name, printed as
// core/scan_layout.hpp lays them out under the file's shown name; a match is found again on
// its line after the first as str.find finds it, from the end of the match before (from the
// next code point, past an empty one), and, ignoring case, as it is found in line.lower()
// mapped back onto the line (where an empty needle matches twice before a U+0130, whose
// lower case is two code points).
#pragma once

#include "core/ascii_search.hpp"
#include "core/scan_layout.hpp"
#include "core/zstd_frames.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace velmora::core {

struct ScanQuery {
    std::string needle;  // UTF-8; ASCII when case is ignored
    bool case_sensitive;
    ScanMode mode;
    uint64_t max_count;  // matching lines taken per file at most
    ScanLayout layout;
};

// One chunk: its compressed body, the numbers of its first and last lines, and the index of
// its file in the group's files. A group's chunks come file by file, each file's in order.
struct ScanChunk {
    const uint8_t* body;
    size_t size;
    int64_t first;
    int64_t end;
    size_t file;
};

// One file: its path in the index (for messages) and as it prints.
struct ScanFile {
    std::string path;
    std::string shown;
};

// The output of one file: out[begin, end).
struct FileBlock {
    size_t file;
    size_t begin;
    size_t end;
};

struct ScanResult {
    enum class Fault : uint8_t { none, damaged, numbering };
    std::string out;
    std::vector<FileBlock> blocks;
    Fault fault = Fault::none;
    std::string detail;  // what is wrong, when there is a fault; the output is then partial
};

// Scans the chunks in order. Throws std::bad_alloc when memory for the output runs out.
ScanResult scan_chunks(const ScanQuery& query, const FrameDictionary* dictionary,
                       const ScanChunk* chunks, size_t chunk_count, const ScanFile* files);

}  // namespace velmora::core
