// ChunkReader and ChunkRows: a group's chunk rows read from the index file with the GIL
// released, held natively for the scan that follows on the same thread; and whether this
// module may read the file beside the interpreter's own SQLite at all.
#include "core/sqlite_library.hpp"
#include "host/state.hpp"

#include <sqlite3.h>

#include <new>

namespace velmora::host {
namespace {

struct ReaderObject {
    PyObject_HEAD
    core::ChunkReader* reader;
};

struct RowsObject {
    PyObject_HEAD
    core::ChunkRows* rows;
};

core::ChunkReader*& reader_of(PyObject* self) { return reinterpret_cast<ReaderObject*>(self)->reader; }

// A failed read raised as the sqlite3 module raises the same failure, so that the host
// handles it as any other error of the index.
void raise_read_error(const core::ReadError& error) {
    const int primary = error.code & 0xFF;
    if (primary == SQLITE_NOMEM) {
        PyErr_NoMemory();
        return;
    }
    Owned sqlite(PyImport_ImportModule("sqlite3"));
    if (!sqlite) return;
    const bool operational = primary == SQLITE_ERROR || primary == SQLITE_PERM || primary == SQLITE_ABORT ||
                             primary == SQLITE_BUSY || primary == SQLITE_LOCKED || primary == SQLITE_READONLY ||
                             primary == SQLITE_INTERRUPT || primary == SQLITE_IOERR || primary == SQLITE_FULL ||
                             primary == SQLITE_CANTOPEN || primary == SQLITE_PROTOCOL || primary == SQLITE_SCHEMA;
    Owned kind(PyObject_GetAttrString(sqlite.get(), operational ? "OperationalError" : "DatabaseError"));
    if (!kind) return;
    Owned exception(PyObject_CallFunction(kind.get(), "s", error.message.c_str()));
    Owned code(PyLong_FromLong(error.code));
    if (!exception || !code || PyObject_SetAttrString(exception.get(), "sqlite_errorcode", code.get()) < 0) return;
    PyErr_SetObject(kind.get(), exception.get());
}

PyObject* new_reader(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
    static const char* names[] = {"path", "table", "connections", nullptr};
    PyObject* path;
    const char* table;
    Py_ssize_t connections;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "O&sn:ChunkReader", const_cast<char**>(names),
                                     PyUnicode_FSConverter, &path, &table, &connections)) {
        return nullptr;
    }
    Owned held(path);
    if (connections < 1) {
        PyErr_SetString(PyExc_ValueError, "a reader needs a connection at least");
        return nullptr;
    }
    Owned self(type->tp_alloc(type, 0));
    if (!self) return nullptr;
    core::ReadError error;
    try {
        reader_of(self.get()) =
            new core::ChunkReader(PyBytes_AS_STRING(path), table, static_cast<size_t>(connections), error);
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
    if (error) {
        raise_read_error(error);
        return nullptr;
    }
    return self.release();
}

PyObject* read_rows(PyObject* self, PyObject* args, PyObject* kwargs) {
    static const char* names[] = {"wanted", "whole_files", "stride", nullptr};
    PyObject* wanted;
    int whole_files;
    long long stride;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "O!pL:read", const_cast<char**>(names), &PyList_Type,
                                     &wanted, &whole_files, &stride)) {
        return nullptr;
    }
    if (stride <= 0) {
        PyErr_SetString(PyExc_ValueError, "stride must be positive");
        return nullptr;
    }
    NativeState* state = native_state(PyType_GetModule(Py_TYPE(self)));
    try {
        // A snapshot: an id's __index__ may change the list while the ids are read.
        Owned held(PyList_AsTuple(wanted));
        if (!held) return nullptr;
        std::vector<int64_t> ids(static_cast<size_t>(PyTuple_GET_SIZE(held.get())));
        for (size_t i = 0; i < ids.size(); ++i) {
            ids[i] = PyLong_AsLongLong(PyTuple_GET_ITEM(held.get(), static_cast<Py_ssize_t>(i)));
            if (ids[i] == -1 && PyErr_Occurred()) return nullptr;
        }
        auto* rows_type = reinterpret_cast<PyTypeObject*>(state->rows_type);
        Owned rows(rows_type->tp_alloc(rows_type, 0));
        if (!rows) return nullptr;
        auto* read = new core::ChunkRows();
        reinterpret_cast<RowsObject*>(rows.get())->rows = read;
        core::ChunkReader* reader = reader_of(self);
        core::ReadError error;
        if (!without_gil([&] { error = reader->read(core::id_ranges(ids, whole_files, stride), *read); })) {
            return nullptr;
        }
        if (error) {
            raise_read_error(error);
            return nullptr;
        }
        return rows.release();
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
}

