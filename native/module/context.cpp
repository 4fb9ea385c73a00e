// context: numbered lines cut out of a run of lines, clipped to the run.
//
// The bounds are computed on exact integers of any size: the run is at most
// PY_SSIZE_T_MAX lines, so the clipped range has a length and an offset that fit a
// Py_ssize_t, and no index outside `lines` is ever formed, whatever the arguments.
#include "module/args.hpp"
#include "module/definitions.hpp"
#include "module/signals.hpp"

#include <climits>

namespace velmora::py {
namespace {

// Arguments within this bound leave room for every sum below in a long long.
constexpr long long kSmall = LLONG_MAX / 4;

struct Range {
    Py_ssize_t offset = 0;  // index in `lines` of the first record's line
    Py_ssize_t count = 0;   // how many records; 0 for an empty result
};

bool as_small(PyObject* value, long long& out) {
    int overflow = 0;
    out = PyLong_AsLongLongAndOverflow(value, &overflow);
    return overflow == 0 && out > -kSmall && out < kSmall;
}

// max(first, start) .. min(last, start + size - 1) on Python ints, for the huge ones.
// `low` gets the first record's number.
bool clip_big(PyObject* first, PyObject* last, PyObject* start, Py_ssize_t size, Owned& low,
              Range& range) {
    const int raise = PyObject_RichCompareBool(start, first, Py_GT);
    if (raise < 0) return false;
    low = Owned::borrow(raise ? start : first);
    Owned span(PyLong_FromSsize_t(size - 1));
    Owned end(span ? PyNumber_Add(start, span.get()) : nullptr);
    if (!end) return false;
    const int lower = PyObject_RichCompareBool(end.get(), last, Py_LT);
    if (lower < 0) return false;
    PyObject* high = lower ? end.get() : last;
    const int empty = PyObject_RichCompareBool(low.get(), high, Py_GT);
    if (empty != 0) return empty > 0;
    // low <= high, start <= low and high <= start + size - 1: both below fit.
    Owned count(PyNumber_Subtract(high, low.get()));
    Owned offset(count ? PyNumber_Subtract(low.get(), start) : nullptr);
    if (!offset) return false;
    range.count = PyLong_AsSsize_t(count.get()) + 1;
    range.offset = PyLong_AsSsize_t(offset.get());
    return !PyErr_Occurred();
}

PyObject* record(ModuleState* state, PyObject* number, PyObject* line) {
    Owned entry(PyDict_New());
    if (!entry || PyDict_SetItem(entry.get(), state->str_line, number) < 0 ||
        PyDict_SetItem(entry.get(), state->str_content, line) < 0) {
        return nullptr;
    }
    return entry.release();
}

PyObject* number_at(long long small_low, PyObject* big_low, Py_ssize_t k) {
    if (big_low == nullptr) return PyLong_FromLongLong(small_low + k);
    Owned step(PyLong_FromSsize_t(k));
    return step ? PyNumber_Add(big_low, step.get()) : nullptr;
}

bool is_int(PyObject* value) { return PyLong_CheckExact(value) || PyBool_Check(value); }

// The plain code's steps one by one on the objects themselves, for bounds that are not all
// ints: max() and min() compare them, range() takes their __index__ and each index into
// `lines` is a subtraction, so that a value is given, or an error raised, where the plain
// code would give or raise it (a float `start` over an empty range gives []).
PyObject* context_of_objects(ModuleState* state, PyObject* lines, PyObject* first, PyObject* last,
                             PyObject* start) {
    const int raise = PyObject_RichCompareBool(start, first, Py_GT);
    if (raise < 0) return nullptr;
    PyObject* low = raise ? start : first;
    const Py_ssize_t size = PyObject_Size(lines);
    Owned count(size < 0 ? nullptr : PyLong_FromSsize_t(size));
    Owned one(count ? PyLong_FromLong(1) : nullptr);
    Owned past(one ? PyNumber_Add(start, count.get()) : nullptr);
    Owned end(past ? PyNumber_Subtract(past.get(), one.get()) : nullptr);
    if (!end) return nullptr;
    const int lower = PyObject_RichCompareBool(end.get(), last, Py_LT);
    if (lower < 0) return nullptr;
    Owned stop(PyNumber_Add(lower ? end.get() : last, one.get()));
    Owned numbers(stop ? PyObject_CallFunctionObjArgs(reinterpret_cast<PyObject*>(&PyRange_Type), low,
                                                      stop.get(), nullptr)
                       : nullptr);
    Owned iterator(numbers ? PyObject_GetIter(numbers.get()) : nullptr);
    Owned records(iterator ? PyList_New(0) : nullptr);
    if (!records) return nullptr;
    SignalCountdown countdown;
    while (Owned number{PyIter_Next(iterator.get())}) {
        Owned index(PyNumber_Subtract(number.get(), start));
        Owned line(index ? PyObject_GetItem(lines, index.get()) : nullptr);
        Owned entry(line ? record(state, number.get(), line.get()) : nullptr);
        if (!entry || PyList_Append(records.get(), entry.get()) < 0 || !countdown.pass_item(0)) return nullptr;
    }
    return PyErr_Occurred() ? nullptr : records.release();
}

PyObject* context(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static const Params<4> params{{"lines", "first", "last", "start"}, "context", 4, 3};
    std::array<PyObject*, 4> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    PyObject* lines = a[0];
    if (!is_int(a[1]) || !is_int(a[2]) || (a[3] != nullptr && !is_int(a[3]))) {
        Owned one(a[3] ? Py_NewRef(a[3]) : PyLong_FromLong(1));
        return one ? context_of_objects(module_state(module), lines, a[1], a[2], one.get()) : nullptr;
    }
    // From here on the bounds are ints (a bool taken as its int).
    Owned first(PyNumber_Index(a[1]));
    Owned last(first ? PyNumber_Index(a[2]) : nullptr);
    Owned start(last ? (a[3] ? PyNumber_Index(a[3]) : PyLong_FromLong(1)) : nullptr);
    if (!start) return nullptr;
    const bool listed = PyList_CheckExact(lines);
    const Py_ssize_t size = listed ? PyList_GET_SIZE(lines) : PyObject_Size(lines);
    if (size < 0) return nullptr;

    Range range;
    long long small_low = 0;
    Owned big_low;
    long long f = 0, l = 0, s = 0;
    if (as_small(first.get(), f) && as_small(last.get(), l) && as_small(start.get(), s)) {
        small_low = f > s ? f : s;
        const long long end = s + static_cast<long long>(size) - 1;
        const long long high = l < end ? l : end;
        if (small_low <= high) {
            range.count = static_cast<Py_ssize_t>(high - small_low + 1);
            range.offset = static_cast<Py_ssize_t>(small_low - s);
        }
    } else {
        if (!clip_big(first.get(), last.get(), start.get(), size, big_low, range)) return nullptr;
    }

    if (listed && range.offset + range.count <= PyList_GET_SIZE(lines)) {
        // The lines are usually cold: ask for all of them at once rather than one by one.
        for (Py_ssize_t k = 0; k < range.count; ++k) {
            __builtin_prefetch(PyList_GET_ITEM(lines, range.offset + k), 1);
        }
    }
    ModuleState* state = module_state(module);
    Owned records(PyList_New(range.count));
    if (!records) return nullptr;
    SignalCountdown countdown;  // a range may cover millions of lines
    for (Py_ssize_t k = 0; k < range.count; ++k) {
        Owned number(number_at(small_low, big_low.get(), k));
        if (!number) return nullptr;
        Owned line;
        if (listed) {
            // The list may have shrunk under a host call; index it only while in range.
            if (range.offset + k >= PyList_GET_SIZE(lines)) {
                PyErr_SetString(PyExc_IndexError, "list index out of range");
                return nullptr;
            }
            line = Owned::borrow(PyList_GET_ITEM(lines, range.offset + k));
        } else {
            Owned index(PyLong_FromSsize_t(range.offset + k));
            line = Owned(index ? PyObject_GetItem(lines, index.get()) : nullptr);
        }
        PyObject* entry = line ? record(state, number.get(), line.get()) : nullptr;
        if (entry == nullptr) return nullptr;
        PyList_SET_ITEM(records.get(), k, entry);
        if (!countdown.pass_item(0)) return nullptr;
    }
    return records.release();
}

}  // namespace

PyMethodDef context_def = {
    "context", method_function(context),
    METH_FASTCALL | METH_KEYWORDS,
    "context($module, /, lines, first, last, start=1)\n--\n\n"
    "Lines ``first`` to ``last`` (1-based, clipped to ``lines``), each with its number.\n"
    "\n"
    "    Args:\n"
    "        lines: Lines of a file in a row: the whole file, or a chunk of it.\n"
    "        first: The first line wanted.\n"
    "        last: The last line wanted.\n"
    "        start: The number of the first of ``lines`` (1 for the whole file).\n"
    "    "};

}  // namespace velmora::py
