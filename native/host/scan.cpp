// scan_chunks: one group of a search's chunks, decoded, searched and printed with the GIL
// released, so that two threads scan two groups at once.
//
// What the scan reads without the GIL is held for it: each body is a bytes object the call
// keeps a reference to (bytes never change), or lies in a ChunkRows, which never changes
// and which the call's arguments hold; the paths are copied.
#include "core/chunk_scan.hpp"
#include "host/state.hpp"

#include <sqlite3.h>

#include <cstring>
#include <new>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace velmora::host {
namespace {

// The bodies' references, dropped when the call ends (with the GIL held again).
class HeldBodies {
  public:
    ~HeldBodies() {
        for (PyObject* body : bodies_) Py_DECREF(body);
    }
    void hold(PyObject* body) {
        bodies_.push_back(body);
        Py_INCREF(body);
    }

  private:
    std::vector<PyObject*> bodies_;
};

bool read_int64(PyObject* value, int64_t& out) {
    out = PyLong_AsLongLong(value);
    return !(out == -1 && PyErr_Occurred());
}

// A tuple's item, with the error a short row deserves.
PyObject* row_item(PyObject* row, Py_ssize_t index) {
    if (!PyTuple_Check(row) || PyTuple_GET_SIZE(row) <= index) {
        PyErr_Format(PyExc_TypeError, "a chunk row must be a tuple of at least 4 items, not %R", row);
        return nullptr;
    }
    return PyTuple_GET_ITEM(row, index);
}

bool read_mode(PyObject* mode, core::ScanMode& out) {
    const char* text = PyUnicode_Check(mode) ? PyUnicode_AsUTF8(mode) : nullptr;
    const std::string_view name = text ? text : "";
    if (name == "lines") out = core::ScanMode::lines;
    else if (name == "count") out = core::ScanMode::count;
    else if (name == "files") out = core::ScanMode::files;
    else {
        if (!PyErr_Occurred()) PyErr_Format(PyExc_ValueError, "mode must be lines, count or files, not %R", mode);
        return false;
    }
    return true;
}

// The fields of an output.line_format.Shape that a plain needle's output has; None for the
// default, path:line:column:text.
bool read_layout(PyObject* shape, PyObject* color, core::ScanLayout& layout) {
    const int colored = PyObject_IsTrue(color);
    if (colored < 0) return false;
    layout.color = colored;
    if (shape == Py_None) return true;
    const struct {
        const char* name;
        bool core::ScanLayout::*field;
    } fields[] = {{"filename", &core::ScanLayout::filename},     {"heading", &core::ScanLayout::heading},
                  {"line_number", &core::ScanLayout::line_number}, {"column", &core::ScanLayout::column},
                  {"null", &core::ScanLayout::null},             {"only_matching", &core::ScanLayout::only_matching},
                  {"vimgrep", &core::ScanLayout::vimgrep}};
    for (const auto& [name, field] : fields) {
        Owned value(PyObject_GetAttrString(shape, name));
        const int set = value ? PyObject_IsTrue(value.get()) : -1;
        if (set < 0) return false;
        layout.*field = set;
    }
    Owned replace(PyObject_GetAttrString(shape, "replace"));
    if (!replace) return false;
    if (replace.get() != Py_None) {
        PyErr_SetString(PyExc_ValueError, "the scan prints no replacement");
        return false;
    }
    return true;
}

bool read_query(PyObject* needle, PyObject* case_sensitive, PyObject* mode, PyObject* max_count,
                PyObject* shape, PyObject* color, core::ScanQuery& query) {
    Py_ssize_t size = 0;
    const char* bytes = PyUnicode_Check(needle) ? PyUnicode_AsUTF8AndSize(needle, &size) : nullptr;
    if (bytes == nullptr) {
        if (!PyErr_Occurred()) PyErr_Format(PyExc_TypeError, "needle must be str, not %s", Py_TYPE(needle)->tp_name);
        return false;
    }
    query.needle.assign(bytes, static_cast<size_t>(size));
    const int keep_case = PyObject_IsTrue(case_sensitive);
    if (keep_case < 0) return false;
    query.case_sensitive = keep_case;
    if (!query.case_sensitive && !PyUnicode_IS_ASCII(needle)) {
        PyErr_SetString(PyExc_ValueError, "a needle that ignores case must be ASCII");
        return false;
    }
    query.max_count = UINT64_MAX;
    if (max_count != Py_None) {
        int64_t limit = 0;
        if (!read_int64(max_count, limit)) return false;
        query.max_count = limit < 0 ? 0 : static_cast<uint64_t>(limit);
    }
    return read_mode(mode, query.mode) && read_layout(shape, color, query.layout);
}

// The group's files by id, each made a scan file when its first row comes. Rows come in
// the files' order (a file's id is its rows' id // stride); rows of a file not listed
// (one read from disk instead) are skipped.
class GroupFiles {
  public:
    static constexpr size_t skipped = SIZE_MAX;

