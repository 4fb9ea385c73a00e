// What the files of the binding offer one another: the module's functions (as method
// definitions, added to the module in its load order by module.cpp), the types' definitions,
// and the few routines that more than one concern shares.
#pragma once

#include "module/owned.hpp"
#include "module/state.hpp"

namespace velmora::py {

// Functions of the module.
extern PyMethodDef code_chunks_def;
extern PyMethodDef stored_text_bytes_def;
extern PyMethodDef text_kept_on_disk_def;
extern PyMethodDef file_rowids_def;
extern PyMethodDef keep_large_data_on_disk_def;
extern PyMethodDef chunk_lines_def;

// Records: Segment is a named tuple, made once per load.
PyObject* make_segment_type(PyObject* module);
// A new Segment(first, lines, last); `lines` is taken as it is (a reference is added).
PyObject* new_segment(ModuleState* state, PyObject* first, PyObject* lines, bool last);
// FileRow: tuple[int, str, str, str | None].
PyObject* make_file_row_alias();

// Shared routines.
// row[index], the host's subscription, without a call for an exact tuple.
PyObject* item(PyObject* row, Py_ssize_t index);
// (file_id * stride, (file_id + 1) * stride).
PyObject* row_id_range(ModuleState* state, PyObject* file_id);
// The lines of a stored chunk: text split at LF when end_line >= start_line, else [].
PyObject* lines_of_chunk(PyObject* start_line, PyObject* end_line, PyObject* text);
// text_kept_on_disk on already parsed arguments: 1, 0, or -1 with an error set.
int kept_on_disk(ModuleState* state, PyObject* language, PyObject* text_bytes);

}  // namespace velmora::py

namespace velmora::py {
// The migration's selecting statement, for `languages` placeholders.
PyObject* select_large_data_sql(PyObject* chunked_text_bytes_sql, Py_ssize_t languages);
}  // namespace velmora::py

namespace velmora::py {
// The index side: what a search reads out of the index.
extern PyMethodDef text_source_def;
extern PyMethodDef chunk_state_def;
extern PyMethodDef candidate_chunks_def;
// Fills the index side's names and statements into the state.
int init_index_side(ModuleState* state);
PyObject* make_chunk_text_type(PyObject* module);
// The bodies of _chunk_state, _candidate_chunks and ChunkText(...), on parsed arguments.
PyObject* chunk_state(ModuleState* state, PyObject* db, PyObject* store);
PyObject* candidate_chunks(ModuleState* state, PyObject* db, PyObject* store, PyObject* files,
                           PyObject* needle, PyObject* case_sensitive);
PyObject* new_chunk_text(ModuleState* state, PyObject* db, PyObject* store, PyObject* candidates,
                         PyObject* disk, PyObject* on_disk);
// store == "compressed": 1 or 0, or -1 with an error set.
int is_compressed(ModuleState* state, PyObject* store);
}  // namespace velmora::py

namespace velmora::py {
// The disk side: reading files, matching lines, cutting context, DiskText.
extern PyMethodDef file_text_def;
extern PyMethodDef lines_holding_def;
extern PyMethodDef line_matches_def;
extern PyMethodDef context_def;
// Fills the disk side's names into the state.
int intern_disk_names(ModuleState* state);
PyObject* make_line_matches_type(PyObject* module);
PyObject* make_disk_text_type(PyObject* module);
// _lines_holding(path, needle, case_sensitive), reading through the module's own
// read_bytes_no_follow.
PyObject* lines_holding(PyObject* module, PyObject* path, PyObject* needle, PyObject* case_sensitive);
}  // namespace velmora::py
