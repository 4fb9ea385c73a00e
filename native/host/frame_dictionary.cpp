// FrameDictionary: the index's codec dictionary, made ready once for every scan of a
// search, on any thread.
#include "host/state.hpp"

#include <new>

namespace velmora::host {
namespace {

struct DictionaryObject {
    PyObject_HEAD
    core::FrameDictionary* dictionary;
};

PyObject* new_dictionary(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
    static const char* names[] = {"data", nullptr};
    Py_buffer data;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "y*:FrameDictionary", const_cast<char**>(names), &data)) {
        return nullptr;
    }
    Owned self(type->tp_alloc(type, 0));
    if (self) {
        try {
            reinterpret_cast<DictionaryObject*>(self.get())->dictionary =
                new core::FrameDictionary(static_cast<const uint8_t*>(data.buf), static_cast<size_t>(data.len));
        } catch (const std::bad_alloc&) {
            PyErr_NoMemory();
            self = Owned();
        }
    }
    PyBuffer_Release(&data);
    return self.release();
}

void dealloc_dictionary(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    delete reinterpret_cast<DictionaryObject*>(self)->dictionary;
    type->tp_free(self);
    Py_DECREF(type);
}

PyType_Slot dictionary_slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(new_dictionary)},
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc_dictionary)},
    {Py_tp_doc, const_cast<char*>("FrameDictionary(data)\n--\n\n"
                                  "The index's codec dictionary (empty: frames without one), "
                                  "shared by every scan.")},
    {0, nullptr},
};

PyType_Spec dictionary_spec = {
    "velmora.native.FrameDictionary",
    sizeof(DictionaryObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE,
    dictionary_slots,
};

}  // namespace

PyObject* make_dictionary_type(PyObject* module) {
    return PyType_FromModuleAndSpec(module, &dictionary_spec, nullptr);
}

const core::FrameDictionary* dictionary_of(NativeState* state, PyObject* object) {
    if (!PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject*>(state->dictionary_type))) {
        PyErr_Format(PyExc_TypeError, "dictionary must be a FrameDictionary, not %s", Py_TYPE(object)->tp_name);
        return nullptr;
    }
    return reinterpret_cast<DictionaryObject*>(object)->dictionary;
}

}  // namespace velmora::host
