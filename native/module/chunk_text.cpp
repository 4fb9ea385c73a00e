// ChunkText: the text source over the index's chunks. Segments are the candidates chosen
// before the search; lines are read from all of a file's chunks and the last file kept;
// files whose text the index keeps on disk go to the DiskText it holds.
#include "module/definitions.hpp"
#include "module/signals.hpp"
#include "module/text.hpp"
#include "module/text_source_type.hpp"

namespace velmora::py {
namespace {

// The fields in the constructor's order, then (file id, lines) of the last file read
// from chunks, or None.
#define VELMORA_CHUNK_TEXT_FIELDS(X) X(db) X(store) X(candidates) X(disk) X(on_disk) X(read)

struct ChunkTextObject {
    PyObject_HEAD
    VELMORA_FIELDS(VELMORA_CHUNK_TEXT_FIELDS)
};

ChunkTextObject* as_chunk_text(PyObject* self) { return as<ChunkTextObject>(self); }

constexpr Params<5> init_params{{"db", "store", "candidates", "disk", "on_disk"}, "ChunkText.__init__"};
// The type's documentation, with its signature.
constexpr const char* kDoc =
    "ChunkText(db, store, candidates, disk, on_disk)\n--\n\n"
    "The text of the files from the chunks of the index that may hold a match, and from disk\n"
    "    for the files whose text the index keeps there.";

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

PyObject* segments(ModuleState* state, PyObject* self, PyObject* file_id, PyObject* path) {
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

PyObject* lines(ModuleState* state, PyObject* self, PyObject* file_id, PyObject* path) {
    const int on_disk = kept_on_disk_by(self, file_id);
    if (on_disk < 0) return nullptr;
    if (on_disk) return ask_disk(self, state->name_lines, file_id, path);
    return held_lines(self, as_chunk_text(self)->read, file_id,
                      [&] { return read_lines(state, self, file_id); });
}

PyMethodDef chunk_text_methods[] = {
    VELMORA_FILE_METHOD(ChunkText, segments, segments,
        "The chunks of the file that may hold a match, by line (the file whole from disk)."),
    VELMORA_FILE_METHOD(ChunkText, lines, lines,
        "Every line of the file, from all of its chunks (the last file read is kept)."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyObject* make_chunk_text_type(PyObject* module) {
    return make_text_source_type<ChunkTextObject, init_params>(module, "velmora.storage.code_text.ChunkText",
                                                      kDoc, chunk_text_methods);
}

PyObject* new_chunk_text(ModuleState* state, PyObject* db, PyObject* store, PyObject* candidates,
                         PyObject* disk, PyObject* on_disk) {
    auto* type = reinterpret_cast<PyTypeObject*>(state->chunk_text_type);
    PyObject* self = type->tp_alloc(type, 0);
    if (self == nullptr) return nullptr;
    set_fields<ChunkTextObject>(self, {db, store, candidates, disk, on_disk, Py_None});
    return self;
}

int is_compressed(ModuleState* state, PyObject* store) {
    Owned equal(PyObject_RichCompare(store, state->str_compressed, Py_EQ));
    return equal ? PyObject_IsTrue(equal.get()) : -1;
}

}  // namespace velmora::py
