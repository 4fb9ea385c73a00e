// decode_frames: a group's chunk bodies decoded into one buffer, with the GIL released, for
// a search that scans the texts as bytes and makes a str only of the chunks it keeps. Each
// frame's header gives its text's size, so the texts are decoded straight into the bytes
// object returned, never copied.
#include "core/utf8.hpp"
#include "host/state.hpp"

#include <new>
#include <string>
#include <vector>

namespace velmora::host {
namespace {

PyObject* damaged(NativeState* state, const std::string& damage) {
    PyErr_SetString(state->damaged_error, damage.c_str());
    return nullptr;
}

// Where each body's text ends in the buffer, from the sizes the frames claim; empty on
// success, else what is wrong.
std::string claimed_ends(PyObject* bodies, std::vector<size_t>& ends) {
    const Py_ssize_t count = PyTuple_GET_SIZE(bodies);
    ends.reserve(static_cast<size_t>(count));
    size_t total = 0;
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyObject* body = PyTuple_GET_ITEM(bodies, i);
        if (!PyBytes_Check(body)) return std::string("a chunk body is ") + Py_TYPE(body)->tp_name + ", not bytes";
        unsigned long long claimed = 0;
        std::string damage = core::claimed_size(reinterpret_cast<const uint8_t*>(PyBytes_AS_STRING(body)),
                                                static_cast<size_t>(PyBytes_GET_SIZE(body)), claimed);
        if (!damage.empty()) return damage;
        // A damaged header may claim any size.
        if (claimed > static_cast<unsigned long long>(PY_SSIZE_T_MAX) - total) {
            return "the frame claims " + std::to_string(claimed) + " bytes, more than there is";
        }
        total += static_cast<size_t>(claimed);
        ends.push_back(total);
    }
    return {};
}

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
    std::vector<size_t> ends;
    std::string damage;
    try {
        damage = claimed_ends(held.get(), ends);
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
    if (!damage.empty()) return damaged(state, damage);
    const size_t total = ends.empty() ? 0 : ends.back();
    Owned buffer(PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(total)));
    if (!buffer) {
        if (!PyErr_ExceptionMatches(PyExc_MemoryError) && !PyErr_ExceptionMatches(PyExc_OverflowError)) return nullptr;
        PyErr_Clear();
        return damaged(state, "the frames claim " + std::to_string(total) + " bytes, more than there is");
    }
    // Nothing else holds the new buffer: it is written without the GIL.
    auto* out = reinterpret_cast<uint8_t*>(PyBytes_AS_STRING(buffer.get()));
    const bool decoded = without_gil([&] {
        core::FrameDecoder decoder(dictionary);
        size_t begin = 0;
        for (size_t i = 0; i < ends.size() && damage.empty(); begin = ends[i++]) {
            PyObject* body = PyTuple_GET_ITEM(held.get(), static_cast<Py_ssize_t>(i));
            damage = decoder.decode_into(reinterpret_cast<const uint8_t*>(PyBytes_AS_STRING(body)),
                                         static_cast<size_t>(PyBytes_GET_SIZE(body)), out + begin, ends[i] - begin);
            if (damage.empty() && !core::is_valid_utf8(out + begin, ends[i] - begin)) damage = "the text is not UTF-8";
        }
    });
    if (!decoded) return nullptr;
    if (!damage.empty()) return damaged(state, damage);
    Owned list(PyList_New(static_cast<Py_ssize_t>(ends.size())));
    if (!list) return nullptr;
    for (size_t i = 0; i < ends.size(); ++i) {
        PyObject* end = PyLong_FromSize_t(ends[i]);
        if (end == nullptr) return nullptr;
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), end);
    }
    return PyTuple_Pack(2, buffer.get(), list.get());
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
