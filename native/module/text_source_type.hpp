// What the two text source types, DiskText and ChunkText, share: fields set by the
// constructor's parameters in order and then None in `read`; methods of (file_id, path);
// and the one-file cache in `read`, the pair (file id, lines).
#pragma once

#include "module/args.hpp"
#include "module/definitions.hpp"
#include "module/heap_type.hpp"

#include <algorithm>

namespace velmora::py {

// tp_init: the parameters in the order of the fields, then None in the last field (`read`).
template <class Object, const auto& params>
int init_fields(PyObject* self, PyObject* args, PyObject* kwargs) {
    constexpr size_t count = Object::field_count() - 1;
    std::array<PyObject*, count> given;
    Owned held;
    if (!params.parse_tuple_and_dict(args, kwargs, held, given)) return -1;
    std::array<PyObject*, Object::field_count()> values;
    std::copy(given.begin(), given.end(), values.begin());
    values[count] = Py_None;
    set_fields<Object>(self, values);
    return 0;
}

// A method's name, as a template argument ("ChunkText.lines").
template <size_t N>
struct MethodName {
    constexpr MethodName(const char (&text)[N]) { std::copy_n(text, N, value); }
    char value[N];
};

// The state of the module whose type `self` is (or derives from); null with an error set.
inline ModuleState* state_of(PyObject* self) {
    PyObject* module = PyType_GetModuleByDef(Py_TYPE(self), &code_text_module);
    return module ? module_state(module) : nullptr;
}

using FileBody = PyObject* (*)(ModuleState* state, PyObject* self, PyObject* file_id, PyObject* path);

// A method (file_id, path), its arguments taken as a def's would be.
template <FileBody body, MethodName name>
PyObject* file_method(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr Params<2> params{{"file_id", "path"}, name.value};
    std::array<PyObject*, 2> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    ModuleState* state = state_of(self);
    return state ? body(state, self, a[0], a[1]) : nullptr;
}

// `held != file_id`, with the host's != (no shortcut on identity: nan != nan): 1, 0, or -1
// with an error set.
inline int differs(PyObject* held, PyObject* file_id) {
    if (PyLong_CheckExact(held) && PyLong_CheckExact(file_id)) {
        return PyObject_RichCompareBool(held, file_id, Py_NE);
    }
    Owned verdict(PyObject_RichCompare(held, file_id, Py_NE));
    return verdict ? PyObject_IsTrue(verdict.get()) : -1;
}

// The lines held for `file_id` in the field `read` ("_read" to the host), once `fill()`
// (a new reference, or null with an error set) has replaced the pair when it held another
// file id or none. The field is read afresh at each use, as a plain method would: code run
// by the comparison or by `fill` may have set it meanwhile.
template <class Fill>
PyObject* held_lines(PyObject* self, PyObject*& read_slot, PyObject* file_id, Fill&& fill) {
    Owned read(read_field(self, read_slot, "_read"));
    if (!read) return nullptr;
    int stale = read.get() == Py_None;
    if (!stale) {
        Owned held_id(item(read.get(), 0));
        stale = held_id ? differs(held_id.get(), file_id) : -1;
        if (stale < 0) return nullptr;
    }
    if (stale) {
        Owned lines(fill());
        PyObject* pair = lines ? PyTuple_Pack(2, file_id, lines.get()) : nullptr;
        if (pair == nullptr) return nullptr;
        // Set only once the file is read: a failed read keeps the file held before.
        Py_XSETREF(read_slot, pair);
    }
    read = Owned(read_field(self, read_slot, "_read"));
    return read ? item(read.get(), 1) : nullptr;
}

// A text source type named `name` (its module's name, a dot, its own), its fields the
// host's attributes.
template <class Object, const auto& params>
PyObject* make_text_source_type(PyObject* module, const char* name, const char* doc,
                                PyMethodDef* methods) {
    auto members = host_fields<Object>();
    PyType_Slot slots[] = {
        {Py_tp_doc, const_cast<char*>(doc)},
        {Py_tp_init, slot_function(init_fields<Object, params>)},
        VELMORA_GC_SLOTS(Object),
        {Py_tp_methods, methods},
        {Py_tp_members, members.data()},
        {0, nullptr},
    };
    // The type copies what it keeps of the PyType_Spec and the members, but the names: literals.
    PyType_Spec definition{name, static_cast<int>(sizeof(Object)), 0,
                     Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots};
    return PyType_FromModuleAndSpec(module, &definition, nullptr);
}

}  // namespace velmora::py

// The PyMethodDef row of the method Type.name(file_id, path), made of `body`.
#define VELMORA_FILE_METHOD(Type, name, body, doc)                                              \
    {#name, ::velmora::py::method_function(::velmora::py::file_method<body, #Type "." #name>), \
     METH_FASTCALL | METH_KEYWORDS, #name "($self, /, file_id, path)\n--\n\n" doc}
