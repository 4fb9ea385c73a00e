// code_chunks, stored_text_bytes, file_rowids and _chunk_lines: how a file's text is cut
// into stored chunks, measured, numbered and read back.
#include "core/chunk_plan.hpp"
#include "core/stored_size.hpp"
#include "module/args.hpp"
#include "module/definitions.hpp"
#include "module/signals.hpp"
#include "module/state.hpp"
#include "module/text.hpp"

namespace velmora::py {
namespace {

using core::ChunkSpan;

// The joined text of one chunk, made in one allocation of the narrowest width.
template <class Char>
PyObject* chunk_text(const Char* data, const ChunkSpan& span) {
    // A chunk of a one-byte text that is not ASCII needs all of Latin-1.
    uint32_t max_char = 0x7F;
    if (!span.ascii) max_char = sizeof(Char) == 1 ? 0xFF : core::joined_char_bound(data, span.begin, span.end);
    PyObject* text = PyUnicode_New(static_cast<Py_ssize_t>(span.length), max_char);
    if (text == nullptr || span.length == 0) return text;
    fill_text(text, [&](auto* out) {
        core::copy_joined(data, span, out);
    });
    return text;
}

// (first line, last line, text), taking over `text`.
PyObject* chunk_triple(const ChunkSpan& span, Owned text) {
    Owned first(PyLong_FromSize_t(span.first_line));
    Owned last(first ? PyLong_FromSize_t(span.last_line) : nullptr);
    Owned triple(last ? PyTuple_New(3) : nullptr);
    if (!triple) return nullptr;
    PyTuple_SET_ITEM(triple.get(), 0, first.release());
    PyTuple_SET_ITEM(triple.get(), 1, last.release());
    PyTuple_SET_ITEM(triple.get(), 2, text.release());
    // Two ints and a str can never be part of a cycle: the collector need not see it
    // (it would untrack it itself at its first pass).
    PyObject_GC_UnTrack(triple.get());
    return triple.release();
}

// The one argument, text, of `function`: a ready str, or null with an error set.
PyObject* text_argument(const char* function, PyObject* const* args, Py_ssize_t nargs,
                        PyObject* kwnames) {
    const Params<1> params{{"text"}, function};
    std::array<PyObject*, 1> a;
    return params.parse(args, nargs, kwnames, a) && require_str(function, "text", a[0]) ? a[0] : nullptr;
}

PyObject* code_chunks(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    PyObject* source = text_argument("code_chunks", args, nargs, kwnames);
    if (source == nullptr) return nullptr;
    Owned chunks(PyList_New(0));
    if (!chunks) return nullptr;
    SignalCountdown countdown;  // a text may run to a GB
    const bool ok = visit_text(source, [&](const auto* data, size_t length) {
        return core::plan_chunks(data, length, [&](const ChunkSpan& span) {
            // A text without any boundary is its own one line, and the host then hands
            // back the text itself (splitlines() and a one-item join both do).
            const bool whole = span.last_line == 1 && span.end == length && PyUnicode_CheckExact(source);
            Owned text(whole ? Py_NewRef(source) : chunk_text(data, span));
            Owned chunk(text ? chunk_triple(span, std::move(text)) : nullptr);
            return chunk && PyList_Append(chunks.get(), chunk.get()) == 0 &&
                   countdown.pass_item(span.end - span.begin);
        });
    });
    return ok ? chunks.release() : nullptr;
}

PyObject* stored_text_bytes(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    PyObject* text = text_argument("stored_text_bytes", args, nargs, kwnames);
    if (text == nullptr) return nullptr;
    if (PyUnicode_IS_ASCII(text)) {
        const auto* data = static_cast<const uint8_t*>(PyUnicode_DATA(text));
        return PyLong_FromUnsignedLongLong(
            core::stored_ascii_bytes(data, static_cast<size_t>(PyUnicode_GET_LENGTH(text))));
    }
    return visit_text(text, [](const auto* data, size_t length) {
        return PyLong_FromUnsignedLongLong(core::stored_text_bytes(data, length));
    });
}

PyObject* file_rowids(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static const Params<1> params{{"file_id"}, "file_rowids"};
    std::array<PyObject*, 1> a;
    if (!params.parse(args, nargs, kwnames, a) || !require_int("file_rowids", "file_id", a[0])) {
        return nullptr;
    }
    return row_id_range(module_state(module), a[0]);
}

PyObject* chunk_lines(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static const Params<3> params{{"start_line", "end_line", "text"}, "_chunk_lines"};
    std::array<PyObject*, 3> a;
    if (!params.parse(args, nargs, kwnames, a) || !require_str("_chunk_lines", "text", a[2])) {
        return nullptr;
    }
    return lines_of_chunk(a[0], a[1], a[2]);
}

}  // namespace

PyObject* row_id_range(ModuleState* state, PyObject* file_id) {
    Owned first(PyNumber_Multiply(file_id, state->stride));
    if (!first) return nullptr;
    Owned one(PyLong_FromLong(1));
    Owned next_id(one ? PyNumber_Add(file_id, one.get()) : nullptr);
    Owned end(next_id ? PyNumber_Multiply(next_id.get(), state->stride) : nullptr);
    if (!end) return nullptr;
    return PyTuple_Pack(2, first.get(), end.get());
}

PyObject* lines_of_chunk(PyObject* start_line, PyObject* end_line, PyObject* text) {
    const int has_lines = PyObject_RichCompareBool(end_line, start_line, Py_GE);
    if (has_lines < 0) return nullptr;
    return has_lines ? lf_pieces(text) : PyList_New(0);
}

PyMethodDef code_chunks_def = {
    "code_chunks", method_function(code_chunks),
    METH_FASTCALL | METH_KEYWORDS,
    "code_chunks($module, /, text)\n--\n\n"
    "The chunks of a file's text: (first line, last line, text), in line order.\n"
    "\n"
    "    Args:\n"
    "        text: The file's text.\n"
    "\n"
    "    Returns:\n"
    "        At most ``CODE_CHUNK_LINES`` lines a chunk, joined by one LF; a text without lines\n"
    "        gives the one chunk (1, 0, \"\").\n"
    "    "};

PyMethodDef stored_text_bytes_def = {
    "stored_text_bytes",
    method_function(stored_text_bytes),
    METH_FASTCALL | METH_KEYWORDS,
    "stored_text_bytes($module, /, text)\n--\n\n"
    "The UTF-8 bytes of a text as its chunks hold it: its lines joined by one LF each.\n"
    "\n"
    "    Args:\n"
    "        text: The file's text.\n"
    "\n"
    "    Returns:\n"
    "        The byte count; a lone surrogate counts one byte (it is stored as \"?\").\n"
    "    "};

PyMethodDef file_rowids_def = {
    "file_rowids", method_function(file_rowids),
    METH_FASTCALL | METH_KEYWORDS,
    "file_rowids($module, /, file_id)\n--\n\n"
    "The row ids of a file's chunks, as a half-open range (first, end).\n"
    "\n"
    "    Args:\n"
    "        file_id: The file's id.\n"
    "\n"
    "    Returns:\n"
    "        The pair (file_id * CODE_CHUNK_STRIDE, (file_id + 1) * CODE_CHUNK_STRIDE).\n"
    "    "};

PyMethodDef chunk_lines_def = {
    "_chunk_lines", method_function(chunk_lines),
    METH_FASTCALL | METH_KEYWORDS,
    "_chunk_lines($module, /, start_line, end_line, text)\n--\n\n"
    "The lines of one stored chunk: its text split at each LF.\n"
    "\n"
    "    Args:\n"
    "        start_line: The chunk's first line.\n"
    "        end_line: The chunk's last line; below ``start_line`` for the chunk of a text without\n"
    "            lines, which has none.\n"
    "        text: The chunk's stored text.\n"
    "    "};

}  // namespace velmora::py
