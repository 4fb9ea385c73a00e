// Segment and FileRow, the records the module passes around, and the reading of the rows
// the host hands over.
#include "module/definitions.hpp"

namespace velmora::py {
namespace {

constexpr const char* kSegmentDoc = "Lines of a file in a row, where a text search looks for matches.";

}  // namespace

PyObject* make_segment_type(PyObject* module) {
    // A real named tuple, as the host's own code would define it: construction by
    // position or name, unpacking, _fields, _replace and equality all come with it.
    Owned collections(PyImport_ImportModule("collections"));
    if (!collections) return nullptr;
    Owned module_name(PyModule_GetNameObject(module));
    if (!module_name) return nullptr;
    Owned segment(PyObject_CallMethod(collections.get(), "namedtuple", "s(sss)", "Segment",
                                      "first", "lines", "last"));
    if (!segment) return nullptr;
    Owned doc(PyUnicode_FromString(kSegmentDoc));
    if (!doc || PyObject_SetAttrString(segment.get(), "__doc__", doc.get()) < 0 ||
        PyObject_SetAttrString(segment.get(), "__module__", module_name.get()) < 0) {
        return nullptr;
    }
    return segment.release();
}

PyObject* new_segment(ModuleState* state, PyObject* first, PyObject* lines, bool last) {
    // A named tuple adds no fields to tuple, so filling the slots is its constructor.
    auto* type = reinterpret_cast<PyTypeObject*>(state->segment_type);
    PyObject* segment = type->tp_alloc(type, 3);
    if (segment == nullptr) return nullptr;
    PyTuple_SET_ITEM(segment, 0, Py_NewRef(first));
    PyTuple_SET_ITEM(segment, 1, Py_NewRef(lines));
    PyTuple_SET_ITEM(segment, 2, Py_NewRef(last ? Py_True : Py_False));
    return segment;
}

PyObject* item(PyObject* row, Py_ssize_t index) {
    if (PyTuple_CheckExact(row) && index < PyTuple_GET_SIZE(row)) {
        return Py_NewRef(PyTuple_GET_ITEM(row, index));
    }
    Owned key(PyLong_FromSsize_t(index));
    return key ? PyObject_GetItem(row, key.get()) : nullptr;
}

PyObject* make_file_row_alias() {
    Owned optional_str(PyNumber_Or(reinterpret_cast<PyObject*>(&PyUnicode_Type), Py_None));
    if (!optional_str) return nullptr;
    auto* str = reinterpret_cast<PyObject*>(&PyUnicode_Type);
    Owned items(PyTuple_Pack(4, reinterpret_cast<PyObject*>(&PyLong_Type), str, str,
                             optional_str.get()));
    if (!items) return nullptr;
    return Py_GenericAlias(reinterpret_cast<PyObject*>(&PyTuple_Type), items.get());
}

}  // namespace velmora::py