    bool load(PyObject* files) {
        if (!PyList_Check(files)) {
            PyErr_SetString(PyExc_TypeError, "files must be a list");
            return false;
        }
        held_ = Owned(PyList_AsTuple(files));
        if (!held_) return false;
        for (Py_ssize_t position = 0; position < PyTuple_GET_SIZE(held_.get()); ++position) {
            PyObject *number, *path, *shown;
            int64_t id = 0;
            if (!PyArg_ParseTuple(PyTuple_GET_ITEM(held_.get(), position), "OUS", &number, &path, &shown) ||
                !read_int64(number, id)) {
                return false;
            }
            listed_.emplace(id, Listed{static_cast<size_t>(position), path, shown});
        }
        return true;
    }

    // The index in scan_files of the file of the row `row_id`, or skipped; false, with an
    // error set, when the rows go back to an earlier file.
    bool file_of(int64_t row_id, int64_t stride, size_t& index) {
        const int64_t file_id = row_id / stride;
        if (started_ && file_id == file_id_) {
            index = index_;
            return true;
        }
        started_ = true;
        file_id_ = file_id;
        index_ = skipped;
        const auto found = listed_.find(file_id);
        if (found != listed_.end()) {
            const Listed& file = found->second;
            if (!positions.empty() && file.position <= positions.back()) {
                PyErr_SetString(PyExc_ValueError, "the rows do not follow the files' order");
                return false;
            }
            Py_ssize_t path_size = 0;
            const char* path_bytes = PyUnicode_AsUTF8AndSize(file.path, &path_size);
            if (path_bytes == nullptr) return false;
            scan_files.push_back(core::ScanFile{
                std::string(path_bytes, static_cast<size_t>(path_size)),
                std::string(PyBytes_AS_STRING(file.shown), static_cast<size_t>(PyBytes_GET_SIZE(file.shown)))});
            positions.push_back(file.position);
            index_ = scan_files.size() - 1;
        }
        index = index_;
        return true;
    }

    std::vector<core::ScanFile> scan_files;
    std::vector<size_t> positions;  // each scan file's position in the files given

  private:
    // Borrowed from held_, a copy of the files list that Python code run meanwhile (an
    // __index__) cannot change.
    struct Listed {
        size_t position;
        PyObject* path;
        PyObject* shown;
    };
    Owned held_;
    std::unordered_map<int64_t, Listed> listed_;
    bool started_ = false;
    int64_t file_id_ = 0;
    size_t index_ = skipped;
};

// The chunks of rows given as a list of tuples, each body held for the scan.
bool listed_chunks(NativeState* state, PyObject* rows, int64_t stride, GroupFiles& files,
                   std::vector<core::ScanChunk>& chunks, HeldBodies& held) {
    if (!PyList_Check(rows)) {
        PyErr_SetString(PyExc_TypeError, "rows must be a list or ChunkRows");
        return false;
    }
    // A copy that Python code run meanwhile (an __index__) cannot change.
    Owned listed(PyList_AsTuple(rows));
    if (!listed) return false;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(listed.get()); ++i) {
        PyObject* row = PyTuple_GET_ITEM(listed.get(), i);
        PyObject* rowid = row_item(row, 0);
        int64_t id = 0;
        core::ScanChunk chunk{};
        if (rowid == nullptr || !read_int64(rowid, id) || !files.file_of(id, stride, chunk.file)) return false;
        if (chunk.file == GroupFiles::skipped) continue;
        if (!read_int64(row_item(row, 1), chunk.first) || !read_int64(row_item(row, 2), chunk.end)) return false;
        PyObject* body = row_item(row, 3);
        if (body == nullptr) return false;
        if (!PyBytes_Check(body)) {
            PyErr_Format(state->damaged_error, "a chunk body is %s, not bytes", Py_TYPE(body)->tp_name);
            return false;
        }
        held.hold(body);
        chunk.body = reinterpret_cast<const uint8_t*>(PyBytes_AS_STRING(body));
        chunk.size = static_cast<size_t>(PyBytes_GET_SIZE(body));
        chunks.push_back(chunk);
    }
    return true;
}

// What Python makes of a value of SQLite's type.
const char* python_type_name(int sqlite_type) {
    switch (sqlite_type) {
        case SQLITE_INTEGER: return "int";
        case SQLITE_FLOAT: return "float";
        case SQLITE_TEXT: return "str";
        case SQLITE_BLOB: return "bytes";
        default: return "NoneType";
    }
}

