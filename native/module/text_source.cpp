// text_source: where a search reads its files, the chunks of the index or the disk, and
// why it reads from disk when it must.
#include "module/args.hpp"
#include "module/definitions.hpp"

namespace velmora::py {
namespace {

constexpr const char* kNoTable =
    "read from the files on disk: this index has no table of the files' text";

// The statements of the code_chunks layout. The last flag holds when no chunk has the
// next row id: a file has fewer chunks than the stride, so that id is never another
// file's first.
constexpr const char* kCandidatesAll =
    "SELECT c.rowid, c.start_line, c.end_line, coalesce(c.exact, c.text), "
    "NOT EXISTS (SELECT 1 FROM code_chunks n WHERE n.rowid = c.rowid + 1) FROM code_chunks c";
constexpr const char* kCandidatesLike =
    "SELECT c.rowid, c.start_line, c.end_line, coalesce(c.exact, c.text), "
    "NOT EXISTS (SELECT 1 FROM code_chunks n WHERE n.rowid = c.rowid + 1) FROM code_chunks c "
    "WHERE c.text LIKE ?";
constexpr const char* kFileChunks =
    "SELECT start_line, end_line, coalesce(exact, text) FROM code_chunks "
    "WHERE rowid >= ? AND rowid < ? ORDER BY rowid";

// The repository root: the database file lies two directories below it.
PyObject* repo_root(PyObject* db) {
    // Interned names: the host's type cache keeps the name it is asked with, and a new copy
    // per call would take a new slot of it each time.
    Owned db_path(PyUnicode_InternFromString("db_path"));
    Owned parent(db_path ? PyUnicode_InternFromString("parent") : nullptr);
    Owned path(parent ? PyObject_GetAttr(db, db_path.get()) : nullptr);
    for (int up = 0; up < 3 && path; ++up) path = Owned(PyObject_GetAttr(path.get(), parent.get()));
    return path.release();
}

PyObject* text_source(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static const Params<5> params{
        {"db", "files", "needle", "case_sensitive", "store"}, "text_source", 4, 5};
    std::array<PyObject*, 5> a;
    if (!params.parse(args, nargs, kwnames, a)) return nullptr;
    ModuleState* state = module_state(module);
    PyObject *db = a[0], *files = a[1], *needle = a[2], *case_sensitive = a[3], *store = a[4];

    // Made first, so that every answer holds or is this one DiskText.
    Owned root(repo_root(db));
    if (!root) return nullptr;
    PyObject* disk_args[] = {root.get(), needle, case_sensitive};
    Owned disk(PyObject_Vectorcall(state->disk_text_type, disk_args, 3, nullptr));
    if (!disk) return nullptr;
    if (store == Py_None) {
        Owned reason(PyUnicode_FromString(kNoTable));
        return reason ? PyTuple_Pack(2, disk.get(), reason.get()) : nullptr;
    }

    Owned probe(chunk_state(state, db, store));
    if (!probe) return nullptr;
    PyObject* unchunked = PyTuple_GET_ITEM(probe.get(), 0);
    PyObject* on_disk = PyTuple_GET_ITEM(probe.get(), 1);
    const int lacking = PyObject_IsTrue(unchunked);  // an int: true when not zero
    if (lacking < 0) return nullptr;
    if (lacking) {
        Owned reason(PyUnicode_FromFormat(
            "read from the files on disk: %S indexed file(s) have no chunks yet "
            "(the next index pass parses them)",
            unchunked));
        return reason ? PyTuple_Pack(2, disk.get(), reason.get()) : nullptr;
    }

    Owned candidates(candidate_chunks(state, db, store, files, needle, case_sensitive));
    if (!candidates) return nullptr;
    Owned source(new_chunk_text(state, db, store, candidates.get(), disk.get(), on_disk));
    return source ? PyTuple_Pack(2, source.get(), Py_None) : nullptr;
}

}  // namespace

int init_index_side(ModuleState* state) {
    state->name_fetchone = PyUnicode_InternFromString("fetchone");
    state->name_fetchall = PyUnicode_InternFromString("fetchall");
    state->name_segments = PyUnicode_InternFromString("segments");
    state->name_lines = PyUnicode_InternFromString("lines");
    state->name_compressed_table = PyUnicode_InternFromString("COMPRESSED_TABLE");
    state->name_trigram_query = PyUnicode_InternFromString("trigram_query");
    state->name_matching_rows = PyUnicode_InternFromString("matching_rows");
    state->name_file_rows = PyUnicode_InternFromString("file_rows");
    state->sql_candidates_like = PyUnicode_FromString(kCandidatesLike);
    state->sql_candidates_all = PyUnicode_FromString(kCandidatesAll);
    state->sql_file_chunks = PyUnicode_FromString(kFileChunks);
    return state->name_fetchone && state->name_fetchall && state->name_segments &&
                   state->name_lines && state->name_compressed_table &&
                   state->name_trigram_query && state->name_matching_rows &&
                   state->name_file_rows && state->sql_candidates_like &&
                   state->sql_candidates_all && state->sql_file_chunks
               ? 0
               : -1;
}

PyMethodDef text_source_def = {
    "text_source", method_function(text_source),
    METH_FASTCALL | METH_KEYWORDS,
    "text_source($module, /, db, files, needle, case_sensitive, *, store)\n--\n\n"
    "Where a text search reads the files: their chunks in the index, or the disk.\n"
    "\n"
    "    Args:\n"
    "        db: The index database.\n"
    "        files: The files searched.\n"
    "        needle: The text a plain search looks for (lower-case when the search ignores case);\n"
    "            None for a regex.\n"
    "        case_sensitive: Whether ``needle`` keeps its case.\n"
    "        store: The layout of the index's chunks, as ``chunk_store.layout`` gives it; None when\n"
    "            the index has none.\n"
    "\n"
    "    Returns:\n"
    "        The text, and why every file is read from disk (None when the index answers).\n"
    "    "};

}  // namespace velmora::py