PyObject* matching_ids(PyObject* self, PyObject* args, PyObject* kwargs) {
    static const char* names[] = {"fts_table", "match", nullptr};
    const char* fts_table;
    const char* match;
    Py_ssize_t match_size;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "ss#:matching_ids", const_cast<char**>(names), &fts_table,
                                     &match, &match_size)) {
        return nullptr;
    }
    try {
        const std::string table(fts_table), expression(match, static_cast<size_t>(match_size));
        std::vector<int64_t> ids;
        core::ChunkReader* reader = reader_of(self);
        core::ReadError error;
        if (!without_gil([&] { error = reader->matching_ids(table, expression, ids); })) return nullptr;
        if (error) {
            raise_read_error(error);
            return nullptr;
        }
        return PyBytes_FromStringAndSize(reinterpret_cast<const char*>(ids.data()),
                                         static_cast<Py_ssize_t>(ids.size() * sizeof(int64_t)));
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
}

PyObject* close_reader(PyObject* self, PyObject*) {
    reader_of(self)->close();
    Py_RETURN_NONE;
}

void dealloc_reader(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    delete reader_of(self);
    type->tp_free(self);
    Py_DECREF(type);
}

PyMethodDef reader_methods[] = {
    keywords_method("read", read_rows,
                    "read($self, wanted, whole_files, stride)\n--\n\n"
                    "The chunk rows of a group, read without the GIL in one read transaction.\n"
                    "\n"
                    "    wanted: the rows' ids, or with whole_files the ids of files whose every row\n"
                    "    is wanted (a file's rows are those from its id * stride on). The rows come in\n"
                    "    that order, each file's by id. A failed read raises sqlite3's error."),
    keywords_method("matching_ids", matching_ids,
                    "matching_ids($self, fts_table, match)\n--\n\n"
                    "The row ids, in order, that a full-text match expression selects in fts_table,\n"
                    "found without the GIL, as the bytes of an array('q')."),
    {"close", close_reader, METH_NOARGS,
     "close($self, /)\n--\n\nClose the connections; a read that runs ends first, and later ones fail."},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot reader_slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(new_reader)},
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc_reader)},
    {Py_tp_methods, reader_methods},
    {Py_tp_doc, const_cast<char*>("ChunkReader(path, table, connections)\n--\n\n"
                                  "Read-only connections to one index file, all opened now, for the "
                                  "chunk rows (id, start_line, end_line, body) of table, read on any "
                                  "thread.")},
    {0, nullptr},
};

PyType_Spec reader_spec = {
    "velmora.native.ChunkReader",
    sizeof(ReaderObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE,
    reader_slots,
};

Py_ssize_t rows_length(PyObject* self) {
    return static_cast<Py_ssize_t>(reinterpret_cast<RowsObject*>(self)->rows->rows.size());
}

void dealloc_rows(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    delete reinterpret_cast<RowsObject*>(self)->rows;
    type->tp_free(self);
    Py_DECREF(type);
}

PyType_Slot rows_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc_rows)},
    {Py_sq_length, reinterpret_cast<void*>(rows_length)},
    {Py_tp_doc, const_cast<char*>("The chunk rows a ChunkReader read, for scan_chunks; len() is how "
                                  "many.")},
    {0, nullptr},
};

PyType_Spec rows_spec = {
    "velmora.native.ChunkRows",
    sizeof(RowsObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    rows_slots,
};

PyObject* shares_sqlite(PyObject*, PyObject* args) {
    PyObject* path;
    if (!PyArg_ParseTuple(args, "O&:shares_sqlite_with", PyUnicode_FSConverter, &path)) return nullptr;
    Owned held(path);
    bool shared = false;
    try {
        shared = core::shares_sqlite_with(PyBytes_AS_STRING(path));
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
    return PyBool_FromLong(shared);
}

}  // namespace

PyObject* make_reader_type(PyObject* module) { return PyType_FromModuleAndSpec(module, &reader_spec, nullptr); }
PyObject* make_rows_type(PyObject* module) { return PyType_FromModuleAndSpec(module, &rows_spec, nullptr); }

const core::ChunkRows* rows_of(NativeState* state, PyObject* object) {
    if (!PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject*>(state->rows_type))) return nullptr;
    return reinterpret_cast<RowsObject*>(object)->rows;
}

PyMethodDef shares_sqlite_def = {
    "shares_sqlite_with", shares_sqlite, METH_VARARGS,
    "shares_sqlite_with(path, /)\n--\n\n"
    "Whether the loaded module at path (the interpreter's _sqlite3) calls the SQLite this\n"
    "module calls: a ChunkReader is safe beside the interpreter's connections only then."};

}  // namespace velmora::host