// The chunks of rows a ChunkReader read, named as the same values read by Python would be.
bool read_chunks(NativeState* state, const core::ChunkRows& read, int64_t stride, GroupFiles& files,
                 std::vector<core::ScanChunk>& chunks) {
    for (const core::ChunkRow& row : read.rows) {
        core::ScanChunk chunk{};
        if (!files.file_of(row.id, stride, chunk.file)) return false;
        if (chunk.file == GroupFiles::skipped) continue;
        for (const int type : {row.first_type, row.end_type}) {
            if (type != SQLITE_INTEGER) {
                PyErr_Format(PyExc_TypeError, "'%s' object cannot be interpreted as an integer",
                             python_type_name(type));
                return false;
            }
        }
        if (row.body_type != SQLITE_BLOB) {
            PyErr_Format(state->damaged_error, "a chunk body is %s, not bytes", python_type_name(row.body_type));
            return false;
        }
        chunk.first = row.first;
        chunk.end = row.end;
        chunk.body = reinterpret_cast<const uint8_t*>(read.bodies.data() + row.begin);
        chunk.size = row.size;
        chunks.push_back(chunk);
    }
    return true;
}

// [(position in files, end in the output)] for each file with output, in order: each file's
// output runs from the end of the one before.
PyObject* file_ends(const core::ScanResult& result, const std::vector<size_t>& positions) {
    Owned list(PyList_New(static_cast<Py_ssize_t>(result.blocks.size())));
    if (!list) return nullptr;
    for (size_t i = 0; i < result.blocks.size(); ++i) {
        const core::FileBlock& block = result.blocks[i];
        PyObject* item = Py_BuildValue("(nn)", static_cast<Py_ssize_t>(positions[block.file]),
                                       static_cast<Py_ssize_t>(block.end));
        if (item == nullptr) return nullptr;
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), item);
    }
    return list.release();
}

PyObject* scan_chunks(PyObject* module, PyObject* args, PyObject* kwargs) {
    static const char* names[] = {"dictionary", "rows", "files", "stride", "needle",
                                  "case_sensitive", "mode", "max_count", "shape", "color", nullptr};
    PyObject *dictionary_object, *rows, *files, *needle, *case_sensitive, *mode, *max_count;
    PyObject *shape = Py_None, *color = Py_False;
    long long stride;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OOOLOOOO|OO:scan_chunks", const_cast<char**>(names),
                                     &dictionary_object, &rows, &files, &stride, &needle,
                                     &case_sensitive, &mode, &max_count, &shape, &color)) {
        return nullptr;
    }
    NativeState* state = native_state(module);
    const core::FrameDictionary* dictionary = dictionary_of(state, dictionary_object);
    if (dictionary == nullptr) return nullptr;
    if (stride <= 0) {
        PyErr_SetString(PyExc_ValueError, "stride must be positive");
        return nullptr;
    }
    core::ScanQuery query;
    std::vector<core::ScanChunk> chunks;
    GroupFiles group;
    HeldBodies held;
    core::ScanResult result;
    try {
        const core::ChunkRows* read = rows_of(state, rows);
        if (!read_query(needle, case_sensitive, mode, max_count, shape, color, query) || !group.load(files) ||
            !(read ? read_chunks(state, *read, stride, group, chunks)
                   : listed_chunks(state, rows, stride, group, chunks, held)) ||
            !without_gil([&] {
                result = core::scan_chunks(query, dictionary, chunks.data(), chunks.size(), group.scan_files.data());
            })) {
            return nullptr;
        }
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
    if (result.fault == core::ScanResult::Fault::damaged) {
        PyErr_SetString(state->damaged_error, result.detail.c_str());
        return nullptr;
    }
    Owned ends(file_ends(result, group.positions));
    Owned output(PyBytes_FromStringAndSize(result.out.data(), static_cast<Py_ssize_t>(result.out.size())));
    if (!ends || !output) return nullptr;
    if (result.fault == core::ScanResult::Fault::none) return PyTuple_Pack(3, output.get(), ends.get(), Py_None);
    Owned problem(PyUnicode_FromStringAndSize(result.detail.data(), static_cast<Py_ssize_t>(result.detail.size())));
    return problem ? PyTuple_Pack(3, output.get(), ends.get(), problem.get()) : nullptr;
}

}  // namespace

PyMethodDef scan_chunks_def = keywords_method(
    "scan_chunks", scan_chunks,
    "scan_chunks(dictionary, rows, files, stride, needle, case_sensitive, mode, max_count, shape=None,\n"
    "            color=False)\n--\n\n"
    "One group of chunks searched for a plain needle and printed, without the GIL.\n"
    "\n"
    "    rows: a ChunkRows, or (row id, first line, last line, compressed body, ...) of each\n"
    "    chunk, file by file.\n"
    "    files: (file id, path, shown path as bytes) of the group's files, in the rows' order;\n"
    "    the rows of a file not listed are skipped.\n"
    "    mode: \"lines\", \"count\" or \"files\"; max_count: matching lines per file, or None.\n"
    "    shape: the output.line_format.Shape to print (without replace), or None for\n"
    "    path:line:column:text; color: rg's colours. Files' outputs are not separated.\n"
    "    Returns (output, [(index in files, end in output)] for each file with output, in\n"
    "    order, problem): problem is None, or why a chunk's numbers disagree with its text\n"
    "    (the output stops before its file). A damaged body raises DamagedChunk.");

}  // namespace velmora::host
