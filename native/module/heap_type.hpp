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

}  // namespace velmora::py
