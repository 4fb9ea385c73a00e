#include "module/text.hpp"

#include "module/signals.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace velmora::py {
namespace {

template <class Char>
const Char* find_lf(const Char* from, const Char* end) {
    if constexpr (sizeof(Char) == 1) {
        const void* hit = std::memchr(from, '\n', static_cast<size_t>(end - from));
        return hit ? static_cast<const Char*>(hit) : end;
    } else {
#if defined(__SSE2__)
        // Sixteen code points a round, packed to bytes: with unsigned saturation only
        // an LF becomes 0x0A.
        const __m128i lf = _mm_set1_epi8('\n');
        for (; end - from >= 16; from += 16) {
            __m128i v[2];
            for (size_t k = 0; k < 2; ++k) {
                const auto* p = reinterpret_cast<const __m128i*>(from + k * 8);
                if constexpr (sizeof(Char) == 2) {
                    v[k] = _mm_loadu_si128(p);
                } else {
                    v[k] = _mm_packs_epi32(_mm_loadu_si128(p), _mm_loadu_si128(p + 1));
                }
            }
            const int mask = _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_packus_epi16(v[0], v[1]), lf));
            if (mask != 0) return from + __builtin_ctz(static_cast<unsigned>(mask));
        }
#endif
        while (from < end && *from != '\n') ++from;
        return from;
    }
}

template <class Char>
size_t count_lf(const Char* data, size_t length) {
    size_t count = 0;
    for (size_t i = 0; i < length; ++i) count += data[i] == '\n';  // vectorised
    return count;
}

}  // namespace

PyObject* lf_pieces(PyObject* text) {
    SignalCountdown countdown;  // a huge text may hold millions of pieces
    return visit_text(text, [&](const auto* data, size_t length) -> PyObject* {
        // The host's split gives an empty text back as it is, a str subclass included.
        if (length == 0) {
            PyObject* whole = PyList_New(1);
            if (whole != nullptr) PyList_SET_ITEM(whole, 0, Py_NewRef(text));
            return whole;
        }
        // Counted first, so that the list is made at its size rather than grown.
        const auto count = static_cast<Py_ssize_t>(count_lf(data, length) + 1);
        Owned list(PyList_New(count));
        if (!list) return nullptr;
        const auto* end = data + length;
        const auto* start = data;
        for (Py_ssize_t k = 0; k < count; ++k) {
            const auto* stop = find_lf(start, end);
            PyObject* piece = substring(text, static_cast<size_t>(start - data),
                                        static_cast<size_t>(stop - data));
            if (piece != nullptr) PyList_SET_ITEM(list.get(), k, piece);
            if (piece == nullptr || !countdown.pass_item(static_cast<size_t>(stop - start))) {
                // Only the pieces made are let go of: the rest of a huge list, never
                // written, is not walked (Ctrl-C is answered at once).
                Py_SET_SIZE(list.get(), piece ? k + 1 : k);
                return nullptr;
            }
            start = stop + 1;
        }
        return list.release();
    });
}

bool append_lf_pieces(PyObject* list, PyObject* text) {
    Owned pieces(lf_pieces(text));
    if (!pieces) return false;
    const Py_ssize_t size = PyList_GET_SIZE(list);
    return PyList_SetSlice(list, size, size, pieces.get()) == 0;
}

}  // namespace velmora::py
