// ChunkText: the text source over the index's chunks. Segments are the candidates chosen
// before the search; lines are read from all of a file's chunks and the last file kept;
// files whose text the index keeps on disk go to the DiskText it holds.
#include "module/heap_type.hpp"
#include "module/args.hpp"
#include "module/definitions.hpp"
#include "module/signals.hpp"
#include "module/text.hpp"

#include <cstddef>
#include <structmember.h>

namespace velmora::py {
namespace {

struct ChunkTextObject {
    PyObject_HEAD
    PyObject* db;
    PyObject* store;
    PyObject* candidates;
    PyObject* disk;
    PyObject* on_disk;
    PyObject* read;  // (file id, lines) of the last file read from chunks, or None
};

ChunkTextObject* as_chunk_text(PyObject* self) { return reinterpret_cast<ChunkTextObject*>(self); }

void set_fields(ChunkTextObject* self, PyObject* db, PyObject* store, PyObject* candidates,
                PyObject* disk, PyObject* on_disk) {
    Py_XSETREF(self->db, Py_NewRef(db));
    Py_XSETREF(self->store, Py_NewRef(store));
    Py_XSETREF(self->candidates, Py_NewRef(candidates));
    Py_XSETREF(self->disk, Py_NewRef(disk));
    Py_XSETREF(self->on_disk, Py_NewRef(on_disk));
    Py_XSETREF(self->read, Py_NewRef(Py_None));
}

int chunk_text_init(PyObject* self, PyObject* args, PyObject* kwargs) {
    static const Params<5> params{{"db", "store", "candidates", "disk", "on_disk"},
                                  "ChunkText.__init__"};
    // Laid out as a vectorcall: the positional values, then the keyword values.
    const Py_ssize_t nargs = PyTuple_GET_SIZE(args);
    const Py_ssize_t nkw = kwargs ? PyDict_GET_SIZE(kwargs) : 0;
    Owned values(PyTuple_New(nargs + nkw));
    Owned kwnames(nkw ? PyTuple_New(nkw) : nullptr);
    if (!values || (nkw && !kwnames)) return -1;
    for (Py_ssize_t i = 0; i < nargs; ++i) {
        PyTuple_SET_ITEM(values.get(), i, Py_NewRef(PyTuple_GET_ITEM(args, i)));
    }
    Py_ssize_t position = 0, k = 0;
    PyObject *key, *value;
    while (nkw && PyDict_Next(kwargs, &position, &key, &value)) {
        PyTuple_SET_ITEM(kwnames.get(), k, Py_NewRef(key));
        PyTuple_SET_ITEM(values.get(), nargs + k, Py_NewRef(value));
        ++k;
    }
    std::array<PyObject*, 5> a;
    PyObject* const* items = nargs + nkw ? &PyTuple_GET_ITEM(values.get(), 0) : nullptr;
    if (!params.parse(items, nargs, kwnames.get(), a)) return -1;
    set_fields(as_chunk_text(self), a[0], a[1], a[2], a[3], a[4]);
    return 0;
}

// file_id in self._on_disk: 1 or 0, or -1 with an error set.
int kept_on_disk_by(PyObject* self, PyObject* file_id) {
    Owned on_disk(read_field(self, as_chunk_text(self)->on_disk, "_on_disk"));
    return on_disk ? PySequence_Contains(on_disk.get(), file_id) : -1;
}

// self._disk.<name>(file_id, path)
PyObject* ask_disk(PyObject* self, PyObject* name, PyObject* file_id, PyObject* path) {
    Owned disk(read_field(self, as_chunk_text(self)->disk, "_disk"));
    if (!disk) return nullptr;
    PyObject* call[] = {disk.get(), file_id, path};
    return PyObject_VectorcallMethod(name, call, 3 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
}

PyObject* segments(PyObject* self, PyTypeObject* defining, PyObject* const* args, size_t nargsf,
                   PyObject* kwnames) {
    static const Params<2> params{{"file_id", "path"}, "ChunkText.segments"};
    std::array<PyObject*, 2> a;
    if (!params.parse(args, PyVectorcall_NARGS(nargsf), kwnames, a)) return nullptr;
    ModuleState* state = static_cast<ModuleState*>(PyType_GetModuleState(defining));
    PyObject *file_id = a[0], *path = a[1];

    const int on_disk = kept_on_disk_by(self, file_id);
    if (on_disk < 0) return nullptr;
    if (on_disk) return ask_disk(self, state->name_segments, file_id, path);
    Owned candidates(read_field(self, as_chunk_text(self)->candidates, "_candidates"));
    if (!candidates) return nullptr;
    if (PyDict_CheckExact(candidates.get())) {
        PyObject* found = PyDict_GetItemWithError(candidates.get(), file_id);
        if (found != nullptr) return Py_NewRef(found);
        return PyErr_Occurred() ? nullptr : PyList_New(0);
    }
    Owned none_found(PyList_New(0));
    if (!none_found) return nullptr;
    return PyObject_CallMethod(candidates.get(), "get", "OO", file_id, none_found.get());
}

// row[index] of a chunk row.
PyObject* item(PyObject* row, Py_ssize_t index) {
    if (PyTuple_CheckExact(row) && index < PyTuple_GET_SIZE(row)) {
        return Py_NewRef(PyTuple_GET_ITEM(row, index));
    }
    Owned key(PyLong_FromSsize_t(index));
    return key ? PyObject_GetItem(row, key.get()) : nullptr;
}

// end_line >= start_line, as the host compares: 1 or 0, or -1 with an error set.
int has_lines(PyObject* start, PyObject* end) {
    if (PyLong_CheckExact(start) && PyLong_CheckExact(end)) {
        int start_overflow = 0, end_overflow = 0;
        const long long s = PyLong_AsLongLongAndOverflow(start, &start_overflow);
        const long long e = PyLong_AsLongLongAndOverflow(end, &end_overflow);
        if (!start_overflow && !end_overflow) return e >= s ? 1 : 0;
    }
    Owned compared(PyObject_RichCompare(end, start, Py_GE));
    return compared ? PyObject_IsTrue(compared.get()) : -1;
}

// Appends the lines of one chunk row (first line, last line, text, ...) to `lines`.
bool append_chunk(PyObject* lines, PyObject* row) {
    Owned start(item(row, 0));
    Owned end(start ? item(row, 1) : nullptr);
    Owned text(end ? item(row, 2) : nullptr);
    if (!text) return false;
    const int any = has_lines(start.get(), end.get());
    if (any <= 0) return any == 0;
    if (PyUnicode_CheckExact(text.get())) {
        return PyUnicode_READY(text.get()) == 0 && append_lf_pieces(lines, text.get());
    }
    // Not a str: whatever its own split gives.
    Owned lf(PyUnicode_FromString("\n"));
    Owned pieces(lf ? PyObject_CallMethod(text.get(), "split", "O", lf.get()) : nullptr);
    Owned extended(pieces ? PyObject_CallMethod(lines, "extend", "O", pieces.get()) : nullptr);
    return static_cast<bool>(extended);
}

// Every line of a file, from all of its chunks in row-id order.
PyObject* read_lines(ModuleState* state, PyObject* self, PyObject* file_id) {
    Owned range(row_id_range(state, file_id));
    if (!range) return nullptr;
    Owned store(read_field(self, as_chunk_text(self)->store, "_store"));
    const int compressed = store ? is_compressed(state, store.get()) : -1;
    if (compressed < 0) return nullptr;
    Owned rows;
    if (compressed) {
        Owned file_rows(PyObject_GetAttr(state->chunk_store, state->name_file_rows));
        Owned db(file_rows ? read_field(self, as_chunk_text(self)->db, "_db") : nullptr);
        if (!db) return nullptr;
        PyObject* call[] = {db.get(), PyTuple_GET_ITEM(range.get(), 0), PyTuple_GET_ITEM(range.get(), 1)};
        rows = Owned(PyObject_Vectorcall(file_rows.get(), call, 3, nullptr));
    } else {
        Owned db(read_field(self, as_chunk_text(self)->db, "_db"));
        if (!db) return nullptr;
        PyObject* call[] = {db.get(), state->sql_file_chunks, range.get()};
        rows = Owned(PyObject_VectorcallMethod(state->name_fetchall, call,
                                               3 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
    }
    if (!rows) return nullptr;

    Owned lines(PyList_New(0));
    if (!lines) return nullptr;
    SignalCountdown countdown;  // a file may have many chunks, or rows may be many
    if (PyList_CheckExact(rows.get())) {
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rows.get()); ++i) {
            Owned row(Py_NewRef(PyList_GET_ITEM(rows.get(), i)));
            if (!append_chunk(lines.get(), row.get()) || !countdown.pass_item(0)) return nullptr;
        }
        return lines.release();
    }
    Owned iterator(PyObject_GetIter(rows.get()));
    if (!iterator) return nullptr;
    while (Owned row{PyIter_Next(iterator.get())}) {
        if (!append_chunk(lines.get(), row.get()) || !countdown.pass_item(0)) return nullptr;
    }
    return PyErr_Occurred() ? nullptr : lines.release();
}

PyObject* lines(PyObject* self, PyTypeObject* defining, PyObject* const* args, size_t nargsf,
                PyObject* kwnames) {
    static const Params<2> params{{"file_id", "path"}, "ChunkText.lines"};
    std::array<PyObject*, 2> a;
    if (!params.parse(args, PyVectorcall_NARGS(nargsf), kwnames, a)) return nullptr;
    ModuleState* state = static_cast<ModuleState*>(PyType_GetModuleState(defining));
    PyObject *file_id = a[0], *path = a[1];

    const int on_disk = kept_on_disk_by(self, file_id);
    if (on_disk < 0) return nullptr;
    if (on_disk) return ask_disk(self, state->name_lines, file_id, path);

    // Read afresh after the refill, as a plain method would: code run by the comparison or
    // the read may have replaced the field meanwhile.
    Owned read(read_field(self, as_chunk_text(self)->read, "_read"));
    if (!read) return nullptr;
    int stale = read.get() == Py_None;
    if (!stale) {
        Owned held_id(item(read.get(), 0));
        Owned differs(held_id ? PyObject_RichCompare(held_id.get(), file_id, Py_NE) : nullptr);
        stale = differs ? PyObject_IsTrue(differs.get()) : -1;
        if (stale < 0) return nullptr;
    }
    if (stale) {
        Owned fresh(read_lines(state, self, file_id));
        PyObject* pair = fresh ? PyTuple_Pack(2, file_id, fresh.get()) : nullptr;
        if (pair == nullptr) return nullptr;
        // Set only once every chunk is read: a failed read keeps the file held before.
        Py_XSETREF(as_chunk_text(self)->read, pair);
    }
    read = Owned(read_field(self, as_chunk_text(self)->read, "_read"));
    return read ? item(read.get(), 1) : nullptr;
}

int chunk_text_traverse(PyObject* self, visitproc visit, void* arg) {
    ChunkTextObject* object = as_chunk_text(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(object->db);
    Py_VISIT(object->store);
    Py_VISIT(object->candidates);
    Py_VISIT(object->disk);
    Py_VISIT(object->on_disk);
    Py_VISIT(object->read);
    return 0;
}

int chunk_text_clear(PyObject* self) {
    ChunkTextObject* object = as_chunk_text(self);
    Py_CLEAR(object->db);
    Py_CLEAR(object->store);
    Py_CLEAR(object->candidates);
    Py_CLEAR(object->disk);
    Py_CLEAR(object->on_disk);
    Py_CLEAR(object->read);
    return 0;
}

PyMethodDef chunk_text_methods[] = {
    {"segments", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(segments)),
     METH_METHOD | METH_FASTCALL | METH_KEYWORDS,
     "segments($self, /, file_id, path)\n--\n\n"
     "The chunks of the file that may hold a match, by line (the file whole from disk)."},
    {"lines", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(lines)),
     METH_METHOD | METH_FASTCALL | METH_KEYWORDS,
     "lines($self, /, file_id, path)\n--\n\n"
     "Every line of the file, from all of its chunks (the last file read is kept)."},
    {nullptr, nullptr, 0, nullptr},
};

#define VELMORA_FIELD(name, member) \
    {name, T_OBJECT_EX, static_cast<Py_ssize_t>(offsetof(ChunkTextObject, member)), 0, nullptr}
PyMemberDef chunk_text_members[] = {
    VELMORA_FIELD("_db", db),
    VELMORA_FIELD("_store", store),
    VELMORA_FIELD("_candidates", candidates),
    VELMORA_FIELD("_disk", disk),
    VELMORA_FIELD("_on_disk", on_disk),
    VELMORA_FIELD("_read", read),
    {nullptr, 0, 0, 0, nullptr},
};
#undef VELMORA_FIELD

PyType_Slot chunk_text_slots[] = {
    {Py_tp_doc, const_cast<char*>(
                    "ChunkText(db, store, candidates, disk, on_disk)\n--\n\n"
                    "The text of the files from the chunks of the index that may hold a match, and from disk\n"
                    "    for the files whose text the index keeps there.")},
    {Py_tp_init, reinterpret_cast<void*>(chunk_text_init)},
    {Py_tp_new, reinterpret_cast<void*>(PyType_GenericNew)},
    {Py_tp_traverse, reinterpret_cast<void*>(chunk_text_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(chunk_text_clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(gc_dealloc<chunk_text_clear>)},
    {Py_tp_methods, chunk_text_methods},
    {Py_tp_members, chunk_text_members},
    {0, nullptr},
};

PyType_Spec chunk_text_spec = {
    "velmora.storage.code_text.ChunkText",
    sizeof(ChunkTextObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
    chunk_text_slots,
};

}  // namespace

PyObject* make_chunk_text_type(PyObject* module) {
    return PyType_FromModuleAndSpec(module, &chunk_text_spec, nullptr);
}

PyObject* new_chunk_text(ModuleState* state, PyObject* db, PyObject* store, PyObject* candidates,
                         PyObject* disk, PyObject* on_disk) {
    auto* type = reinterpret_cast<PyTypeObject*>(state->chunk_text_type);
    PyObject* self = type->tp_alloc(type, 0);
    if (self == nullptr) return nullptr;
    set_fields(as_chunk_text(self), db, store, candidates, disk, on_disk);
    return self;
}

int is_compressed(ModuleState* state, PyObject* store) {
    Owned equal(PyObject_RichCompare(store, state->str_compressed, Py_EQ));
    return equal ? PyObject_IsTrue(equal.get()) : -1;
}

}  // namespace velmora::py
