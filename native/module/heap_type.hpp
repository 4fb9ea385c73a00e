// What every GC-tracked heap type of the module does the same way.
//
// A type lists its object fields once, as an X-macro: FIELDS(X) expands to X(member) for
// each PyObject* field. The struct's members, traverse, clear, dealloc and the host's view
// of the fields are all made from that one list, so that a field cannot be added to one of
// them and missed in another:
//
//     #define VELMORA_THING_FIELDS(X) X(root) X(read)
//     struct Thing {
//         PyObject_HEAD
//         VELMORA_FIELDS(VELMORA_THING_FIELDS)
//     };
//     PyType_Slot slots[] = {VELMORA_GC_SLOTS(Thing), ...};
#pragma once

#include "module/owned.hpp"

#include <structmember.h>

#include <array>
#include <cstddef>

#define VELMORA_DECLARE_FIELD(member) PyObject* member;
#define VELMORA_PASS_FIELD(member) f(member, "_" #member);
#define VELMORA_COUNT_FIELD(member) +1
// The fields' members, their count, and each_field(f), which calls f(PyObject*& field, name)
// for every field in the order of the list, with the name the host knows it by ("_member").
#define VELMORA_FIELDS(FIELDS)                                                      \
    FIELDS(VELMORA_DECLARE_FIELD)                                                   \
    static constexpr size_t field_count() { return 0 FIELDS(VELMORA_COUNT_FIELD); } \
    template <class F>                                                              \
    void each_field(F&& f) {                                                        \
        FIELDS(VELMORA_PASS_FIELD)                                                  \
    }

namespace velmora::py {

template <class Object>
Object* as(PyObject* self) {
    return reinterpret_cast<Object*>(self);
}

template <class Object>
int gc_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));  // each instance keeps its heap type alive
    int visited = 0;
    as<Object>(self)->each_field([&](PyObject*& field, const char*) {
        if (visited == 0 && field != nullptr) visited = visit(field, arg);
    });
    return visited;
}

template <class Object>
int gc_clear(PyObject* self) {
    as<Object>(self)->each_field([](PyObject*& field, const char*) { Py_CLEAR(field); });
    return 0;
}

// Untrack, clear, free, and let go of the type, which each instance keeps alive.
template <class Object>
void gc_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    gc_clear<Object>(self);
    type->tp_free(self);
    Py_DECREF(type);
}

// Sets every field, in the order of the list, to a new reference to its value.
template <class Object>
void set_fields(PyObject* self, const std::array<PyObject*, Object::field_count()>& values) {
    size_t next = 0;
    as<Object>(self)->each_field(
        [&](PyObject*& field, const char*) { Py_XSETREF(field, Py_NewRef(values[next++])); });
}

template <class F>
void* slot_function(F* f) {
    return reinterpret_cast<void*>(f);
}

// The PyMemberDef rows of the fields, which the host reads and sets by their names (deleted,
// a field reads as an AttributeError, as on a plain instance); the last row ends the list.
template <class Object>
std::array<PyMemberDef, Object::field_count() + 1> host_fields() {
    std::array<PyMemberDef, Object::field_count() + 1> rows{};
    Object probe{};
    size_t next = 0;
    probe.each_field([&](PyObject*& field, const char* name) {
        const auto offset = reinterpret_cast<char*>(&field) - reinterpret_cast<char*>(&probe);
        rows[next++] = {name, T_OBJECT_EX, offset, 0, nullptr};
    });
    return rows;
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

// The slots that every GC-tracked heap type of the module fills the same way.
#define VELMORA_GC_SLOTS(Object)                                                        \
    {Py_tp_traverse, ::velmora::py::slot_function(::velmora::py::gc_traverse<Object>)}, \
        {Py_tp_clear, ::velmora::py::slot_function(::velmora::py::gc_clear<Object>)},   \
        {Py_tp_dealloc, ::velmora::py::slot_function(::velmora::py::gc_dealloc<Object>)}
