#include "core/scan_layout.hpp"

#include <charconv>

namespace velmora::core {
namespace {

void write_name(std::string& out, const ScanLayout& layout, std::string_view shown) {
    if (!layout.color) {
        out += shown;
        return;
    }
    out += kPath;
    out += shown;
    out += kReset;
}

// What comes before a record's text: its file, number and column, each followed by a separator.
void write_prefix(std::string& out, const ScanLayout& layout, std::string_view shown, int64_t number,
                  size_t column) {
    if (layout.filename && !layout.heading) {
        write_name(out, layout, shown);
        out += layout.null ? '\0' : ':';
    }
    if (layout.line_number) {
        if (layout.color) out += kNumber;
        append_number(out, number);
        if (layout.color) out += kReset;
        out += ':';
    }
    if (layout.column) {
        append_number(out, static_cast<int64_t>(column) + 1);
        out += ':';
    }
}

void write_match(std::string& out, const ScanLayout& layout, std::string_view match) {
    // An empty match has nothing to colour, and prints no colour codes.
    if (!layout.color || match.empty()) {
        out += match;
        return;
    }
    out += kMatch;
    out += match;
    out += kReset;
}

// The line whole, each match coloured when colour is asked for.
void write_text(std::string& out, const ScanLayout& layout, std::string_view text, const std::vector<Span>& spans) {
    if (!layout.color) {
        out += text;
        return;
    }
    size_t done = 0;
    for (const Span& span : spans) {
        out += text.substr(done, span.begin - done);
        write_match(out, layout, text.substr(span.begin, span.end - span.begin));
        done = span.end;
    }
    out += text.substr(done);
}

}  // namespace

void append_number(std::string& out, int64_t value) {
    char digits[24];
    const auto done = std::to_chars(digits, digits + sizeof digits, value);
    out.append(digits, done.ptr);
}

bool needs_spans(ScanMode mode, const ScanLayout& layout) noexcept {
    if (mode == ScanMode::lines) return layout.color || layout.only_matching || layout.vimgrep;
    return mode == ScanMode::count && layout.only_matching;
}

void write_head(std::string& out, const ScanLayout& layout, std::string_view shown) {
    if (!(layout.heading && layout.filename)) return;
    write_name(out, layout, shown);
    out += layout.null ? '\0' : '\n';
}

void write_line(std::string& out, const ScanLayout& layout, std::string_view shown, int64_t number,
                std::string_view text, size_t column, const std::vector<Span>& spans) {
    if (layout.only_matching) {
        for (const Span& span : spans) {
            write_prefix(out, layout, shown, number, span.begin);
            write_match(out, layout, text.substr(span.begin, span.end - span.begin));
            out += '\n';
        }
    } else if (layout.vimgrep) {
        std::string whole;  // the same in each record
        write_text(whole, layout, text, spans);
        for (const Span& span : spans) {
            write_prefix(out, layout, shown, number, span.begin);
            out += whole;
            out += '\n';
        }
    } else {
        write_prefix(out, layout, shown, number, column);
        write_text(out, layout, text, spans);
        out += '\n';
    }
}

void write_total(std::string& out, ScanMode mode, const ScanLayout& layout, std::string_view shown,
                 uint64_t count) {
    if (mode == ScanMode::count && !layout.filename) {
        append_number(out, static_cast<int64_t>(count));
        out += '\n';
        return;
    }
    write_name(out, layout, shown);
    if (mode == ScanMode::files) {
        out += layout.null ? '\0' : '\n';
        return;
    }
    out += layout.null ? '\0' : ':';
    append_number(out, static_cast<int64_t>(count));
    out += '\n';
}

}  // namespace velmora::core
