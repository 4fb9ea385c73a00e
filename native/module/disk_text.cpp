// DiskText: the text source that reads every file from disk, keeping the last file read.
//
// The fields are the host's attributes (_root, _needle, _case_sensitive, _read) and are
// read afresh at each use, as a plain class's methods would. The cache is the pair
// (file id, lines or None) in _read; the list in it is what callers get, never a copy.
#include "module/heap_type.hpp"
#include "module/args.hpp"
#include "module/definitions.hpp"

#include <structmember.h>

#include <cstddef>

namespace velmora::py {
namespace {

struct DiskText {
    PyObject_HEAD
    PyObject* root;
    PyObject* needle;
    PyObject* case_sensitive;
    PyObject* read;
};

DiskText* as_disk(PyObject* self) { return reinterpret_cast<DiskText*>(self); }

int traverse(PyObject* self, visitproc visit, void* arg) {
    DiskText* disk = as_disk(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(disk->root);
    Py_VISIT(disk->needle);
    Py_VISIT(disk->case_sensitive);
    Py_VISIT(disk->read);
    return 0;
}

int clear(PyObject* self) {
    DiskText* disk = as_disk(self);
    Py_CLEAR(disk->root);
    Py_CLEAR(disk->needle);
    Py_CLEAR(disk->case_sensitive);
    Py_CLEAR(disk->read);
    return 0;
}

// _read[index], for the pair this type keeps or whatever the host put there.
PyObject* read_item(PyObject* read, Py_ssize_t index) {
    if (PyTuple_CheckExact(read) && PyTuple_GET_SIZE(read) == 2) {
        return Py_NewRef(PyTuple_GET_ITEM(read, index));
    }
    Owned key(PyLong_FromSsize_t(index));
    return key ? PyObject_GetItem(read, key.get()) : nullptr;
}

// `held != file_id`, with the host's != (no shortcut on identity: nan != nan).
int differs(PyObject* held, PyObject* file_id) {
    if (PyLong_CheckExact(held) && PyLong_CheckExact(file_id)) {
        return PyObject_RichCompareBool(held, file_id, Py_NE);
    }
    Owned verdict(PyObject_RichCompare(held, file_id, Py_NE));
    return verdict ? PyObject_IsTrue(verdict.get()) : -1;
}

// Whether _read must be replaced for `file_id`: 1, 0, or -1 on error.
int stale(PyObject* self, PyObject* file_id) {
    Owned read(read_field(self, as_disk(self)->read, "_read"));
    if (!read) return -1;
    if (read.get() == Py_None) return 1;
    Owned held(read_item(read.get(), 0));
    return held ? differs(held.get(), file_id) : -1;
}

PyObject* load(PyObject* self, PyObject* file_id, PyObject* path) {
    DiskText* disk = as_disk(self);
    const int must_read = stale(self, file_id);
    if (must_read < 0) return nullptr;
    if (must_read) {
        // Own every field for the read: the host's reader may change the instance.
        Owned root(read_field(self, disk->root, "_root"));
        Owned location(root ? PyNumber_TrueDivide(root.get(), path) : nullptr);
        Owned needle(location ? read_field(self, disk->needle, "_needle") : nullptr);
        Owned case_sensitive(needle ? read_field(self, disk->case_sensitive, "_case_sensitive") : nullptr);
        if (!case_sensitive) return nullptr;
        PyObject* module = PyType_GetModuleByDef(Py_TYPE(self), &code_text_module);
        if (module == nullptr) return nullptr;
        Owned lines(lines_holding(module, location.get(), needle.get(), case_sensitive.get()));
        if (!lines) return nullptr;
        PyObject* read = PyTuple_Pack(2, file_id, lines.get());
        if (read == nullptr) return nullptr;
        Py_XSETREF(disk->read, read);
    }
    Owned read(read_field(self, disk->read, "_read"));
    return read ? read_item(read.get(), 1) : nullptr;
}

// self._load(file_id, path): the method of a subclass when it has its own.
PyObject* load_of(ModuleState* state, PyObject* self, PyObject* file_id, PyObject* path) {
    if (Py_TYPE(self) == reinterpret_cast<PyTypeObject*>(state->disk_text_type)) {
        return load(self, file_id, path);
    }
    PyObject* args[] = {self, file_id, path};
    return PyObject_VectorcallMethod(state->str_load, args, 3, nullptr);
}

// The module state, or null with TypeError for an object that is not a DiskText.
ModuleState* state_of(PyObject* self) {
    PyObject* module = PyType_GetModuleByDef(Py_TYPE(self), &code_text_module);
    return module ? module_state(module) : nullptr;
}

int init(PyObject* self, PyObject* args, PyObject* kwds) {
    static const Params<3> params{{"repo_root", "needle", "case_sensitive"}, "DiskText.__init__"};
    // Python hands over a tuple and a dict: laid out as a vectorcall, they parse as any call.
    const Py_ssize_t nargs = PyTuple_GET_SIZE(args);
    const Py_ssize_t nkw = kwds ? PyDict_GET_SIZE(kwds) : 0;
    PyObject** flat = PyMem_New(PyObject*, static_cast<size_t>(nargs + nkw + 1));
    if (flat == nullptr) {
        PyErr_NoMemory();
        return -1;
    }
    Owned kwnames(nkw ? PyTuple_New(nkw) : nullptr);
    bool ok = nkw == 0 || kwnames;
    for (Py_ssize_t i = 0; i < nargs; ++i) flat[i] = PyTuple_GET_ITEM(args, i);
    Py_ssize_t pos = 0, k = 0;
    PyObject *key, *value;
    while (ok && nkw > 0 && PyDict_Next(kwds, &pos, &key, &value)) {
        PyTuple_SET_ITEM(kwnames.get(), k, Py_NewRef(key));
        flat[nargs + k++] = value;
    }
    std::array<PyObject*, 3> a;
    ok = ok && params.parse(flat, nargs, kwnames.get(), a);
    PyMem_Free(flat);
    if (!ok) return -1;
    DiskText* disk = as_disk(self);
    Py_XSETREF(disk->root, Py_NewRef(a[0]));
    Py_XSETREF(disk->needle, Py_NewRef(a[1]));
    Py_XSETREF(disk->case_sensitive, Py_NewRef(a[2]));
    Py_XSETREF(disk->read, Py_NewRef(Py_None));
    return 0;
}

PyObject* disk_text_segments(PyObject* disk, PyObject* file_id, PyObject* path) {
    ModuleState* state = state_of(disk);
    if (state == nullptr) return nullptr;
    Owned lines(load_of(state, disk, file_id, path));
    if (!lines) return nullptr;
    Owned segments(PyList_New(0));
    if (!segments || lines.get() == Py_None) return segments.release();
    Owned first(PyLong_FromLong(1));
    Owned segment(first ? new_segment(state, first.get(), lines.get(), true) : nullptr);
    if (!segment || PyList_Append(segments.get(), segment.get()) < 0) return nullptr;
    return segments.release();
}

PyObject* disk_text_lines(PyObject* disk, PyObject* file_id, PyObject* path) {
    ModuleState* state = state_of(disk);
    if (state == nullptr) return nullptr;
    Owned lines(load_of(state, disk, file_id, path));
    if (!lines) return nullptr;
    const int any = lines.get() == Py_None ? 0 : PyObject_IsTrue(lines.get());
    if (any < 0) return nullptr;
    return any ? lines.release() : PyList_New(0);
}

PyObject* segments_method(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static const Params<2> params{{"file_id", "path"}, "DiskText.segments"};
    std::array<PyObject*, 2> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    return disk_text_segments(self, a[0], a[1]);
}

PyObject* lines_method(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static const Params<2> params{{"file_id", "path"}, "DiskText.lines"};
    std::array<PyObject*, 2> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    return disk_text_lines(self, a[0], a[1]);
}

PyObject* load_method(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static const Params<2> params{{"file_id", "path"}, "DiskText._load"};
    std::array<PyObject*, 2> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    return load(self, a[0], a[1]);
}

template <class F>
PyCFunction fastcall(F* f) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(f));
}

PyMethodDef disk_text_methods[] = {
    {"segments", fastcall(segments_method), METH_FASTCALL | METH_KEYWORDS,
     "segments($self, /, file_id, path)\n--\n\n"
     "The file whole, as one segment; none when it cannot hold a match."},
    {"lines", fastcall(lines_method), METH_FASTCALL | METH_KEYWORDS,
     "lines($self, /, file_id, path)\n--\n\n"
     "Every line of the file (the last file read is kept)."},
    {"_load", fastcall(load_method), METH_FASTCALL | METH_KEYWORDS,
     "_load($self, /, file_id, path)\n--\n\n"
     "The lines of the file; None when it cannot be read or does not hold the needle."},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef disk_text_members[] = {
    {"_root", T_OBJECT_EX, offsetof(DiskText, root), 0, nullptr},
    {"_needle", T_OBJECT_EX, offsetof(DiskText, needle), 0, nullptr},
    {"_case_sensitive", T_OBJECT_EX, offsetof(DiskText, case_sensitive), 0, nullptr},
    {"_read", T_OBJECT_EX, offsetof(DiskText, read), 0, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot disk_text_slots[] = {
    {Py_tp_doc, const_cast<char*>("DiskText(repo_root, needle, case_sensitive)\n--\n\n"
                                  "The text of the files, read from disk when searched.")},
    {Py_tp_init, reinterpret_cast<void*>(init)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(gc_dealloc<clear>)},
    {Py_tp_methods, disk_text_methods},
    {Py_tp_members, disk_text_members},
    {0, nullptr},
};

PyType_Spec disk_text_spec = {
    "velmora.storage.code_text.DiskText",
    sizeof(DiskText),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_BASETYPE,
    disk_text_slots,
};

}  // namespace

PyObject* make_disk_text_type(PyObject* module) {
    return PyType_FromModuleAndSpec(module, &disk_text_spec, nullptr);
}

}  // namespace velmora::py
