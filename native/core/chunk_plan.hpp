// Chunk planning: how a text is cut into stored chunks of at most 64 whole lines.
//
// A chunk is the triple (first line, last line, text): line numbers are 1-based and
// inclusive, and the text is the chunk's lines joined with one LF, whatever boundary
// stood between them in the source (CR LF included). A text without lines gives the one
// chunk (1, 0, ""). The planner never copies text: it reports, for each chunk, the
// source range it covers and what the caller needs to build the joined text in one
// allocation (its length in code points, its largest code point, and whether the range
// can be copied as it is because every boundary inside it is already a single LF).
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/line_scan.hpp"

namespace velmora::core {

inline constexpr size_t kChunkLines = 64;

struct ChunkSpan {
    size_t first_line;  // 1-based, inclusive
    size_t last_line;   // inclusive; 0 for the chunk of a text without lines
    size_t begin;       // source range [begin, end): the first line's start to the last line's end
    size_t end;
    size_t length;      // code points of the joined text
    bool lf_only;       // every boundary in [begin, end) is a lone LF: the range is the text
};

// Calls `emit(const ChunkSpan&)` for each chunk in line order; stops early and returns
// false when `emit` returns false. Always emits at least one chunk.
template <class Char, class Emit>
bool plan_chunks(const Char* text, size_t size, Emit&& emit) {
    LineCursor<Char> cursor(text, size);
    Line line;
    size_t line_number = 0;
    if (!cursor.next(line)) {
        return emit(ChunkSpan{1, 0, 0, 0, 0, true});
    }
    bool more = true;
    while (more) {
        ChunkSpan span{line_number + 1, 0, line.begin, line.end, line.end - line.begin, true};
        size_t count = 1;
        ++line_number;
        while ((more = cursor.next(line)) && count < kChunkLines) {
            // The boundary before this line sits at span.end.
            span.lf_only = span.lf_only && line.begin == span.end + 1 && text[span.end] == '\n';
            span.length += 1 + (line.end - line.begin);
            span.end = line.end;
            ++count;
            ++line_number;
        }
        span.last_line = line_number;
        if (!emit(span)) return false;
    }
    return true;
}

// The largest code point of the joined text of [begin, end): boundaries become LF, so a
// wide boundary (U+0085, U+2028, U+2029) must not widen the result.
template <class Char>
uint32_t joined_max_char(const Char* text, size_t begin, size_t end) noexcept;

// Writes the joined text of [begin, end) to `out`, which holds `length` code points of
// the destination width: each boundary, CR LF included, becomes one LF.
template <class Src, class Dst>
void copy_joined(const Src* text, size_t begin, size_t end, Dst* out) noexcept {
    size_t pos = begin;
    while (pos < end) {
        const size_t stop = find_line_boundary(text, pos, end);
        for (size_t i = pos; i < stop; ++i) *out++ = static_cast<Dst>(text[i]);
        if (stop == end) break;
        *out++ = static_cast<Dst>('\n');
        pos = stop + boundary_width(text, stop, end);
    }
}

}  // namespace velmora::core
