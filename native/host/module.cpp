// velmora.native: the host's own native code, beside the text module: the search of
// stored chunks from the index file to printed output, without the GIL, and the freshness
// check's lstat of every indexed file.
#include "host/state.hpp"

namespace velmora::host {
namespace {

int exec_module(PyObject* module) {
    NativeState* state = native_state(module);
    state->dictionary_type = make_dictionary_type(module);
    if (state->dictionary_type == nullptr ||
        PyModule_AddObjectRef(module, "FrameDictionary", state->dictionary_type) < 0) {
        return -1;
    }
    state->damaged_error = PyErr_NewExceptionWithDoc(
        "velmora.native.DamagedChunk", "A stored chunk body is not what the codec wrote.",
        PyExc_ValueError, nullptr);
    if (state->damaged_error == nullptr ||
        PyModule_AddObjectRef(module, "DamagedChunk", state->damaged_error) < 0) {
        return -1;
    }
    state->reader_type = make_reader_type(module);
    state->rows_type = make_rows_type(module);
    if (state->reader_type == nullptr || state->rows_type == nullptr ||
        PyModule_AddObjectRef(module, "ChunkReader", state->reader_type) < 0 ||
        PyModule_AddObjectRef(module, "ChunkRows", state->rows_type) < 0) {
        return -1;
    }
    Owned name(PyModule_GetNameObject(module));
    if (!name) return -1;
    for (PyMethodDef* def : {&scan_chunks_def, &decode_frames_def, &stat_changes_def, &shares_sqlite_def}) {
        Owned function(PyCMethod_New(def, module, name.get(), nullptr));
        if (!function || PyModule_AddObjectRef(module, def->ml_name, function.get()) < 0) return -1;
    }
    return 0;
}

int traverse_module(PyObject* module, visitproc visit, void* arg) {
    NativeState* state = native_state(module);
    Py_VISIT(state->dictionary_type);
    Py_VISIT(state->damaged_error);
    Py_VISIT(state->reader_type);
    Py_VISIT(state->rows_type);
    return 0;
}

int clear_module(PyObject* module) {
    NativeState* state = native_state(module);
    Py_CLEAR(state->dictionary_type);
    Py_CLEAR(state->damaged_error);
    Py_CLEAR(state->reader_type);
    Py_CLEAR(state->rows_type);
    return 0;
}

void free_module(void* module) { clear_module(static_cast<PyObject*>(module)); }

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(exec_module)},
    {0, nullptr},
};

PyModuleDef native_module = {
    PyModuleDef_HEAD_INIT,
    "native",
    "The host's native code: chunks read from the index and scanned to printed output, and\n"
    "the freshness check's lstat of every indexed file.",
    sizeof(NativeState),
    nullptr,
    module_slots,
    traverse_module,
    clear_module,
    free_module,
};

}  // namespace
}  // namespace velmora::host

PyMODINIT_FUNC PyInit_native() { return PyModuleDef_Init(&velmora::host::native_module); }
