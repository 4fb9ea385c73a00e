// _file_text and _lines_holding: an indexed file's text and lines, read from disk through
// the host's read_bytes_no_follow.
//
// A plain search first asks whether the file can hold the needle at all. For the usual
// case (the reader gives bytes, the needle is a str) that question is answered on the
// undecoded bytes where it provably has the decoded text's answer, so a file without the
// needle is neither decoded nor lower-cased nor split:
//   - UTF-8 is self-synchronising and the needle's encoding starts with a byte that never
//     continues a sequence, so the needle's encoding occurs in the bytes exactly when the
//     needle occurs in their decoding with replacement, as long as the needle holds no
//     U+FFFD (which bad bytes decode to) and no surrogate (which decoding never gives);
//   - ignoring case, an ASCII needle is found in the bytes read as ASCII (see
//     core/ascii_search.hpp), unless they hold U+212A or U+0130 and the needle holds the
//     letter that one of those lower-cases to; then the decoded text is searched.
// Everything else goes the host's way: decode, str.lower, `in`, str.splitlines.
//
// A large file is decoded and split a slice of a few MB at a time, with a check for
// signals between slices, so that Ctrl-C stops the reading of a huge file (see
// sliced_lines).
#include "core/ascii_search.hpp"
#include "core/line_scan.hpp"
#include "module/args.hpp"
#include "module/definitions.hpp"
#include "module/text.hpp"

#include <cstring>

namespace velmora::py {
namespace {

// An OSError or ValueError (or a subclass) means "cannot be read": cleared, 0. Anything
// else stays raised: -1.
int unreadable() {
    if (PyErr_ExceptionMatches(PyExc_OSError) || PyErr_ExceptionMatches(PyExc_ValueError)) {
        PyErr_Clear();
        return 0;
    }
    return -1;
}

// read_bytes_no_follow(path), looked up on the module as a global would be, so that the
// host's function (or a test's stand-in) is the one called. 1 with `out` set, 0, or -1.
int read_raw(PyObject* module, ModuleState* state, PyObject* path, Owned& out) {
    Owned reader(PyObject_GetAttr(module, state->str_read_bytes_no_follow));
    if (!reader) return -1;
    out = Owned(PyObject_CallOneArg(reader.get(), path));
    return out ? 1 : unreadable();
}

// raw.decode("utf-8", errors="replace"). 1 with `out` set, 0, or -1.
int decode(ModuleState* state, PyObject* raw, Owned& out) {
    if (PyBytes_CheckExact(raw)) {
        out = Owned(PyUnicode_DecodeUTF8(PyBytes_AS_STRING(raw), PyBytes_GET_SIZE(raw), "replace"));
    } else {
        PyObject* args[] = {raw, state->str_utf_8, state->str_replace};
        out = Owned(PyObject_VectorcallMethod(state->str_decode, args, 2, state->decode_kwnames));
    }
    return out ? 1 : unreadable();
}

// The file's text: 1 with `out` set, 0 when it cannot be read, -1 on another error.
int file_text_of(PyObject* module, ModuleState* state, PyObject* path, Owned& out) {
    Owned raw;
    const int read = read_raw(module, state, path, raw);
    return read <= 0 ? read : decode(state, raw.get(), out);
}

// Files above this many bytes are decoded and split a slice at a time.
constexpr size_t kSlice = size_t{1} << 22;

// Where a slice that runs at least to `from` ends: just past the first ASCII line boundary
// at or after `from` that does not begin a CR LF, or at `size`.
size_t slice_end(const uint8_t* bytes, size_t from, size_t size) {
    for (size_t at = from; at < size; ++at) {
        const uint8_t b = bytes[at];
        if (b > 0x1E || !core::is_line_boundary(b)) continue;
        if (b != '\r' || at + 1 == size || bytes[at + 1] != '\n') return at + 1;
    }
    return size;
}

// raw.decode("utf-8", errors="replace").splitlines() for exact bytes, a slice at a time.
// Cut after an ASCII boundary, the slices decode to the pieces of the whole decoding (an
// ASCII byte ends any ill-formed sequence before it and belongs to none) and split into
// its lines in order (a slice ends with a whole boundary, so it has no empty last line,
// and no CR LF is parted).
PyObject* sliced_lines(PyObject* raw) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(PyBytes_AS_STRING(raw));
    const auto size = static_cast<size_t>(PyBytes_GET_SIZE(raw));
    Owned lines(PyList_New(0));
    if (!lines) return nullptr;
    for (size_t begin = 0; begin < size;) {
        const size_t end = slice_end(bytes, size - begin > kSlice ? begin + kSlice : size, size);
        Owned text(PyUnicode_DecodeUTF8(reinterpret_cast<const char*>(bytes + begin),
                                        static_cast<Py_ssize_t>(end - begin), "replace"));
        Owned part(text ? PyUnicode_Splitlines(text.get(), 0) : nullptr);
        if (!part || PyList_SetSlice(lines.get(), PY_SSIZE_T_MAX, PY_SSIZE_T_MAX, part.get()) < 0 ||
            PyErr_CheckSignals() < 0) {
            return nullptr;
        }
        begin = end;
    }
    return lines.release();
}

PyObject* split_lines(ModuleState* state, PyObject* content) {
    if (PyUnicode_CheckExact(content)) return PyUnicode_Splitlines(content, 0);
    return PyObject_CallMethodNoArgs(content, state->str_splitlines);
}

// Whether a needle can have its encoding found in undecoded bytes (see the top).
bool plain_in_bytes(PyObject* needle) {
    if (PyUnicode_IS_ASCII(needle)) return true;
    return visit_text(needle, [](const auto* data, size_t length) {
        for (size_t i = 0; i < length; ++i) {
            const uint32_t c = data[i];
            if (c == 0xFFFD || (c - 0xD800u) < 0x800u) return false;
        }
        return true;
    });
}

constexpr int kUndecided = 2;

// Whether the file's bytes hold the needle: 1 or 0, kUndecided when only the decoded
// text can tell, -1 on error. `needle` is a non-empty ready str.
int holds_in_bytes(PyObject* raw, PyObject* needle, bool case_sensitive) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(PyBytes_AS_STRING(raw));
    const auto size = static_cast<size_t>(PyBytes_GET_SIZE(raw));
    if (case_sensitive) {
        if (!plain_in_bytes(needle)) return kUndecided;
        Py_ssize_t encoded_size = 0;
        const char* encoded = PyUnicode_AsUTF8AndSize(needle, &encoded_size);
        if (encoded == nullptr) return -1;
        return core::find_bytes(bytes, size, reinterpret_cast<const uint8_t*>(encoded),
                                static_cast<size_t>(encoded_size)) != core::kNotFound;
    }
    if (!PyUnicode_IS_ASCII(needle)) return kUndecided;
    const auto* folded = PyUnicode_1BYTE_DATA(needle);
    const auto folded_size = static_cast<size_t>(PyUnicode_GET_LENGTH(needle));
    if (core::find_ascii_folded(bytes, size, folded, folded_size) != core::kNotFound) return 1;
    if (core::needle_has_foreign_folds(folded, folded_size) &&
        core::utf8_holds_foreign_folds(bytes, size)) {
        return kUndecided;
    }
    return 0;
}

