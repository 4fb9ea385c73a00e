#include "module/text.hpp"

namespace velmora::py {
namespace {

template <class Char>
const Char* find_lf(const Char* from, const Char* end) {
    if constexpr (sizeof(Char) == 1) {
        const void* hit = std::memchr(from, '\n', static_cast<size_t>(end - from));
        return hit ? static_cast<const Char*>(hit) : end;
    } else {
        while (from < end && *from != '\n') ++from;
        return from;
    }
}

bool append_piece(PyObject* list, PyObject* text, size_t begin, size_t end) {
    Owned piece(substring(text, begin, end));
    return piece && PyList_Append(list, piece.get()) == 0;
}

}  // namespace

bool append_lf_pieces(PyObject* list, PyObject* text) {
    return visit_text(text, [&](const auto* data, size_t length) {
        const auto* end = data + length;
        const auto* start = data;
        for (;;) {
            const auto* stop = find_lf(start, end);
            if (!append_piece(list, text, static_cast<size_t>(start - data),
                              static_cast<size_t>(stop - data))) {
                return false;
            }
            if (stop == end) return true;
            start = stop + 1;
        }
    });
}

}  // namespace velmora::py
