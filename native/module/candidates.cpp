// _candidate_chunks: the chunks of the searched files that may hold a match, as segments
// per file. The index narrows a plain needle through its trigram index; the rows that
// come back are filtered by file, split into lines and put in row-id order here.
#include "module/args.hpp"
#include "module/definitions.hpp"
#include "module/signals.hpp"
#include "module/text.hpp"

#include <algorithm>
#include <new>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace velmora::py {
namespace {

// The ids of the searched files. When every one is an int, an int64 file id is looked up
// without making a Python int; otherwise the set itself is asked.
class Searched {
  public:
    bool build(PyObject* files) {
        set_ = Owned(PySet_New(nullptr));
        Owned iterator(set_ ? PyObject_GetIter(files) : nullptr);
        if (!iterator) return false;
        SignalCountdown countdown;  // a search may cover millions of files
        while (Owned row{PyIter_Next(iterator.get())}) {
            Owned id(first_of(row.get()));
            if (!id || PySet_Add(set_.get(), id.get()) < 0 || !countdown.pass_item(0)) return false;
        }
        return !PyErr_Occurred();
    }

    PyObject* set() const { return set_.get(); }

    // Takes the ints of the set for int64 lookups; done once the rows are asked for, as
    // chunk_store is handed the set itself.
    bool index_ints() {
        Owned iterator(PyObject_GetIter(set_.get()));
        if (!iterator) return false;
        ints_.reserve(static_cast<size_t>(PySet_GET_SIZE(set_.get())));
        while (Owned member{PyIter_Next(iterator.get())}) {
            // An int subclass may compare in its own way: leave those to the set.
            if (!PyLong_CheckExact(member.get()) && !PyBool_Check(member.get())) return true;
            int overflow = 0;
            const long long value = PyLong_AsLongLongAndOverflow(member.get(), &overflow);
            if (!overflow) ints_.insert(value);  // a larger id never equals an int64 one
        }
        if (PyErr_Occurred()) return false;
        all_ints_ = true;
        return true;
    }

    // 1 or 0, or -1 with an error set.
    int contains(int64_t file_id) const {
        if (all_ints_) return ints_.count(file_id) ? 1 : 0;
        Owned id(PyLong_FromLongLong(file_id));
        return id ? PySet_Contains(set_.get(), id.get()) : -1;
    }
    int contains(PyObject* file_id) const { return PySet_Contains(set_.get(), file_id); }

  private:
    static PyObject* first_of(PyObject* row) {
        if (PyTuple_CheckExact(row) && PyTuple_GET_SIZE(row) > 0) {
            return Py_NewRef(PyTuple_GET_ITEM(row, 0));
        }
        Owned zero(PyLong_FromLong(0));
        return zero ? PyObject_GetItem(row, zero.get()) : nullptr;
    }

