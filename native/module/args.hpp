// Argument parsing for METH_FASTCALL | METH_KEYWORDS functions, with the messages that
// Python gives for a def with the same parameters.
#pragma once

#include "module/owned.hpp"

#include <array>
#include <cstddef>

namespace velmora::py {

struct Signature {
    const char* function;      // as it appears in messages: "code_chunks"
    const char* const* names;  // every parameter, positional ones first
    Py_ssize_t count;
    Py_ssize_t positional;     // how many may be passed by position
    Py_ssize_t required;       // the first `required` have no default
};

// Fills out[0..count) with borrowed references (null for an absent optional one).
bool parse_args(const Signature& signature, PyObject* const* args, Py_ssize_t nargs,
                PyObject* kwnames, PyObject** out);
// The same for the tuple and dict that tp_init receives, laid out as a vectorcall: `held`
// takes the values, which out[] borrows from it.
bool parse_tuple_and_dict(const Signature& signature, PyObject* args, PyObject* kwargs, Owned& held,
                          PyObject** out);

template <size_t N>
struct Params {
    std::array<const char*, N> names;
    const char* function;
    Py_ssize_t positional = N;
    Py_ssize_t required = N;

    Signature signature() const {
        return {function, names.data(), static_cast<Py_ssize_t>(N), positional, required};
    }
    bool parse(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames,
               std::array<PyObject*, N>& out) const {
        return parse_args(signature(), args, nargs, kwnames, out.data());
    }
    bool parse_tuple_and_dict(PyObject* args, PyObject* kwargs, Owned& held,
                              std::array<PyObject*, N>& out) const {
        return py::parse_tuple_and_dict(signature(), args, kwargs, held, out.data());
    }
};

// A function's C++ body as the PyCFunction that a PyMethodDef holds (CPython casts it back
// by the flags).
template <class F>
PyCFunction method_function(F* f) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(f));
}

// TypeError "f() argument 'x' must be str, not int" unless `value` is a str; readies it.
bool require_str(const char* function, const char* param, PyObject* value);
// The same for int (bool included, as for Python's own int parameters).
bool require_int(const char* function, const char* param, PyObject* value);

}  // namespace velmora::py
