// line_matches: the first match on each matching line, produced lazily.
//
// The call only keeps its arguments; each next() scans on from the line after the last
// one reported. Like a generator, the sequence takes iter(lines) at the first next(), lets
// any error out at the next() that meets it, and once ended (run out, or an error) stays
// ended and lets go of its arguments.
//
// A plain search over an exact str line finds the needle where str.find would (a byte
// search for one-byte strs, the host's PyUnicode_Find otherwise), and, ignoring case with
// an ASCII needle, searches the line without lower-casing it (the column is mapped into
// the lower-cased line: core/ascii_search.hpp). Lines of other types, and a non-ASCII
// needle on a non-ASCII line, go through the host's lower() and find().
//
// A regex search calls pattern.search(line) on each line, except on a line that cannot
// match: when the pattern is an re.Pattern over str, without IGNORECASE or LOCALE, and
// its top level holds a run of literal characters, every match holds that run, so a line
// without it gets None from search and is skipped without asking. The run is read off
// the host's own parse of the pattern (re._parser), once per pattern.
#include "core/ascii_search.hpp"
#include "module/heap_type.hpp"
#include "module/args.hpp"
#include "module/definitions.hpp"
#include "module/signals.hpp"
#include "module/text.hpp"

#include <cstddef>

namespace velmora::py {
namespace {

// The call's arguments; iter(lines), for lines that are not an exact list; pattern.search,
// bound once for an re.Pattern; and text that every match of the pattern holds, if known.
#define VELMORA_LINE_MATCHES_FIELDS(X) \
    X(lines) X(needle) X(pattern) X(case_sensitive) X(iterator) X(search) X(literal)

struct LineMatches {
    PyObject_HEAD
    VELMORA_FIELDS(VELMORA_LINE_MATCHES_FIELDS)
    ModuleState* state;  // of the module that made the type, which the type keeps alive
    core::FoldedNeedle folded;  // the needle, when it is an ASCII str
    SignalCountdown countdown;  // one next() may scan millions of lines
    Py_ssize_t index;    // the next list index, for an exact list
    Py_ssize_t number;   // the number of the last line scanned
    bool started;
    bool finished;
    bool running;
    bool ascii_needle;
};

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

// str.find(needle) on two ready strs, calling no host code: >= 0, -1, or -2 on an error.
Py_ssize_t find_exact(PyObject* line, PyObject* needle) {
    if (PyUnicode_KIND(line) == PyUnicode_1BYTE_KIND && PyUnicode_KIND(needle) == PyUnicode_1BYTE_KIND) {
        const size_t at = core::find_bytes(
            PyUnicode_1BYTE_DATA(line), static_cast<size_t>(PyUnicode_GET_LENGTH(line)),
            PyUnicode_1BYTE_DATA(needle), static_cast<size_t>(PyUnicode_GET_LENGTH(needle)));
        return at == core::kNotFound ? -1 : static_cast<Py_ssize_t>(at);
    }
    return PyUnicode_Find(line, needle, 0, PY_SSIZE_T_MAX, 1);
}

Outcome regex_column(LineMatches* it, PyObject* line, Owned& column) {
    if (it->literal != nullptr && PyUnicode_CheckExact(line)) {
        if (PyUnicode_READY(line) < 0) return Outcome::error;
        const Py_ssize_t at = find_exact(line, it->literal);
        if (at == -2) return Outcome::error;
        if (at == -1) return Outcome::none;
    }
    Owned found;
    if (it->search != nullptr) {
        found = Owned(PyObject_Vectorcall(it->search, &line, 1, nullptr));
    } else {
        PyObject* search_args[] = {it->pattern, line};
        found = Owned(PyObject_VectorcallMethod(it->state->str_search, search_args, 2, nullptr));
    }
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

// A column worked out by the host's own lower() and find(), not here.
constexpr Py_ssize_t kAskHost = -3;

// The column of a plain search on an exact, ready str line with a ready str needle,
// without calling host code: >= 0, -1 for none, -2 on an error, or kAskHost.
Py_ssize_t column_in_str(LineMatches* it, PyObject* line, bool keep_case) {
    PyObject* needle = it->needle;
    if (keep_case) return find_exact(line, needle);
    if (PyUnicode_IS_ASCII(needle)) {
        if (!it->ascii_needle) {
            it->folded = core::fold_needle(PyUnicode_1BYTE_DATA(needle),
                                           static_cast<size_t>(PyUnicode_GET_LENGTH(needle)));
            it->ascii_needle = true;
        }
        const size_t at = visit_text(line, [&](const auto* data, size_t length) {
            const size_t hit = core::find_folded(data, length, it->folded);
            return hit == core::kNotFound ? hit : core::folded_index(data, hit);
        });
        return at == core::kNotFound ? -1 : static_cast<Py_ssize_t>(at);
    }
    // A non-ASCII needle is not empty, and an ASCII line lower-cases to ASCII.
    return PyUnicode_IS_ASCII(line) ? -1 : kAskHost;
}

Outcome plain_column(LineMatches* it, PyObject* line, Owned& column) {
    const int keep_case = truth(it->case_sensitive);
    if (keep_case < 0) return Outcome::error;
    PyObject* needle = it->needle;
    if (!PyUnicode_CheckExact(line) || !PyUnicode_Check(needle)) {
        return plain_column_generic(it, line, keep_case, column);
    }
    if (PyUnicode_READY(line) < 0 || PyUnicode_READY(needle) < 0) return Outcome::error;
    Py_ssize_t at = column_in_str(it, line, keep_case);
    if (at == kAskHost) {
        Owned lowered(PyObject_CallMethodNoArgs(line, it->state->str_lower));
        if (!lowered) return Outcome::error;
        at = PyUnicode_Find(lowered.get(), needle, 0, PY_SSIZE_T_MAX, 1);
    }
    return found_at(at, column);
}

// The code points a scan of `line` read, for the signal countdown.
size_t scanned(PyObject* line) {
    const bool text = PyUnicode_Check(line) && PyUnicode_IS_READY(line);
    return text ? static_cast<size_t>(PyUnicode_GET_LENGTH(line)) : 0;
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

// After a step that may be skipped: 0 when no error is set or the one set may be dropped
// (it is cleared), -1 when it must pass on (KeyboardInterrupt, SystemExit and the like).
int keep_only_grave_errors() {
    if (PyErr_Occurred() == nullptr) return 0;
    if (!PyErr_ExceptionMatches(PyExc_Exception)) return -1;
    PyErr_Clear();
    return 0;
}

// (re.Pattern, re._parser.parse, re._constants.LITERAL), looked up once.
PyObject* regex_tools(ModuleState* state) {
    if (state->regex_tools != nullptr) return state->regex_tools;
    Owned re(PyImport_ImportModule("re"));
    Owned pattern_type(re ? PyObject_GetAttrString(re.get(), "Pattern") : nullptr);
    Owned parser(pattern_type ? PyImport_ImportModule("re._parser") : nullptr);
    Owned parse(parser ? PyObject_GetAttrString(parser.get(), "parse") : nullptr);
    Owned constants(parse ? PyImport_ImportModule("re._constants") : nullptr);
    Owned literal(constants ? PyObject_GetAttrString(constants.get(), "LITERAL") : nullptr);
    if (!literal) return nullptr;
    state->regex_tools = PyTuple_Pack(3, pattern_type.get(), parse.get(), literal.get());
    return state->regex_tools;
}

// The longest run of literal code points at the top level of the parsed pattern, as a
// str, or None; null on an error. `items` is a tuple: the comparisons below may run host
// code, which could change a list under them.
PyObject* longest_literal_run(PyObject* items, PyObject* literal_op) {
    Py_ssize_t best_begin = 0, best_size = 0, run_begin = 0;
    const Py_ssize_t count = PyTuple_GET_SIZE(items);
    for (Py_ssize_t i = 0; i <= count; ++i) {
        int literal = 0;
        if (i < count) {
            PyObject* item = PyTuple_GET_ITEM(items, i);
            if (!PyTuple_CheckExact(item) || PyTuple_GET_SIZE(item) != 2) return Py_NewRef(Py_None);
            literal = PyObject_RichCompareBool(PyTuple_GET_ITEM(item, 0), literal_op, Py_EQ);
            if (literal < 0) return nullptr;
        }
        if (!literal) {
            if (i - run_begin > best_size) best_begin = run_begin, best_size = i - run_begin;
            run_begin = i + 1;
        }
    }
    if (best_size == 0) return Py_NewRef(Py_None);
    Owned run(PyUnicode_New(best_size, 0x10FFFF));
    if (!run) return nullptr;
    for (Py_ssize_t k = 0; k < best_size; ++k) {
        PyObject* code = PyTuple_GET_ITEM(PyTuple_GET_ITEM(items, best_begin + k), 1);
        const unsigned long value = PyLong_Check(code) ? PyLong_AsUnsignedLong(code) : 0x110000;
        if (value > 0x10FFFF) {
            if (PyErr_Occurred()) return nullptr;
            return Py_NewRef(Py_None);
        }
        PyUnicode_WRITE(PyUnicode_4BYTE_KIND, PyUnicode_DATA(run.get()), k, value);
    }
    // Made four bytes wide, written back at the width its content needs: str is canonical.
    return PyUnicode_FromKindAndData(PyUnicode_4BYTE_KIND, PyUnicode_DATA(run.get()), best_size);
}

// What every match of an re.Pattern holds, worked out from the host's parse of it.
PyObject* analyse_pattern(PyObject* tools, PyObject* pattern) {
    constexpr long kIgnoreCase = 2, kLocale = 4, kDebug = 128;
    Owned source(PyObject_GetAttrString(pattern, "pattern"));
    Owned flags_object(source ? PyObject_GetAttrString(pattern, "flags") : nullptr);
    if (!flags_object) return nullptr;
    const long flags = PyLong_AsLong(flags_object.get());
    if (flags == -1 && PyErr_Occurred()) return nullptr;
    // A bytes pattern raises on a str line: every line must reach search.
    if (!PyUnicode_CheckExact(source.get()) || (flags & (kIgnoreCase | kLocale | kDebug)) != 0) {
        return Py_NewRef(Py_None);
    }
    Owned parsed(PyObject_CallFunctionObjArgs(PyTuple_GET_ITEM(tools, 1), source.get(),
                                              flags_object.get(), nullptr));
    Owned items(parsed ? PyObject_GetAttrString(parsed.get(), "data") : nullptr);
    if (!items) return nullptr;
    if (!PyList_CheckExact(items.get())) return Py_NewRef(Py_None);
    Owned frozen(PyList_AsTuple(items.get()));
    return frozen ? longest_literal_run(frozen.get(), PyTuple_GET_ITEM(tools, 2)) : nullptr;
}

// The literal of an re.Pattern (null when there is none), remembered per pattern.
PyObject* required_literal(ModuleState* state, PyObject* pattern) {
    if (state->regex_literals == nullptr) {
        state->regex_literals = PyDict_New();
        if (state->regex_literals == nullptr) return nullptr;
    }
    PyObject* known = PyDict_GetItemWithError(state->regex_literals, pattern);
    if (known == nullptr && PyErr_Occurred()) return nullptr;
    Owned literal(known ? Py_NewRef(known) : analyse_pattern(state->regex_tools, pattern));
    if (!literal) return nullptr;
    if (known == nullptr) {
        if (PyDict_GET_SIZE(state->regex_literals) >= 256) PyDict_Clear(state->regex_literals);
        if (PyDict_SetItem(state->regex_literals, pattern, literal.get()) < 0) return nullptr;
    }
    return literal.get() == Py_None ? nullptr : literal.release();
}

// Readies a regex search: binds an re.Pattern's search and finds its literal. Anything
// that goes wrong here only costs the shortcut. 0, or -1 for an error to pass on.
int plan_regex(LineMatches* it) {
    PyObject* tools = regex_tools(it->state);
    auto* pattern_type = tools ? reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(tools, 0)) : nullptr;
    if (pattern_type != nullptr && Py_TYPE(it->pattern) == pattern_type) {
        it->search = PyObject_GetAttr(it->pattern, it->state->str_search);
        if (it->search != nullptr) it->literal = required_literal(it->state, it->pattern);
    }
    return keep_only_grave_errors();
}

// The common plain search, run straight over an exact list of exact strs with a str
// needle and a bool case flag: nothing in it calls host code (but a signal handler, after
// which no line read before is touched), so the lines are borrowed and the list cannot
// change under one. It stops at a match, at the end, or before a line it cannot answer
// for alone, which the caller then takes the long way. Null with no error set means "not
// a match here".
PyObject* plain_lane(LineMatches* it) {
    PyObject* flag = it->case_sensitive;
    if (it->iterator != nullptr || it->pattern != Py_None || !PyUnicode_Check(it->needle) ||
        (flag != Py_True && flag != Py_False) || PyUnicode_READY(it->needle) < 0) {
        return nullptr;
    }
    while (it->index < PyList_GET_SIZE(it->lines)) {
        PyObject* line = PyList_GET_ITEM(it->lines, it->index);
        if (!PyUnicode_CheckExact(line)) return nullptr;
        if (PyUnicode_READY(line) < 0) return nullptr;
        const Py_ssize_t at = column_in_str(it, line, flag == Py_True);
        if (at == kAskHost) return nullptr;
        ++it->index;
        ++it->number;
        if (at == -2) return nullptr;
        if (at >= 0) {
            Owned column(PyLong_FromSsize_t(at));
            return column ? pair(it->number, column.get()) : nullptr;
        }
        if (!it->countdown.pass_item(scanned(line))) return nullptr;
    }
    return nullptr;
}

// The next match, or null: the end (no error set) or an error.
PyObject* advance(LineMatches* it) {
    if (!it->started) {
        it->started = true;
        if (!PyList_CheckExact(it->lines)) {
            it->iterator = PyObject_GetIter(it->lines);
            if (it->iterator == nullptr) return nullptr;
        }
        if (it->pattern != Py_None && plan_regex(it) < 0) return nullptr;
    }
    for (;;) {
        PyObject* fast = plain_lane(it);
        if (fast != nullptr || PyErr_Occurred()) return fast;
        Owned line(next_line(it));
        if (!line) return nullptr;
        ++it->number;
        Owned column;
        const Outcome outcome = it->pattern != Py_None ? regex_column(it, line.get(), column)
                                                       : plain_column(it, line.get(), column);
        if (outcome == Outcome::error) return nullptr;
        if (outcome == Outcome::match) return pair(it->number, column.get());
        if (!it->countdown.pass_item(scanned(line.get()))) return nullptr;
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
        gc_clear<LineMatches>(self);
    }
    return match;
}

PyType_Slot line_matches_slots[] = {
    VELMORA_GC_SLOTS(LineMatches),
    {Py_tp_iter, slot_function(PyObject_SelfIter)},
    {Py_tp_iternext, slot_function(iternext)},
    {0, nullptr},
};

PyType_Spec line_matches_definition = {
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
    it->each_field([](PyObject*& field, const char*) { field = nullptr; });
    it->lines = Py_NewRef(a[0]);
    it->needle = Py_NewRef(a[1]);
    it->pattern = Py_NewRef(a[2]);
    it->case_sensitive = Py_NewRef(a[3]);
    it->folded = core::FoldedNeedle{nullptr, 0, false};
    it->countdown = SignalCountdown{};
    it->ascii_needle = false;
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
    return PyType_FromModuleAndSpec(module, &line_matches_definition, nullptr);
}

PyMethodDef line_matches_def = {
    "line_matches", method_function(line_matches),
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
