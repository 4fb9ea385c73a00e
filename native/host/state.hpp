// The state of the host's native module, velmora.native, and what its files define.
#pragma once

#include "core/chunk_reader.hpp"
#include "core/zstd_frames.hpp"
#include "module/owned.hpp"

#include <new>

namespace velmora::host {

using py::Owned;

struct NativeState {
    PyObject* dictionary_type;  // FrameDictionary
    PyObject* damaged_error;    // DamagedChunk
    PyObject* reader_type;      // ChunkReader
    PyObject* rows_type;        // ChunkRows
};

inline NativeState* native_state(PyObject* module) {
    return static_cast<NativeState*>(PyModule_GetState(module));
}

// The FrameDictionary type; the core dictionary of an instance of it (null, with a
// TypeError set, for another object).
PyObject* make_dictionary_type(PyObject* module);
const core::FrameDictionary* dictionary_of(NativeState* state, PyObject* object);

// The ChunkReader and ChunkRows types; the rows of a ChunkRows (null, with no error set, for
// another object).
PyObject* make_reader_type(PyObject* module);
PyObject* make_rows_type(PyObject* module);
const core::ChunkRows* rows_of(NativeState* state, PyObject* object);

// A module function that takes its arguments by position or keyword.
template <class F>
PyMethodDef keywords_method(const char* name, F* function, const char* doc) {
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function)),
            METH_VARARGS | METH_KEYWORDS, doc};
}

// Runs ``work`` with the GIL released; false, with MemoryError set, when it ran out of memory.
template <class Work>
bool without_gil(Work&& work) {
    bool out_of_memory = false;
    Py_BEGIN_ALLOW_THREADS
    try {
        work();
    } catch (const std::bad_alloc&) {
        out_of_memory = true;
    }
    Py_END_ALLOW_THREADS
    if (out_of_memory) PyErr_NoMemory();
    return !out_of_memory;
}

extern PyMethodDef scan_chunks_def;
extern PyMethodDef decode_frames_def;
extern PyMethodDef stat_changes_def;
extern PyMethodDef shares_sqlite_def;

}  // namespace velmora::host