// Whether the decoded text (an exact str) holds the needle (a str), as
// `needle in (content if case_sensitive else content.lower())`: 1, 0 or -1.
int holds_in_text(ModuleState* state, PyObject* content, PyObject* needle, bool case_sensitive) {
    if (case_sensitive) return PyUnicode_Contains(content, needle);
    if (PyUnicode_READY(needle) < 0) return -1;
    if (PyUnicode_IS_ASCII(needle)) {
        const auto* folded = PyUnicode_1BYTE_DATA(needle);
        const auto folded_size = static_cast<size_t>(PyUnicode_GET_LENGTH(needle));
        return visit_text(content, [&](const auto* data, size_t length) {
            return core::find_ascii_folded(data, length, folded, folded_size) != core::kNotFound;
        });
    }
    // A non-ASCII needle is not empty, and an ASCII text lower-cases to ASCII.
    if (PyUnicode_IS_ASCII(content)) return 0;
    Owned lowered(PyObject_CallMethodNoArgs(content, state->str_lower));
    return lowered ? PySequence_Contains(lowered.get(), needle) : -1;
}

// The host's way, for a reader or a needle of another type: every step a call on the
// objects, as the plain code would make it.
PyObject* lines_holding_generic(ModuleState* state, PyObject* raw, PyObject* needle,
                                PyObject* case_sensitive) {
    const bool large = PyBytes_CheckExact(raw) && static_cast<size_t>(PyBytes_GET_SIZE(raw)) > kSlice;
    if (needle == Py_None && large) return sliced_lines(raw);
    Owned content;
    const int decoded = decode(state, raw, content);
    if (decoded <= 0) return decoded == 0 ? Py_NewRef(Py_None) : nullptr;
    if (needle != Py_None) {
        const int keep_case = PyObject_IsTrue(case_sensitive);
        if (keep_case < 0) return nullptr;
        Owned searched(keep_case ? Py_NewRef(content.get())
                                 : PyObject_CallMethodNoArgs(content.get(), state->str_lower));
        if (!searched) return nullptr;
        const int holds = PySequence_Contains(searched.get(), needle);
        if (holds <= 0) return holds == 0 ? Py_NewRef(Py_None) : nullptr;
    }
    return split_lines(state, content.get());
}

