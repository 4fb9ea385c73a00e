// DiskText: the text source that reads every file from disk, keeping the last file read.
//
// The fields are the host's attributes (_root, _needle, _case_sensitive, _read) and are
// read afresh at each use, as a plain class's methods would. The cache is the pair
// (file id, lines or None) in _read; the list in it is what callers get, never a copy.
#include "module/definitions.hpp"
#include "module/text_source_type.hpp"

namespace velmora::py {
namespace {

// The fields in the constructor's order, then (file id, lines or None) of the last file
// read, or None.
#define VELMORA_DISK_TEXT_FIELDS(X) X(root) X(needle) X(case_sensitive) X(read)

struct DiskText {
    PyObject_HEAD
    VELMORA_FIELDS(VELMORA_DISK_TEXT_FIELDS)
};

DiskText* as_disk(PyObject* self) { return as<DiskText>(self); }

constexpr Params<3> init_params{{"repo_root", "needle", "case_sensitive"}, "DiskText.__init__"};
// The type's documentation, with its signature.
constexpr const char* kDoc =
    "DiskText(repo_root, needle, case_sensitive)\n--\n\n"
    "The text of the files, read from disk when searched.";

// _lines_holding(_root / path, _needle, _case_sensitive), every field owned for the read:
// the host's reader may change the instance.
PyObject* read_file(PyObject* self, PyObject* path) {
    DiskText* disk = as_disk(self);
    Owned root(read_field(self, disk->root, "_root"));
    Owned location(root ? PyNumber_TrueDivide(root.get(), path) : nullptr);
    Owned needle(location ? read_field(self, disk->needle, "_needle") : nullptr);
    Owned case_sensitive(needle ? read_field(self, disk->case_sensitive, "_case_sensitive") : nullptr);
    PyObject* module = case_sensitive ? PyType_GetModuleByDef(Py_TYPE(self), &code_text_module) : nullptr;
    if (module == nullptr) return nullptr;
    return lines_holding(module, location.get(), needle.get(), case_sensitive.get());
}

PyObject* load(ModuleState*, PyObject* self, PyObject* file_id, PyObject* path) {
    return held_lines(self, as_disk(self)->read, file_id, [&] { return read_file(self, path); });
}

// self._load(file_id, path): the method of a subclass when it has its own.
PyObject* load_of(ModuleState* state, PyObject* self, PyObject* file_id, PyObject* path) {
    if (Py_TYPE(self) == reinterpret_cast<PyTypeObject*>(state->disk_text_type)) {
        return load(state, self, file_id, path);
    }
    PyObject* args[] = {self, file_id, path};
    return PyObject_VectorcallMethod(state->str_load, args, 3, nullptr);
}

PyObject* segments(ModuleState* state, PyObject* self, PyObject* file_id, PyObject* path) {
    Owned lines(load_of(state, self, file_id, path));
    if (!lines) return nullptr;
    Owned segments(PyList_New(0));
    if (!segments || lines.get() == Py_None) return segments.release();
    Owned first(PyLong_FromLong(1));
    Owned segment(first ? new_segment(state, first.get(), lines.get(), true) : nullptr);
    if (!segment || PyList_Append(segments.get(), segment.get()) < 0) return nullptr;
    return segments.release();
}

PyObject* lines(ModuleState* state, PyObject* self, PyObject* file_id, PyObject* path) {
    Owned lines(load_of(state, self, file_id, path));
    if (!lines) return nullptr;
    const int any = lines.get() == Py_None ? 0 : PyObject_IsTrue(lines.get());
    if (any < 0) return nullptr;
    return any ? lines.release() : PyList_New(0);
}

PyMethodDef disk_text_methods[] = {
    VELMORA_FILE_METHOD(DiskText, segments, segments,
        "The file whole, as one segment; none when it cannot hold a match."),
    VELMORA_FILE_METHOD(DiskText, lines, lines, "Every line of the file (the last file read is kept)."),
    VELMORA_FILE_METHOD(DiskText, _load, load,
        "The lines of the file; None when it cannot be read or does not hold the needle."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyObject* make_disk_text_type(PyObject* module) {
    return make_text_source_type<DiskText, init_params>(module, "velmora.storage.code_text.DiskText",
                                                      kDoc, disk_text_methods);
}

}  // namespace velmora::py
