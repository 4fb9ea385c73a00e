// line_matches: the first match on each matching line, produced lazily.
//
// The call only keeps its arguments; each next() scans on from the line after the last
// one reported. Like a generator, the sequence takes iter(lines) at the first next(), lets
// any error out at the next() that meets it, and once ended (run out, or an error) stays
// ended and lets go of its arguments.
//
// A plain search over an exact str line asks the host's str.find directly, and, ignoring
// case with an ASCII needle, searches the line without lower-casing it (the column is
// mapped into the lower-cased line: core/ascii_search.hpp). Lines of other types, and a
// non-ASCII needle on a non-ASCII line, go through the host's lower() and find().
#include "core/ascii_search.hpp"
#include "module/args.hpp"
#include "module/definitions.hpp"
#include "module/text.hpp"

#include <cstddef>

namespace velmora::py {
namespace {

struct LineMatches {
    PyObject_HEAD
    ModuleState* state;  // of the module that made the type, which the type keeps alive
    PyObject* lines;
    PyObject* needle;
    PyObject* pattern;
    PyObject* case_sensitive;
    PyObject* iterator;  // iter(lines), for lines that are not an exact list
    Py_ssize_t index;    // the next list index, for an exact list
    Py_ssize_t number;   // the number of the last line scanned
    bool started;
    bool finished;
    bool running;
};

int traverse(PyObject* self, visitproc visit, void* arg) {
    auto* it = reinterpret_cast<LineMatches*>(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(it->lines);
    Py_VISIT(it->needle);
    Py_VISIT(it->pattern);
    Py_VISIT(it->case_sensitive);
    Py_VISIT(it->iterator);
    return 0;
}

int clear(PyObject* self) {
    auto* it = reinterpret_cast<LineMatches*>(self);
    Py_CLEAR(it->lines);
    Py_CLEAR(it->needle);
    Py_CLEAR(it->pattern);
    Py_CLEAR(it->case_sensitive);
    Py_CLEAR(it->iterator);
    return 0;
}

void dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    clear(self);
    type->tp_free(self);
    Py_DECREF(type);
}

// The next line as a new reference; null at the end (no error) or on an error.
PyObject* next_line(LineMatches* it) {
    if (it->iterator == nullptr) {
        if (it->index >= PyList_GET_SIZE(it->lines)) return nullptr;
        return Py_NewRef(PyList_GET_ITEM(it->lines, it->index++));
    }
    return PyIter_Next(it->iterator);
}

int truth(PyObject* value) {
    if (value == Py_True) return 1;
    if (value == Py_False) return 0;
    return PyObject_IsTrue(value);
}

// What comes of one line: a column to report, none, or an error.
enum class Outcome { match, none, error };

// `column >= 0` for whatever the host gave as a column.
Outcome judge(PyObject* column) {
    Owned zero(PyLong_FromLong(0));
    const int at_least = zero ? PyObject_RichCompareBool(column, zero.get(), Py_GE) : -1;
    return at_least < 0 ? Outcome::error : at_least ? Outcome::match : Outcome::none;
}

Outcome found_at(Py_ssize_t at, Owned& column) {
    if (at == -2) return Outcome::error;
    if (at < 0) return Outcome::none;
    column = Owned(PyLong_FromSsize_t(at));
    return column ? Outcome::match : Outcome::error;
}

Outcome regex_column(LineMatches* it, PyObject* line, Owned& column) {
    PyObject* search_args[] = {it->pattern, line};
    Owned found(PyObject_VectorcallMethod(it->state->str_search, search_args, 2, nullptr));
    if (!found) return Outcome::error;
    if (found.get() == Py_None) return Outcome::none;
    PyObject* start_args[] = {found.get()};
    column = Owned(PyObject_VectorcallMethod(it->state->str_start, start_args, 1, nullptr));
    return column ? judge(column.get()) : Outcome::error;
}

// (line if case_sensitive else line.lower()).find(needle), each step a call on the objects.
Outcome plain_column_generic(LineMatches* it, PyObject* line, bool keep_case, Owned& column) {
    Owned searched(keep_case ? Py_NewRef(line) : PyObject_CallMethodNoArgs(line, it->state->str_lower));
    if (!searched) return Outcome::error;
    PyObject* find_args[] = {searched.get(), it->needle};
    column = Owned(PyObject_VectorcallMethod(it->state->str_find, find_args, 2, nullptr));
    return column ? judge(column.get()) : Outcome::error;
}

Outcome plain_column(LineMatches* it, PyObject* line, Owned& column) {
    const int keep_case = truth(it->case_sensitive);
    if (keep_case < 0) return Outcome::error;
    PyObject* needle = it->needle;
    if (!PyUnicode_CheckExact(line) || !PyUnicode_Check(needle) || PyUnicode_READY(line) < 0 ||
        PyUnicode_READY(needle) < 0) {
        return plain_column_generic(it, line, keep_case, column);
    }
    if (keep_case) return found_at(PyUnicode_Find(line, needle, 0, PY_SSIZE_T_MAX, 1), column);
    if (PyUnicode_IS_ASCII(needle)) {
        const auto* folded = PyUnicode_1BYTE_DATA(needle);
        const auto folded_size = static_cast<size_t>(PyUnicode_GET_LENGTH(needle));
        const size_t at = visit_text(line, [&](const auto* data, size_t length) {
            const size_t hit = core::find_ascii_folded(data, length, folded, folded_size);
            return hit == core::kNotFound ? hit : core::folded_index(data, hit);
        });
        return found_at(at == core::kNotFound ? -1 : static_cast<Py_ssize_t>(at), column);
    }
    // A non-ASCII needle is not empty, and an ASCII line lower-cases to ASCII.
    if (PyUnicode_IS_ASCII(line)) return Outcome::none;
    Owned lowered(PyObject_CallMethodNoArgs(line, it->state->str_lower));
    if (!lowered) return Outcome::error;
    return found_at(PyUnicode_Find(lowered.get(), needle, 0, PY_SSIZE_T_MAX, 1), column);
}

PyObject* pair(Py_ssize_t number, PyObject* column) {
    Owned first(PyLong_FromSsize_t(number));
    if (!first) return nullptr;
    PyObject* result = PyTuple_New(2);
    if (result == nullptr) return nullptr;
    PyTuple_SET_ITEM(result, 0, first.release());
    PyTuple_SET_ITEM(result, 1, Py_NewRef(column));
    return result;
}

// The next match, or null: the end (no error set) or an error.
PyObject* advance(LineMatches* it) {
    if (!it->started) {
        it->started = true;
        if (!PyList_CheckExact(it->lines)) {
            it->iterator = PyObject_GetIter(it->lines);
            if (it->iterator == nullptr) return nullptr;
        }
    }
    for (;;) {
        Owned line(next_line(it));
        if (!line) return nullptr;
        ++it->number;
        Owned column;
        const Outcome outcome = it->pattern != Py_None ? regex_column(it, line.get(), column)
                                                       : plain_column(it, line.get(), column);
        if (outcome == Outcome::error) return nullptr;
        if (outcome == Outcome::match) return pair(it->number, column.get());
    }
}

PyObject* iternext(PyObject* self) {
    auto* it = reinterpret_cast<LineMatches*>(self);
    // A collected cycle may have cleared the fields; the sequence is then over.
    if (it->finished || it->lines == nullptr) return nullptr;
    if (it->running) {
        // A host call of the scan (say pattern.search) asked this sequence for more.
        PyErr_SetString(PyExc_ValueError, "generator already executing");
        return nullptr;
    }
    it->running = true;
    PyObject* match = advance(it);
    it->running = false;
    if (match == nullptr) {
        it->finished = true;
        clear(self);
    }
    return match;
}

PyType_Slot line_matches_slots[] = {
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc)},
    {Py_tp_iter, reinterpret_cast<void*>(PyObject_SelfIter)},
    {Py_tp_iternext, reinterpret_cast<void*>(iternext)},
    {0, nullptr},
};