    Owned set_;
    bool all_ints_ = false;
    std::unordered_set<int64_t> ints_;
};

// Whether the trigram index may be asked for `needle`: 1 or 0, or -1 with an error set.
int narrows(PyObject* needle, PyObject* case_sensitive) {
    if (needle == Py_None) return 0;
    const bool plain_str = PyUnicode_CheckExact(needle);
    if (plain_str && PyUnicode_READY(needle) < 0) return -1;
    int has_nul;
    if (plain_str) {
        const Py_ssize_t at = PyUnicode_FindChar(needle, 0, 0, PyUnicode_GET_LENGTH(needle), 1);
        has_nul = at == -2 ? -1 : at >= 0;
    } else {
        Owned nul(PyUnicode_FromOrdinal(0));
        has_nul = nul ? PySequence_Contains(needle, nul.get()) : -1;
    }
    if (has_nul != 0) return has_nul < 0 ? -1 : 0;
    const int sensitive = PyObject_IsTrue(case_sensitive);
    if (sensitive != 0) return sensitive;
    if (plain_str) return PyUnicode_IS_ASCII(needle) ? 1 : 0;
    Owned ascii(PyObject_CallMethod(needle, "isascii", nullptr));
    return ascii ? PyObject_IsTrue(ascii.get()) : -1;
}

// The rows of the index, by layout; nothing in them is filtered yet.
PyObject* fetch_rows(ModuleState* state, PyObject* db, PyObject* store, PyObject* searched,
                     PyObject* needle, bool narrow) {
    const int compressed = is_compressed(state, store);
    if (compressed < 0) return nullptr;
    if (compressed) {
        Owned match(narrow ? PyObject_CallMethodOneArg(state->chunk_store, state->name_trigram_query,
                                                       needle)
                           : Py_NewRef(Py_None));
        if (!match) return nullptr;
        Owned matching_rows(PyObject_GetAttr(state->chunk_store, state->name_matching_rows));
        if (!matching_rows) return nullptr;
        PyObject* call[] = {db, match.get(), searched};
        return PyObject_Vectorcall(matching_rows.get(), call, 3, nullptr);
    }
    Owned fetchall(PyObject_GetAttr(db, state->name_fetchall));
    if (!fetchall) return nullptr;
    if (!narrow) return PyObject_CallOneArg(fetchall.get(), state->sql_candidates_all);
    // The needle goes in unescaped: its "%" and "_" stay wildcards, and the line matching
    // drops what they let through.
    Owned percent(PyUnicode_FromString("%"));
    Owned opened(percent ? PyNumber_Add(percent.get(), needle) : nullptr);
    Owned pattern(opened ? PyNumber_Add(opened.get(), percent.get()) : nullptr);
    Owned parameters(pattern ? PyTuple_Pack(1, pattern.get()) : nullptr);
    if (!parameters) return nullptr;
    PyObject* call[] = {state->sql_candidates_like, parameters.get()};
    return PyObject_Vectorcall(fetchall.get(), call, 2, nullptr);
}

// The five values of a chunk row, unpacked as `a, b, c, d, e = row` would.
class RowValues {
  public:
    bool unpack(PyObject* row) {
        if (PyTuple_CheckExact(row) && PyTuple_GET_SIZE(row) == 5) {
            for (Py_ssize_t i = 0; i < 5; ++i) value_[i] = PyTuple_GET_ITEM(row, i);
            return true;
        }
        Owned iterator(PyObject_GetIter(row));
        if (!iterator) {
            if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(row)->tp_iter == nullptr &&
                !PySequence_Check(row)) {
                PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object",
                             Py_TYPE(row)->tp_name);
            }
            return false;
        }
        for (int i = 0; i < 5; ++i) {
            held_[i] = Owned(PyIter_Next(iterator.get()));
            if (!held_[i]) {
                if (!PyErr_Occurred()) {
                    PyErr_Format(PyExc_ValueError,
                                 "not enough values to unpack (expected 5, got %d)", i);
                }
                return false;
            }
            value_[i] = held_[i].get();
        }
        Owned extra(PyIter_Next(iterator.get()));
        if (extra) {
            PyErr_SetString(PyExc_ValueError, "too many values to unpack (expected 5)");
            return false;
        }
        return !PyErr_Occurred();
    }
    PyObject* operator[](int i) const { return value_[i]; }

  private:
    PyObject* value_[5] = {};
    Owned held_[5];
};

// value itself when it is an int already, else int(value).
PyObject* as_int(PyObject* value) {
    return PyLong_CheckExact(value) ? Py_NewRef(value) : PyNumber_Long(value);
}

// end >= start for two ints: 1 or 0, or -1 with an error set.
int ends_after(PyObject* start, PyObject* end) {
    int start_overflow = 0, end_overflow = 0;
    const long long s = PyLong_AsLongLongAndOverflow(start, &start_overflow);
    const long long e = PyLong_AsLongLongAndOverflow(end, &end_overflow);
    if (!start_overflow && !end_overflow) return e >= s ? 1 : 0;
    return PyObject_RichCompareBool(end, start, Py_GE);
}

// floor(a / b) for b > 0.
int64_t floor_div(int64_t a, int64_t b) {
    const int64_t quotient = a / b;
    return (a % b != 0 && a < 0) ? quotient - 1 : quotient;
}

// One candidate: its row id (as int64 when it fits, else the int itself, `overflow`
// telling its sign) and its segment.
struct Entry {
    int64_t key;
    int overflow;
    Owned big;
    Owned segment;
};

