// The module object: its state, and the load that defines every name in a fixed order.
#include "module/definitions.hpp"

namespace velmora::py {
namespace {

constexpr const char* kModuleDoc =
    "The text of the indexed files, as ``search code`` reads it: chunks in the index, or the disk.";
constexpr long kCodeChunkLines = 64;
constexpr long kLargeDataTextBytes = 32768;

int add(PyObject* module, const char* name, PyObject* value) {
    // PyModule_AddObjectRef leaves `value` to the caller either way.
    Owned owned(value);
    return owned ? PyModule_AddObjectRef(module, name, owned.get()) : -1;
}

// `from <module_name> import <name>`, with the error Python's import statement gives.
PyObject* import_from(PyObject* from, const char* module_name, const char* name) {
    PyObject* value = PyObject_GetAttrString(from, name);
    if (value == nullptr && PyErr_ExceptionMatches(PyExc_AttributeError)) {
        PyErr_Clear();
        Owned file(PyModule_Check(from) ? PyModule_GetFilenameObject(from) : nullptr);
        if (!file) PyErr_Clear();
        PyObject* path = file ? file.get() : Py_None;
        Owned message(PyUnicode_FromFormat("cannot import name '%s' from '%s' (%S)", name,
                                           module_name, path));
        Owned module_str(PyUnicode_FromString(module_name));
        if (message && module_str) {
            PyErr_SetImportError(message.get(), module_str.get(), path);
        }
    }
    return value;
}

int add_function(PyObject* module, PyMethodDef* def) {
    Owned name(PyModule_GetNameObject(module));
    if (!name) return -1;
    return add(module, def->ml_name, PyCMethod_New(def, module, name.get(), nullptr));
}

int add_functions(PyObject* module, std::initializer_list<PyMethodDef*> defs) {
    for (PyMethodDef* def : defs) {
        if (add_function(module, def) < 0) return -1;
    }
    return 0;
}

// The stride goes into SQL as digits and into row-id arithmetic: a positive int.
int read_stride(ModuleState* state) {
    PyObject* stride = state->stride;
    int overflow = 0;
    const long long value = PyLong_Check(stride) && !PyBool_Check(stride)
                                ? PyLong_AsLongLongAndOverflow(stride, &overflow)
                                : 0;
    if (value <= 0 || overflow) {
        if (!PyErr_Occurred()) {
            PyErr_Format(PyExc_TypeError,
                         "chunk_store.CHUNK_STRIDE must be a positive int below 2**63, not %R",
                         stride);
        }
        return -1;
    }
    state->stride_value = value;
    return 0;
}

PyObject* chunked_text_bytes_sql(PyObject* stride) {
    return PyUnicode_FromFormat(
        "(SELECT coalesce(sum(length(CAST(coalesce(c.exact, c.text) AS BLOB)) + 1), 1) - 1 "
        "FROM code_chunks c WHERE c.rowid >= f.id * %S AND c.rowid < (f.id + 1) * %S)",
        stride, stride);
}

int import_siblings(PyObject* module, ModuleState* state) {
    state->chunk_store = PyImport_ImportModule("velmora.storage.chunk_store");
    if (state->chunk_store == nullptr || PyModule_AddObjectRef(module, "chunk_store", state->chunk_store) < 0) {
        return -1;
    }
    constexpr const char* store_name = "velmora.storage.chunk_store";
    if (add(module, "Layout", import_from(state->chunk_store, store_name, "Layout")) < 0 ||
        add(module, "layout", import_from(state->chunk_store, store_name, "layout")) < 0) {
        return -1;
    }
    Owned fsio(PyImport_ImportModule("velmora.utils.fsio"));
    if (!fsio) return -1;
    return add(module, "read_bytes_no_follow",
               import_from(fsio.get(), "velmora.utils.fsio", "read_bytes_no_follow"));
}

int define_constants(PyObject* module, ModuleState* state) {
    state->stride = PyObject_GetAttrString(state->chunk_store, "CHUNK_STRIDE");
    if (state->stride == nullptr || read_stride(state) < 0 ||
        PyModule_AddObjectRef(module, "CODE_CHUNK_STRIDE", state->stride) < 0 ||
        add(module, "CODE_CHUNKS_DDL", PyObject_GetAttrString(state->chunk_store, "CODE_CHUNKS_DDL")) < 0 ||
        add(module, "CODE_CHUNK_LINES", PyLong_FromLong(kCodeChunkLines)) < 0) {
        return -1;
    }
    Owned json(PyUnicode_FromString("json"));
    Owned members(json ? PyTuple_Pack(1, json.get()) : nullptr);
    state->large_data_languages = members ? PyFrozenSet_New(members.get()) : nullptr;
    state->large_data_text_bytes = PyLong_FromLong(kLargeDataTextBytes);
    if (!state->large_data_languages || !state->large_data_text_bytes ||
        PyModule_AddObjectRef(module, "LARGE_DATA_LANGUAGES", state->large_data_languages) < 0 ||
        PyModule_AddObjectRef(module, "LARGE_DATA_TEXT_BYTES", state->large_data_text_bytes) < 0) {
        return -1;
    }
    return add(module, "FileRow", make_file_row_alias());
}

int define_sql(PyObject* module, ModuleState* state) {
    Owned sql(chunked_text_bytes_sql(state->stride));
    if (!sql) return -1;
    state->select_large_data_sql =
        select_large_data_sql(sql.get(), PySet_GET_SIZE(state->large_data_languages));
    if (state->select_large_data_sql == nullptr) return -1;
    return PyModule_AddObjectRef(module, "_CHUNKED_TEXT_BYTES_SQL", sql.get());
}

int intern_names(ModuleState* state) {
    state->str_line = PyUnicode_InternFromString("line");
    state->str_content = PyUnicode_InternFromString("content");
    state->str_compressed = PyUnicode_InternFromString("compressed");
    state->str_read_bytes_no_follow = PyUnicode_InternFromString("read_bytes_no_follow");
    if (!state->str_line || !state->str_content || !state->str_compressed ||
        !state->str_read_bytes_no_follow) {
        return -1;
    }
    return intern_disk_names(state) < 0 ? -1 : init_index_side(state);
}

int define_types(PyObject* module, ModuleState* state) {
    state->segment_type = make_segment_type(module);
    if (state->segment_type == nullptr ||
        PyModule_AddObjectRef(module, "Segment", state->segment_type) < 0) {
        return -1;
    }
    state->line_matches_type = make_line_matches_type(module);
    state->disk_text_type = make_disk_text_type(module);
    if (state->line_matches_type == nullptr || state->disk_text_type == nullptr ||
        PyModule_AddObjectRef(module, "DiskText", state->disk_text_type) < 0) {
        return -1;
    }
    state->chunk_text_type = make_chunk_text_type(module);
    if (state->chunk_text_type == nullptr ||
        PyModule_AddObjectRef(module, "ChunkText", state->chunk_text_type) < 0) {
        return -1;
    }
    return 0;
}

// The names appear on the module in the order a reader of its documentation expects:
// siblings, constants, storage rules, the disk side, records and classes, the index side.
int exec_module(PyObject* module) {
    ModuleState* state = module_state(module);
    if (PyModule_SetDocString(module, kModuleDoc) < 0 || intern_names(state) < 0 ||
        import_siblings(module, state) < 0 || define_constants(module, state) < 0 ||
        add_functions(module, {&code_chunks_def, &stored_text_bytes_def, &text_kept_on_disk_def,
                               &file_rowids_def}) < 0 ||
        define_sql(module, state) < 0 ||
        add_functions(module, {&keep_large_data_on_disk_def, &file_text_def, &lines_holding_def,
                               &line_matches_def, &context_def, &chunk_lines_def}) < 0 ||
        define_types(module, state) < 0 ||
        add_functions(module, {&text_source_def, &chunk_state_def, &candidate_chunks_def}) < 0) {
        return -1;
    }
    return 0;
}

int traverse_module(PyObject* module, visitproc visit, void* arg) {
    ModuleState* state = module_state(module);
#define VELMORA_VISIT(name) Py_VISIT(state->name);
    VELMORA_STATE_OBJECTS(VELMORA_VISIT)
#undef VELMORA_VISIT
    return 0;
}

int clear_module(PyObject* module) {
    ModuleState* state = module_state(module);
#define VELMORA_CLEAR(name) Py_CLEAR(state->name);
    VELMORA_STATE_OBJECTS(VELMORA_CLEAR)
#undef VELMORA_CLEAR
    return 0;
}

void free_module(void* module) { clear_module(static_cast<PyObject*>(module)); }

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(exec_module)},
    {0, nullptr},
};

}  // namespace

PyModuleDef code_text_module = {
    PyModuleDef_HEAD_INIT,
    "code_text",
    nullptr,
    sizeof(ModuleState),
    nullptr,
    module_slots,
    traverse_module,
    clear_module,
    free_module,
};

}  // namespace velmora::py

PyMODINIT_FUNC PyInit_code_text() { return PyModuleDef_Init(&velmora::py::code_text_module); }