PyType_Spec line_matches_spec = {
    "velmora.storage.code_text.line_matches_iterator",
    sizeof(LineMatches),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_DISALLOW_INSTANTIATION |
        Py_TPFLAGS_IMMUTABLETYPE,
    line_matches_slots,
};

PyObject* line_matches(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static const Params<4> params{{"lines", "needle", "pattern", "case_sensitive"}, "line_matches"};
    std::array<PyObject*, 4> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    ModuleState* state = module_state(module);
    auto* type = reinterpret_cast<PyTypeObject*>(state->line_matches_type);
    auto* it = PyObject_GC_New(LineMatches, type);
    if (it == nullptr) return nullptr;
    it->state = state;
    it->lines = Py_NewRef(a[0]);
    it->needle = Py_NewRef(a[1]);
    it->pattern = Py_NewRef(a[2]);
    it->case_sensitive = Py_NewRef(a[3]);
    it->iterator = nullptr;
    it->index = 0;
    it->number = 0;
    it->started = false;
    it->finished = false;
    it->running = false;
    PyObject_GC_Track(it);
    return reinterpret_cast<PyObject*>(it);
}

}  // namespace

PyObject* make_line_matches_type(PyObject* module) {
    return PyType_FromModuleAndSpec(module, &line_matches_spec, nullptr);
}

PyMethodDef line_matches_def = {
    "line_matches", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(line_matches)),
    METH_FASTCALL | METH_KEYWORDS,
    "line_matches($module, /, lines, needle, pattern, case_sensitive)\n--\n\n"
    "The line number and column of the first match on each line that matches.\n"
    "\n"
    "    Args:\n"
    "        lines: The lines of a file.\n"
    "        needle: The text a plain search looks for (lower-case when the search ignores case).\n"
    "        pattern: The compiled regex of a regex search (``needle`` is then not used), or None.\n"
    "        case_sensitive: Whether ``needle`` keeps its case.\n"
    "    "};

}  // namespace velmora::py
