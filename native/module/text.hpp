// Reading and making str objects by their storage width, without a Python object per
// piece: the kernels of the core see the raw code points of a str.
#pragma once

#include "module/owned.hpp"

#include <cstdint>
#include <cstring>

namespace velmora::py {

// Calls f(const Char* data, size_t length) with Char the width of the ready str `text`.
template <class F>
decltype(auto) visit_text(PyObject* text, F&& f) {
    const size_t length = static_cast<size_t>(PyUnicode_GET_LENGTH(text));
    const void* data = PyUnicode_DATA(text);
    switch (PyUnicode_KIND(text)) {
        case PyUnicode_1BYTE_KIND:
            return f(static_cast<const uint8_t*>(data), length);
        case PyUnicode_2BYTE_KIND:
            return f(static_cast<const uint16_t*>(data), length);
        default:
            return f(static_cast<const uint32_t*>(data), length);
    }
}

// Calls f(Char* data) with Char the width of a str just made by PyUnicode_New.
template <class F>
void fill_text(PyObject* text, F&& f) {
    void* data = PyUnicode_DATA(text);
    switch (PyUnicode_KIND(text)) {
        case PyUnicode_1BYTE_KIND:
            f(static_cast<uint8_t*>(data));
            break;
        case PyUnicode_2BYTE_KIND:
            f(static_cast<uint16_t*>(data));
            break;
        default:
            f(static_cast<uint32_t*>(data));
            break;
    }
}

// text[begin:end] of a ready str, as a new str.
inline PyObject* substring(PyObject* text, size_t begin, size_t end) {
    return PyUnicode_Substring(text, static_cast<Py_ssize_t>(begin), static_cast<Py_ssize_t>(end));
}

// The pieces of the ready str `text` between line feeds (k LFs give k + 1 pieces), as a
// new list.
PyObject* lf_pieces(PyObject* text);

// Appends to `list` the pieces of `text` between line feeds.
bool append_lf_pieces(PyObject* list, PyObject* text);

}  // namespace velmora::py