PyObject* file_text(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static const Params<1> params{{"path"}, "_file_text"};
    std::array<PyObject*, 1> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    Owned content;
    const int read = file_text_of(module, module_state(module), a[0], content);
    if (read <= 0) return read == 0 ? Py_NewRef(Py_None) : nullptr;
    return content.release();
}

PyObject* lines_holding_function(PyObject* module, PyObject* const* args, Py_ssize_t nargs,
                                 PyObject* kwnames) {
    static const Params<3> params{{"path", "needle", "case_sensitive"}, "_lines_holding"};
    std::array<PyObject*, 3> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    return lines_holding(module, a[0], a[1], a[2]);
}

}  // namespace

PyObject* lines_holding(PyObject* module, PyObject* path, PyObject* needle, PyObject* case_sensitive) {
    ModuleState* state = module_state(module);
    Owned raw;
    const int read = read_raw(module, state, path, raw);
    if (read <= 0) return read == 0 ? Py_NewRef(Py_None) : nullptr;
    if (!PyBytes_CheckExact(raw.get()) || needle == Py_None || !PyUnicode_Check(needle)) {
        return lines_holding_generic(state, raw.get(), needle, case_sensitive);
    }
    const int keep_case = PyObject_IsTrue(case_sensitive);
    if (keep_case < 0 || PyUnicode_READY(needle) < 0) return nullptr;
    int holds = PyUnicode_GET_LENGTH(needle) == 0 ? 1 : holds_in_bytes(raw.get(), needle, keep_case);
    if (holds <= 0) return holds == 0 ? Py_NewRef(Py_None) : nullptr;
    const bool sliced = static_cast<size_t>(PyBytes_GET_SIZE(raw.get())) > kSlice;
    Owned content;
    if (holds == kUndecided || !sliced) {
        const int decoded = decode(state, raw.get(), content);
        if (decoded <= 0) return decoded == 0 ? Py_NewRef(Py_None) : nullptr;
    }
    if (holds == kUndecided) {
        holds = holds_in_text(state, content.get(), needle, keep_case);
        if (holds <= 0) return holds == 0 ? Py_NewRef(Py_None) : nullptr;
    }
    if (!sliced) return PyUnicode_Splitlines(content.get(), 0);
    content = Owned();
    return sliced_lines(raw.get());
}

int intern_disk_names(ModuleState* state) {
    const auto intern = [](PyObject*& slot, const char* text) {
        slot = PyUnicode_InternFromString(text);
        return slot != nullptr;
    };
    if (!intern(state->str_search, "search") || !intern(state->str_start, "start") ||
        !intern(state->str_lower, "lower") || !intern(state->str_find, "find") ||
        !intern(state->str_decode, "decode") || !intern(state->str_splitlines, "splitlines") ||
        !intern(state->str_load, "_load") || !intern(state->str_utf_8, "utf-8") ||
        !intern(state->str_replace, "replace")) {
        return -1;
    }
    Owned errors(PyUnicode_InternFromString("errors"));
    state->decode_kwnames = errors ? PyTuple_Pack(1, errors.get()) : nullptr;
    return state->decode_kwnames ? 0 : -1;
}

PyMethodDef file_text_def = {
    "_file_text", method_function(file_text),
    METH_FASTCALL | METH_KEYWORDS,
    "_file_text($module, /, path)\n--\n\n"
    "The text of an indexed file on disk (UTF-8, undecodable bytes replaced); None when it\n"
    "    cannot be read, or is a symlink (``utils.fsio.read_bytes_no_follow``: a file replaced by a\n"
    "    symlink to one outside the repository is not read until the watcher indexes it again)."};

PyMethodDef lines_holding_def = {
    "_lines_holding",
    method_function(lines_holding_function),
    METH_FASTCALL | METH_KEYWORDS,
    "_lines_holding($module, /, path, needle, case_sensitive)\n--\n\n"
    "The lines of a file; None when it cannot be read or does not hold ``needle``.\n"
    "\n"
    "    Args:\n"
    "        path: The file.\n"
    "        needle: The text a plain search looks for (lower-case when the search ignores case);\n"
    "            None for a regex, which is matched line by line only.\n"
    "        case_sensitive: Whether ``needle`` keeps its case.\n"
    "    "};

}  // namespace velmora::py
