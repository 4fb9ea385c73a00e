// decode_frames: a group's chunk bodies decoded into one buffer, with the GIL released, for
// a search that scans the texts as bytes and makes a str only of the chunks it keeps.
#include "core/utf8.hpp"
#include "host/state.hpp"

#include <new>
#include <string>
#include <vector>

namespace velmora::host {
namespace {

PyObject* decode_frames(PyObject* module, PyObject* args, PyObject* kwargs) {
    static const char* names[] = {"dictionary", "bodies", nullptr};
    PyObject *dictionary_object, *bodies;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OO!:decode_frames", const_cast<char**>(names),
                                     &dictionary_object, &PyList_Type, &bodies)) {
        return nullptr;
    }
    NativeState* state = native_state(module);
    const core::FrameDictionary* dictionary = dictionary_of(state, dictionary_object);
    if (dictionary == nullptr) return nullptr;
    // The bodies are held by a tuple of their own: the list may change while the GIL is out.
    Owned held(PyList_AsTuple(bodies));
    if (!held) return nullptr;
    const Py_ssize_t count = PyTuple_GET_SIZE(held.get());
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyObject* body = PyTuple_GET_ITEM(held.get(), i);
        if (!PyBytes_Check(body)) {
            PyErr_Format(state->damaged_error, "a chunk body is %s, not bytes", Py_TYPE(body)->tp_name);
            return nullptr;
        }
    }
    std::string out, damage;
    std::vector<size_t> ends;
    const bool decoded = without_gil([&] {
        core::FrameDecoder decoder(dictionary);
        ends.reserve(static_cast<size_t>(count));
        for (Py_ssize_t i = 0; i < count && damage.empty(); ++i) {
            PyObject* body = PyTuple_GET_ITEM(held.get(), i);
            const uint8_t* text = nullptr;
            size_t size = 0;
            damage = decoder.decode(reinterpret_cast<const uint8_t*>(PyBytes_AS_STRING(body)),
                                    static_cast<size_t>(PyBytes_GET_SIZE(body)), text, size);
            if (damage.empty() && !core::is_valid_utf8(text, size)) damage = "the text is not UTF-8";
            out.append(reinterpret_cast<const char*>(text), size);
            ends.push_back(out.size());
        }
    });
    if (!decoded) return nullptr;
    if (!damage.empty()) {
        PyErr_SetString(state->damaged_error, damage.c_str());
        return nullptr;
    }
    Owned list(PyList_New(static_cast<Py_ssize_t>(ends.size())));
    if (!list) return nullptr;
    for (size_t i = 0; i < ends.size(); ++i) {
        PyObject* end = PyLong_FromSize_t(ends[i]);
        if (end == nullptr) return nullptr;
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), end);
    }
    // "N" hands the new buffer over to the tuple (or drops it when the tuple fails).
    PyObject* buffer = PyBytes_FromStringAndSize(out.data(), static_cast<Py_ssize_t>(out.size()));
    return buffer != nullptr ? Py_BuildValue("(NO)", buffer, list.get()) : nullptr;
}

}  // namespace

PyMethodDef decode_frames_def = keywords_method(
    "decode_frames", decode_frames,
    "decode_frames(dictionary, bodies)\n--\n\n"
    "The texts of a group's chunk bodies, decoded without the GIL into one buffer.\n"
    "\n"
    "    Returns (the UTF-8 texts one after another, the end of each in it). A body that is\n"
    "    no frame of the dictionary, or whose text is no UTF-8, raises DamagedChunk.");

}  // namespace velmora::host
