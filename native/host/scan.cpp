// scan_chunks: one group of a search's chunks, decoded, searched and printed with the GIL
// released, so that two threads scan two groups at once.
//
// What the scan reads without the GIL is held for it: each body is a bytes object the call
// keeps a reference to (bytes never change), and the paths are copied.
#include "core/chunk_scan.hpp"
#include "host/state.hpp"

#include <cstring>
#include <new>
#include <string_view>
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
        if (!PyErr_Occurred()) PyErr_Format(PyExc_TypeError, "needle must be str, not %T", needle);
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

// The group's files, and its chunks with the index of each one's file. Rows come in the
// files' order (a file's id is its rows' id // stride); files without rows are skipped.
bool read_group(NativeState* state, PyObject* rows, PyObject* files, int64_t stride,
                std::vector<core::ScanChunk>& chunks, std::vector<core::ScanFile>& scan_files,
                std::vector<size_t>& positions, HeldBodies& held) {
    if (!PyList_Check(rows) || !PyList_Check(files)) {
        PyErr_SetString(PyExc_TypeError, "rows and files must be lists");
        return false;
    }
    Py_ssize_t position = -1;
    int64_t file_id = -1;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rows); ++i) {
        PyObject* row = PyList_GET_ITEM(rows, i);
        PyObject* rowid = row_item(row, 0);
        int64_t id = 0;
        core::ScanChunk chunk{};
        if (rowid == nullptr || !read_int64(rowid, id) || !read_int64(row_item(row, 1), chunk.first) ||
            !read_int64(row_item(row, 2), chunk.end)) {
            return false;
        }
        PyObject* body = row_item(row, 3);
        if (body == nullptr) return false;
        if (!PyBytes_Check(body)) {
            PyErr_Format(state->damaged_error, "a chunk body is %T, not bytes", body);
            return false;
        }
        held.hold(body);
        chunk.body = reinterpret_cast<const uint8_t*>(PyBytes_AS_STRING(body));
        chunk.size = static_cast<size_t>(PyBytes_GET_SIZE(body));
        const int64_t row_file = id / stride;
        while (row_file != file_id) {
            if (++position >= PyList_GET_SIZE(files)) {
                PyErr_SetString(PyExc_ValueError, "the rows do not follow the files' order");
                return false;
            }
            PyObject* file = PyList_GET_ITEM(files, position);
            PyObject *path, *shown, *number;
            if (!PyArg_ParseTuple(file, "OUS", &number, &path, &shown) || !read_int64(number, file_id)) {
                return false;
            }
            if (file_id != row_file) continue;
            Py_ssize_t path_size = 0;
            const char* path_bytes = PyUnicode_AsUTF8AndSize(path, &path_size);
            if (path_bytes == nullptr) return false;
            scan_files.push_back(core::ScanFile{
                std::string(path_bytes, static_cast<size_t>(path_size)),
                std::string(PyBytes_AS_STRING(shown), static_cast<size_t>(PyBytes_GET_SIZE(shown)))});
            positions.push_back(static_cast<size_t>(position));
        }
        chunk.file = scan_files.size() - 1;
        chunks.push_back(chunk);
    }
    return true;
}

// [(position in files, output bytes)] for each file with output.
PyObject* blocks_list(const core::ScanResult& result, const std::vector<size_t>& positions) {
    Owned list(PyList_New(static_cast<Py_ssize_t>(result.blocks.size())));
    if (!list) return nullptr;
    for (size_t i = 0; i < result.blocks.size(); ++i) {
        const core::FileBlock& block = result.blocks[i];
        PyObject* item = Py_BuildValue("(ny#)", static_cast<Py_ssize_t>(positions[block.file]),
                                       result.out.data() + block.begin,
                                       static_cast<Py_ssize_t>(block.end - block.begin));
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
    std::vector<core::ScanFile> scan_files;
    std::vector<size_t> positions;
    HeldBodies held;
    core::ScanResult result;
    try {
        if (!read_query(needle, case_sensitive, mode, max_count, shape, color, query) ||
            !read_group(state, rows, files, stride, chunks, scan_files, positions, held) ||
            !without_gil([&] {
                result = core::scan_chunks(query, dictionary, chunks.data(), chunks.size(), scan_files.data());
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
    Owned blocks(blocks_list(result, positions));
    if (!blocks) return nullptr;
    if (result.fault == core::ScanResult::Fault::none) return PyTuple_Pack(2, blocks.get(), Py_None);
    Owned problem(PyUnicode_FromStringAndSize(result.detail.data(), static_cast<Py_ssize_t>(result.detail.size())));
    return problem ? PyTuple_Pack(2, blocks.get(), problem.get()) : nullptr;
}

}  // namespace

PyMethodDef scan_chunks_def = keywords_method(
    "scan_chunks", scan_chunks,
    "scan_chunks(dictionary, rows, files, stride, needle, case_sensitive, mode, max_count, shape=None,\n"
    "            color=False)\n--\n\n"
    "One group of chunks searched for a plain needle and printed, without the GIL.\n"
    "\n"
    "    rows: (row id, first line, last line, compressed body, ...) of each chunk, file by file.\n"
    "    files: (file id, path, shown path as bytes) of the group's files, in the rows' order.\n"
    "    mode: \"lines\", \"count\" or \"files\"; max_count: matching lines per file, or None.\n"
    "    shape: the output.line_format.Shape to print (without replace), or None for\n"
    "    path:line:column:text; color: rg's colours. Files' outputs are not separated.\n"
    "    Returns ([(index in files, output)] for each file with output, problem): problem is\n"
    "    None, or why a chunk's numbers disagree with its text (the output stops before its\n"
    "    file). A damaged body raises DamagedChunk.");

}  // namespace velmora::host
