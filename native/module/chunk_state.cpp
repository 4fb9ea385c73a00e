// _chunk_state: the one-row probe a search makes before it lets the index answer.
#include "module/args.hpp"
#include "module/definitions.hpp"
#include "module/text.hpp"

namespace velmora::py {
namespace {

constexpr const char* kHead =
    "SELECT (SELECT COUNT(*) FROM files f WHERE f.text_on_disk = 0 AND NOT EXISTS (SELECT 1 FROM ";

// Everything after the table name: the key column, the first chunk's key, the on-disk ids.
PyObject* probe_tail(ModuleState* state, const char* key) {
    return PyUnicode_FromFormat(
        " c WHERE c.%s = f.id * %S)), (SELECT group_concat(id) FROM files WHERE text_on_disk = 1)",
        key, state->stride);
}

// int(piece) for one piece of the id list: plain digits are read here, anything else
// (signs, blanks, underscores, other digits) the way int() reads it.
template <class Char>
PyObject* parse_id(PyObject* text, const Char* data, size_t begin, size_t end) {
    if (end - begin <= 18) {
        long long value = 0;
        size_t at = begin;
        for (; at < end && data[at] >= '0' && data[at] <= '9'; ++at) value = value * 10 + (data[at] - '0');
        if (at == end) return PyLong_FromLongLong(value);
    }
    Owned piece(substring(text, begin, end));
    return piece ? PyLong_FromUnicodeObject(piece.get(), 10) : nullptr;
}

// The set of the ids in a group_concat text: split at ",", empty pieces dropped.
PyObject* id_set(PyObject* text) {
    Owned ids(PyFrozenSet_New(nullptr));
    if (!ids || PyUnicode_READY(text) < 0) return nullptr;
    const bool ok = visit_text(text, [&](const auto* data, size_t length) {
        size_t begin = 0;
        while (begin <= length) {
            size_t end = begin;
            while (end < length && data[end] != ',') ++end;
            if (end > begin) {
                Owned id(parse_id(text, data, begin, end));
                if (!id || PySet_Add(ids.get(), id.get()) < 0) return false;
            }
            begin = end + 1;
        }
        return true;
    });
    return ok ? ids.release() : nullptr;
}

PyObject* chunk_state_function(PyObject* module, PyObject* const* args, Py_ssize_t nargs,
                               PyObject* kwnames) {
    static const Params<2> params{{"db", "store"}, "_chunk_state"};
    std::array<PyObject*, 2> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    return chunk_state(module_state(module), a[0], a[1]);
}

}  // namespace

PyObject* chunk_state(ModuleState* state, PyObject* db, PyObject* store) {
    const int compressed = is_compressed(state, store);
    if (compressed < 0) return nullptr;
    // The compressed table's name is the sibling's, read on every call.
    Owned table(compressed ? PyObject_GetAttr(state->chunk_store, state->name_compressed_table)
                           : PyUnicode_FromString("code_chunks"));
    if (!table) return nullptr;
    Owned fetchone(PyObject_GetAttr(db, state->name_fetchone));
    if (!fetchone) return nullptr;
    Owned head(PyUnicode_FromString(kHead));
    Owned named(head ? PyNumber_Add(head.get(), table.get()) : nullptr);
    Owned tail(named ? probe_tail(state, compressed ? "id" : "rowid") : nullptr);
    Owned sql(tail ? PyNumber_Add(named.get(), tail.get()) : nullptr);
    if (!sql) return nullptr;

    Owned row(PyObject_CallOneArg(fetchone.get(), sql.get()));
    if (!row) return nullptr;
    if (row.get() == Py_None) {
        Owned none_on_disk(PyFrozenSet_New(nullptr));
        Owned zero(none_on_disk ? PyLong_FromLong(0) : nullptr);
        return zero ? PyTuple_Pack(2, zero.get(), none_on_disk.get()) : nullptr;
    }
    Owned count(item(row.get(), 0));
    Owned unchunked(count ? PyNumber_Long(count.get()) : nullptr);
    Owned listed(unchunked ? item(row.get(), 1) : nullptr);
    if (!listed) return nullptr;
    // NULL (no file on disk), an empty text or zero all mean no ids.
    const int any = PyObject_IsTrue(listed.get());
    if (any < 0) return nullptr;
    Owned text(any ? PyObject_Str(listed.get()) : PyUnicode_FromString(""));
    Owned on_disk(text ? id_set(text.get()) : nullptr);
    if (!on_disk) return nullptr;
    return PyTuple_Pack(2, unchunked.get(), on_disk.get());
}

PyMethodDef chunk_state_def = {
    "_chunk_state",
    method_function(chunk_state_function),
    METH_FASTCALL | METH_KEYWORDS,
    "_chunk_state($module, /, db, store)\n--\n\n"
    "How many indexed files that should have chunks have none (the indexer writes at least one\n"
    "    for every file whose text the index keeps), and the files whose text the index keeps on disk;\n"
    "    one row."};

}  // namespace velmora::py