bool before(const Entry& a, const Entry& b) {
    if (a.overflow != b.overflow) return a.overflow < b.overflow;
    if (a.overflow == 0) return a.key < b.key;
    return PyObject_RichCompareBool(a.big.get(), b.big.get(), Py_LT) == 1;  // ints: never fails
}

struct Group {
    Owned file_id;
    std::vector<Entry> entries;
    bool in_order = true;
};

// The candidates per file, in the order files first appear among the rows.
class Found {
  public:
    // The group of a file id that fits int64, made when first seen.
    Group* group(int64_t file_id) {
        if (last_ != nullptr && last_id_ == file_id && !last_big_) return last_;
        auto [at, fresh] = small_.try_emplace(file_id, groups_.size());
        if (fresh) {
            Owned id(PyLong_FromLongLong(file_id));
            if (!id) {
                small_.erase(at);
                return nullptr;
            }
            groups_.push_back(Group{std::move(id), {}, true});
        }
        last_ = &groups_[at->second];
        last_id_ = file_id;
        last_big_ = false;
        return last_;
    }

    // The group of a file id beyond int64 (only a row id past any SQLite one gives it).
    Group* group(PyObject* file_id) {
        if (!big_) {
            big_ = Owned(PyDict_New());
            if (!big_) return nullptr;
        }
        PyObject* index = PyDict_GetItemWithError(big_.get(), file_id);
        if (index == nullptr) {
            if (PyErr_Occurred()) return nullptr;
            Owned position(PyLong_FromSize_t(groups_.size()));
            if (!position || PyDict_SetItem(big_.get(), file_id, position.get()) < 0) return nullptr;
            groups_.push_back(Group{Owned::borrow(file_id), {}, true});
            index = position.get();
        }
        last_ = &groups_[PyLong_AsSize_t(index)];
        last_big_ = true;
        return last_;
    }

    static void add(Group* group, Entry entry) {
        if (!group->entries.empty() && before(entry, group->entries.back())) group->in_order = false;
        group->entries.push_back(std::move(entry));
    }

    // {file id: [segment, ...]} with each file's segments by row id (a stable sort).
    PyObject* result() {
        Owned mapping(PyDict_New());
        if (!mapping) return nullptr;
        for (Group& group : groups_) {
            if (!group.in_order) std::stable_sort(group.entries.begin(), group.entries.end(), before);
            const auto count = static_cast<Py_ssize_t>(group.entries.size());
            Owned segments(PyList_New(count));
            if (!segments) return nullptr;
            for (Py_ssize_t i = 0; i < count; ++i) {
                PyList_SET_ITEM(segments.get(), i, group.entries[static_cast<size_t>(i)].segment.release());
            }
            if (PyDict_SetItem(mapping.get(), group.file_id.get(), segments.get()) < 0) return nullptr;
        }
        return mapping.release();
    }

  private:
    std::vector<Group> groups_;
    std::unordered_map<int64_t, size_t> small_;
    Owned big_;
    Group* last_ = nullptr;
    int64_t last_id_ = 0;
    bool last_big_ = false;
};

// Files one chunk row into `found` when its file is searched; false with an error set.
bool take_row(ModuleState* state, const Searched& searched, Found& found, PyObject* row) {
    RowValues values;
    if (!values.unpack(row)) return false;

    Owned rowid(as_int(values[0]));
    if (!rowid) return false;
    int overflow = 0;
    const long long key = PyLong_AsLongLongAndOverflow(rowid.get(), &overflow);
    if (key == -1 && PyErr_Occurred()) return false;
    Group* group = nullptr;
    if (!overflow) {
        const int64_t file_id = floor_div(key, state->stride_value);
        const int wanted = searched.contains(file_id);
        if (wanted <= 0) return wanted == 0;
        group = found.group(file_id);
    } else {
        Owned file_id(PyNumber_FloorDivide(rowid.get(), state->stride));
        if (!file_id) return false;
        int file_overflow = 0;
        const long long small_id = PyLong_AsLongLongAndOverflow(file_id.get(), &file_overflow);
        const int wanted = file_overflow ? searched.contains(file_id.get()) : searched.contains(small_id);
        if (wanted <= 0) return wanted == 0;
        group = file_overflow ? found.group(file_id.get()) : found.group(small_id);
    }
    if (group == nullptr) return false;

    Owned start(as_int(values[1]));
    Owned end(start ? as_int(values[2]) : nullptr);
    Owned text(end ? (PyUnicode_CheckExact(values[3]) ? Py_NewRef(values[3]) : PyObject_Str(values[3]))
                   : nullptr);
    if (!text || PyUnicode_READY(text.get()) < 0) return false;
    const int has_lines = ends_after(start.get(), end.get());
    if (has_lines < 0) return false;
    Owned lines(has_lines ? lf_pieces(text.get()) : PyList_New(0));
    if (!lines) return false;
    const int last = PyObject_IsTrue(values[4]);
    if (last < 0) return false;
    Owned segment(new_segment(state, start.get(), lines.get(), last != 0));
    if (!segment) return false;
    Found::add(group, Entry{overflow ? 0 : key, overflow, overflow ? std::move(rowid) : Owned(),
                            std::move(segment)});
    return true;
}

