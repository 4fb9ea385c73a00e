// stat_changes: the freshness check's lstat of every indexed file, compared with its row,
// with the GIL released. The rows are copied first: nothing Python owns is read without it.
#include "core/stat_check.hpp"
#include "host/state.hpp"

#include <new>
#include <vector>

namespace velmora::host {
namespace {

// A recorded integer; false (with no error set) when the value is not one that fits.
bool recorded_int(PyObject* value, int64_t& out) {
    if (!PyLong_Check(value)) return false;
    int overflow = 0;
    out = PyLong_AsLongLongAndOverflow(value, &overflow);
    if (out == -1 && PyErr_Occurred()) PyErr_Clear();
    return overflow == 0;
}

// One row's record. The path of a row whose path is no str, or cannot be encoded as the
// file system does, is left empty with a NUL, which names no file.
bool read_row(PyObject* row, core::RecordedFile& file) {
    if (!PyTuple_Check(row) || PyTuple_GET_SIZE(row) < 4) {
        PyErr_Format(PyExc_TypeError, "a row must be a tuple (path, size, mtime_ns, inode, ...), not %R", row);
        return false;
    }
    PyObject* path = PyTuple_GET_ITEM(row, 0);
    Owned encoded(PyUnicode_Check(path) ? PyUnicode_EncodeFSDefault(path) : nullptr);
    if (encoded) {
        file.path.assign(PyBytes_AS_STRING(encoded.get()), static_cast<size_t>(PyBytes_GET_SIZE(encoded.get())));
    } else {
        if (PyErr_Occurred()) {
            if (!PyErr_ExceptionMatches(PyExc_UnicodeError)) return false;
            PyErr_Clear();
        }
        file.path.assign(1, '\0');
    }
    file.stamped = recorded_int(PyTuple_GET_ITEM(row, 1), file.size) &&
                   recorded_int(PyTuple_GET_ITEM(row, 2), file.mtime_ns) &&
                   recorded_int(PyTuple_GET_ITEM(row, 3), file.inode);
    return true;
}

PyObject* stat_changes(PyObject*, PyObject* args, PyObject* kwargs) {
    static const char* names[] = {"prefix", "rows", "racy_from", nullptr};
    PyObject *prefix, *rows;
    long long racy_from;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "UO!L:stat_changes", const_cast<char**>(names), &prefix,
                                     &PyList_Type, &rows, &racy_from)) {
        return nullptr;
    }
    std::vector<uint8_t> changes;
    try {
        Owned encoded_prefix(PyUnicode_EncodeFSDefault(prefix));
        if (!encoded_prefix) return nullptr;
        const std::string root(PyBytes_AS_STRING(encoded_prefix.get()),
                               static_cast<size_t>(PyBytes_GET_SIZE(encoded_prefix.get())));
        // A snapshot: a recorded number's __index__ may change the list while rows are read.
        Owned held(PyList_AsTuple(rows));
        if (!held) return nullptr;
        std::vector<core::RecordedFile> files(static_cast<size_t>(PyTuple_GET_SIZE(held.get())));
        for (size_t i = 0; i < files.size(); ++i) {
            if (!read_row(PyTuple_GET_ITEM(held.get(), static_cast<Py_ssize_t>(i)), files[i])) return nullptr;
        }
        if (!without_gil([&] { changes = core::stat_changes(root, files, racy_from); })) return nullptr;
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
    return PyBytes_FromStringAndSize(reinterpret_cast<const char*>(changes.data()),
                                     static_cast<Py_ssize_t>(changes.size()));
}

}  // namespace

PyMethodDef stat_changes_def = keywords_method(
    "stat_changes", stat_changes,
    "stat_changes(prefix, rows, racy_from)\n--\n\n"
    "How each recorded file differs on disk, by one lstat each, without the GIL.\n"
    "\n"
    "    rows: a list of tuples whose first items are (path, size, mtime_ns, inode), the path\n"
    "    joined to prefix. Returns one byte per row: 0 when the file matches its record, else\n"
    "    the sum of 1 (its size, mtime or inode differ, or its recorded mtime is at or after\n"
    "    racy_from), 2 (it cannot be stat-ed) and 4 (it is not a regular file).");

}  // namespace velmora::host
