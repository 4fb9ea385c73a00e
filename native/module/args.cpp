#include "module/args.hpp"

namespace velmora::py {
namespace {

Py_ssize_t index_of(const Signature& signature, PyObject* keyword) {
    for (Py_ssize_t i = 0; i < signature.count; ++i) {
        if (PyUnicode_CompareWithASCIIString(keyword, signature.names[i]) == 0) return i;
    }
    return -1;
}

bool missing(const Signature& signature, Py_ssize_t index) {
    const char* kind = index < signature.positional ? "positional" : "keyword-only";
    PyErr_Format(PyExc_TypeError, "%s() missing 1 required %s argument: '%s'", signature.function,
                 kind, signature.names[index]);
    return false;
}

}  // namespace

bool parse_args(const Signature& signature, PyObject* const* args, Py_ssize_t nargs,
                PyObject* kwnames, PyObject** out) {
    if (nargs > signature.positional) {
        PyErr_Format(PyExc_TypeError, "%s() takes %zd positional argument%s but %zd %s given",
                     signature.function, signature.positional, signature.positional == 1 ? "" : "s", nargs,
                     nargs == 1 ? "was" : "were");
        return false;
    }
    for (Py_ssize_t i = 0; i < signature.count; ++i) out[i] = i < nargs ? args[i] : nullptr;
    const Py_ssize_t nkw = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t k = 0; k < nkw; ++k) {
        PyObject* keyword = PyTuple_GET_ITEM(kwnames, k);
        const Py_ssize_t i = index_of(signature, keyword);
        if (i < 0) {
            PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'",
                         signature.function, keyword);
            return false;
        }
        if (out[i] != nullptr) {
            PyErr_Format(PyExc_TypeError, "%s() got multiple values for argument '%s'",
                         signature.function, signature.names[i]);
            return false;
        }
        out[i] = args[nargs + k];
    }
    for (Py_ssize_t i = 0; i < signature.required; ++i) {
        if (out[i] == nullptr) return missing(signature, i);
    }
    return true;
}

bool parse_tuple_and_dict(const Signature& signature, PyObject* args, PyObject* kwargs, Owned& held,
                          PyObject** out) {
    const Py_ssize_t nargs = PyTuple_GET_SIZE(args);
    const Py_ssize_t nkw = kwargs ? PyDict_GET_SIZE(kwargs) : 0;
    held = Owned(PyTuple_New(nargs + nkw));
    Owned kwnames(nkw ? PyTuple_New(nkw) : nullptr);
    if (!held || (nkw && !kwnames)) return false;
    for (Py_ssize_t i = 0; i < nargs; ++i) {
        PyTuple_SET_ITEM(held.get(), i, Py_NewRef(PyTuple_GET_ITEM(args, i)));
    }
    Py_ssize_t position = 0, k = 0;
    PyObject *key, *value;
    while (nkw && PyDict_Next(kwargs, &position, &key, &value)) {
        PyTuple_SET_ITEM(kwnames.get(), k, Py_NewRef(key));
        PyTuple_SET_ITEM(held.get(), nargs + k, Py_NewRef(value));
        ++k;
    }
    PyObject* const* values = nargs + nkw ? &PyTuple_GET_ITEM(held.get(), 0) : nullptr;
    return parse_args(signature, values, nargs, kwnames.get(), out);
}

bool require_str(const char* function, const char* param, PyObject* value) {
    if (!PyUnicode_Check(value)) {
        PyErr_Format(PyExc_TypeError, "%s() argument '%s' must be str, not %.200s", function,
                     param, Py_TYPE(value)->tp_name);
        return false;
    }
    return PyUnicode_READY(value) == 0;
}

bool require_int(const char* function, const char* param, PyObject* value) {
    if (!PyLong_Check(value)) {
        PyErr_Format(PyExc_TypeError, "%s() argument '%s' must be int, not %.200s", function,
                     param, Py_TYPE(value)->tp_name);
        return false;
    }
    return true;
}

}  // namespace velmora::py
