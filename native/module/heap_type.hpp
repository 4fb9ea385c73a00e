// What every GC-tracked heap type of the module does the same way.
#pragma once

#include "module/owned.hpp"

namespace velmora::py {

// tp_dealloc of a heap type whose fields `clear` drops: untrack, clear, free, and let go
// of the type, which each instance keeps alive.
template <int (*clear)(PyObject*)>
void gc_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    clear(self);
    type->tp_free(self);
    Py_DECREF(type);
}

// A field of an instance as the host reads it: a new reference, since code the host runs
// while the caller uses it may set or delete the field; AttributeError when it is deleted.
inline PyObject* read_field(PyObject* self, PyObject* value, const char* name) {
    if (value == nullptr) {
        PyErr_Format(PyExc_AttributeError, "'%.200s' object has no attribute '%s'",
                     Py_TYPE(self)->tp_name, name);
        return nullptr;
    }
    return Py_NewRef(value);
}

}  // namespace velmora::py