bool take_rows(ModuleState* state, const Searched& searched, Found& found, PyObject* rows) {
    SignalCountdown countdown;  // an index may hand over millions of rows
    if (PyList_CheckExact(rows)) {
        // Indexed, as the list iterator does: the list may change under a callback.
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rows); ++i) {
            Owned row(Py_NewRef(PyList_GET_ITEM(rows, i)));
            if (!take_row(state, searched, found, row.get()) || !countdown.pass_item(0)) return false;
        }
        return true;
    }
    Owned iterator(PyObject_GetIter(rows));
    if (!iterator) return false;
    while (Owned row{PyIter_Next(iterator.get())}) {
        if (!take_row(state, searched, found, row.get()) || !countdown.pass_item(0)) return false;
    }
    return !PyErr_Occurred();
}

PyObject* candidate_chunks_function(PyObject* module, PyObject* const* args, Py_ssize_t nargs,
                                    PyObject* kwnames) {
    static const Params<5> params{{"db", "store", "files", "needle", "case_sensitive"},
                                  "_candidate_chunks"};
    std::array<PyObject*, 5> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    return candidate_chunks(module_state(module), a[0], a[1], a[2], a[3], a[4]);
}

}  // namespace

PyObject* candidate_chunks(ModuleState* state, PyObject* db, PyObject* store, PyObject* files,
                           PyObject* needle, PyObject* case_sensitive) {
    try {
        Searched searched;
        if (!searched.build(files)) return nullptr;
        const int narrow = narrows(needle, case_sensitive);
        if (narrow < 0) return nullptr;
        Owned rows(fetch_rows(state, db, store, searched.set(), needle, narrow != 0));
        if (!rows || !searched.index_ints()) return nullptr;
        Found found;
        if (!take_rows(state, searched, found, rows.get())) return nullptr;
        return found.result();
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
}

PyMethodDef candidate_chunks_def = {
    "_candidate_chunks",
    method_function(candidate_chunks_function),
    METH_FASTCALL | METH_KEYWORDS,
    "_candidate_chunks($module, /, db, store, files, needle, case_sensitive)\n--\n\n"
    "The chunks of the searched files that may hold a match, per file, by line.\n"
    "\n"
    "    A plain needle is looked up in the index's trigram index, unless the index cannot answer\n"
    "    for it: a regex reads every chunk of the searched files; so does a needle holding a NUL\n"
    "    (the index holds a NUL as a space), and a needle of a search that ignores case with a\n"
    "    character beyond ASCII (``LIKE`` folds the case of ASCII letters only). The one miss: a\n"
    "    search that ignores case for an ASCII needle does not find it where only a letter beyond\n"
    "    ASCII lower-cases to it (the Kelvin sign to \"k\", a capital I with a dot above to \"i\").\n"
    "\n"
    "    Args:\n"
    "        db: The index database.\n"
    "        store: The layout of the index's chunks.\n"
    "        files: The files searched.\n"
    "        needle: The text a plain search looks for (lower-case when the search ignores case);\n"
    "            None for a regex.\n"
    "        case_sensitive: Whether ``needle`` keeps its case.\n"
    "\n"
    "    Returns:\n"
    "        The candidate chunks of each file that has any, as segments in line order.\n"
    "    "};

}  // namespace velmora::py
