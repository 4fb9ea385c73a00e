// The large-data rule (which files keep their text on disk) and the migration step that
// applies it to an index made before the rule.
#include "module/args.hpp"
#include "module/definitions.hpp"

namespace velmora::py {
namespace {

constexpr const char* kProbeSql =
    "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'code_chunks'";
constexpr const char* kDeleteSql = "DELETE FROM code_chunks WHERE rowid >= ? AND rowid < ?";
constexpr const char* kFlagSql = "UPDATE files SET text_on_disk = 1 WHERE id = ?";

// object.<name>(args...), by an interned name: the host's type cache keeps the name it is
// asked with, and a new copy per call would take a new slot of it each time.
template <class... Args>
PyObject* call_method(PyObject* object, const char* name, Args... args) {
    Owned method(PyUnicode_InternFromString(name));
    return method ? PyObject_CallMethodObjArgs(object, method.get(), args..., nullptr) : nullptr;
}

// cursor.execute(sql[, parameters]).<fetch>()
PyObject* execute_and_fetch(PyObject* cursor, const char* sql, PyObject* parameters,
                            const char* fetch) {
    Owned statement(PyUnicode_FromString(sql));
    if (!statement) return nullptr;
    Owned executed(parameters ? call_method(cursor, "execute", statement.get(), parameters)
                              : call_method(cursor, "execute", statement.get()));
    if (!executed) return nullptr;
    return call_method(executed.get(), fetch);
}

// The ids of the selected files that the rule sends to disk, in row order.
PyObject* marked_ids(ModuleState* state, PyObject* rows) {
    Owned marked(PyList_New(0));
    Owned iterator(marked ? PyObject_GetIter(rows) : nullptr);
    if (!iterator) return nullptr;
    while (Owned row{PyIter_Next(iterator.get())}) {
        Owned id_value(item(row.get(), 0));
        Owned id(id_value ? PyNumber_Long(id_value.get()) : nullptr);
        Owned language_value(id ? item(row.get(), 1) : nullptr);
        Owned language(language_value ? PyObject_Str(language_value.get()) : nullptr);
        Owned size_value(language ? item(row.get(), 2) : nullptr);
        Owned size(size_value ? PyNumber_Long(size_value.get()) : nullptr);
        if (!size) return nullptr;
        const int kept = kept_on_disk(state, language.get(), size.get());
        if (kept < 0 || (kept && PyList_Append(marked.get(), id.get()) < 0)) return nullptr;
    }
    return PyErr_Occurred() ? nullptr : marked.release();
}

bool drop_chunks(ModuleState* state, PyObject* cursor, PyObject* marked) {
    Owned statement(PyUnicode_FromString(kDeleteSql));
    if (!statement) return false;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(marked); ++i) {
        Owned range(row_id_range(state, PyList_GET_ITEM(marked, i)));
        Owned done(range ? call_method(cursor, "execute", statement.get(), range.get()) : nullptr);
        if (!done) return false;
    }
    return true;
}

bool flag_on_disk(PyObject* cursor, PyObject* marked) {
    const Py_ssize_t count = PyList_GET_SIZE(marked);
    Owned parameters(PyList_New(count));
    if (!parameters) return false;
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyObject* row = PyTuple_Pack(1, PyList_GET_ITEM(marked, i));
        if (row == nullptr) return false;
        PyList_SET_ITEM(parameters.get(), i, row);
    }
    Owned statement(PyUnicode_FromString(kFlagSql));
    Owned done(statement ? call_method(cursor, "executemany", statement.get(), parameters.get()) : nullptr);
    return static_cast<bool>(done);
}

PyObject* text_kept_on_disk(PyObject* module, PyObject* const* args, Py_ssize_t nargs,
                            PyObject* kwnames) {
    static const Params<2> params{{"language", "text_bytes"}, "text_kept_on_disk"};
    std::array<PyObject*, 2> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    const int kept = kept_on_disk(module_state(module), a[0], a[1]);
    return kept < 0 ? nullptr : PyBool_FromLong(kept);
}

PyObject* keep_large_data_on_disk(PyObject* module, PyObject* const* args, Py_ssize_t nargs,
                                  PyObject* kwnames) {
    static const Params<1> params{{"cursor"}, "keep_large_data_on_disk"};
    std::array<PyObject*, 1> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    ModuleState* state = module_state(module);
    PyObject* cursor = a[0];

    Owned probe(execute_and_fetch(cursor, kProbeSql, nullptr, "fetchone"));
    if (!probe) return nullptr;
    if (probe.get() == Py_None) return PyLong_FromLong(0);

    Owned languages(PySequence_List(state->large_data_languages));
    if (!languages || PyList_Sort(languages.get()) < 0) return nullptr;
    const char* select = PyUnicode_AsUTF8(state->select_large_data_sql);
    Owned rows(select ? execute_and_fetch(cursor, select, languages.get(), "fetchall") : nullptr);
    Owned marked(rows ? marked_ids(state, rows.get()) : nullptr);
    if (!marked || !drop_chunks(state, cursor, marked.get()) || !flag_on_disk(cursor, marked.get())) {
        return nullptr;
    }
    return PyLong_FromSsize_t(PyList_GET_SIZE(marked.get()));
}

}  // namespace

int kept_on_disk(ModuleState* state, PyObject* language, PyObject* text_bytes) {
    const int covered = PySequence_Contains(state->large_data_languages, language);
    if (covered <= 0) return covered;
    return PyObject_RichCompareBool(text_bytes, state->large_data_text_bytes, Py_GT);
}

PyObject* select_large_data_sql(PyObject* chunked_text_bytes_sql, Py_ssize_t languages) {
    Owned placeholders(PyUnicode_FromString(""));
    for (Py_ssize_t i = 0; placeholders && i < languages; ++i) {
        placeholders = Owned(PyUnicode_FromFormat("%U%s?", placeholders.get(), i ? "," : ""));
    }
    if (!placeholders) return nullptr;
    return PyUnicode_FromFormat("SELECT f.id, f.language, %U FROM files f WHERE f.text_on_disk = 0 "
                                "AND f.language IN (%U)",
                                chunked_text_bytes_sql, placeholders.get());
}

PyMethodDef text_kept_on_disk_def = {
    "text_kept_on_disk",
    method_function(text_kept_on_disk),
    METH_FASTCALL | METH_KEYWORDS,
    "text_kept_on_disk($module, /, language, text_bytes)\n--\n\n"
    "Whether the index keeps a file's text on disk rather than in its chunks.\n"
    "\n"
    "    Args:\n"
    "        language: The file's language.\n"
    "        text_bytes: The file's stored size (``stored_text_bytes`` of its text).\n"
    "\n"
    "    Returns:\n"
    "        True for a large data file: a language of ``LARGE_DATA_LANGUAGES`` over\n"
    "        ``LARGE_DATA_TEXT_BYTES``.\n"
    "    "};

PyMethodDef keep_large_data_on_disk_def = {
    "keep_large_data_on_disk",
    method_function(keep_large_data_on_disk),
    METH_FASTCALL | METH_KEYWORDS,
    "keep_large_data_on_disk($module, /, cursor)\n--\n\n"
    "Drop the chunks of the large data files and mark their text as kept on disk.\n"
    "\n"
    "    Args:\n"
    "        cursor: A cursor of the index, inside the caller's transaction.\n"
    "\n"
    "    Returns:\n"
    "        How many files were marked; 0 for an index without ``code_chunks``.\n"
    "    "};

}  // namespace velmora::py
