// The module's state: every object the binding keeps between calls, listed once so
// that traverse and clear cannot drift from the fields.
#pragma once

#include "module/owned.hpp"

#include <cstdint>

namespace velmora::py {

#define VELMORA_STATE_OBJECTS(X)                                                    \
    X(chunk_store)           /* the sibling module, for names looked up at use */  \
    X(stride)                /* CODE_CHUNK_STRIDE as a Python int */               \
    X(large_data_languages)  /* LARGE_DATA_LANGUAGES */                            \
    X(large_data_text_bytes) /* LARGE_DATA_TEXT_BYTES as a Python int */           \
    X(select_large_data_sql) /* the migration's selecting statement */             \
    X(segment_type)          /* Segment */                                         \
    X(line_matches_type)     /* the iterator line_matches returns */               \
    X(disk_text_type)        /* DiskText */                                        \
    X(chunk_text_type)       /* ChunkText */                                       \
    X(name_fetchone)         /* names the index side calls on host objects */      \
    X(name_fetchall)                                                               \
    X(name_segments)                                                               \
    X(name_lines)                                                                  \
    X(name_compressed_table)                                                       \
    X(name_trigram_query)                                                          \
    X(name_matching_rows)                                                          \
    X(name_file_rows)                                                              \
    X(sql_candidates_like)   /* the statements of the code_chunks layout */        \
    X(sql_candidates_all)                                                          \
    X(sql_file_chunks)                                                             \
    X(str_line)              /* interned keys and names used on hot paths */       \
    X(str_content)                                                                 \
    X(str_compressed)                                                              \
    X(str_read_bytes_no_follow)                                                    \
    X(str_search)            /* names the disk side calls on host objects */       \
    X(str_start)                                                                   \
    X(str_lower)                                                                   \
    X(str_find)                                                                    \
    X(str_decode)                                                                  \
    X(str_splitlines)                                                              \
    X(str_load)                                                                    \
    X(str_utf_8)                                                                   \
    X(str_replace)                                                                 \
    X(decode_kwnames)        /* ("errors",), for decode("utf-8", errors=...) */    \
    X(regex_tools)           /* (re.Pattern, re._parser.parse, LITERAL) */         \
    X(regex_literals)        /* {pattern: text every match holds, or None} */

struct ModuleState {
#define VELMORA_DECLARE(name) PyObject* name;
    VELMORA_STATE_OBJECTS(VELMORA_DECLARE)
#undef VELMORA_DECLARE
    int64_t stride_value;  // the same stride, for arithmetic on row ids that fit
};

inline ModuleState* module_state(PyObject* module) {
    return static_cast<ModuleState*>(PyModule_GetState(module));
}

extern PyModuleDef code_text_module;

// The state of the module that defined `type` (a heap type of this module).
inline ModuleState* type_state(PyTypeObject* type) {
    return module_state(PyType_GetModuleByDef(type, &code_text_module));
}

}  // namespace velmora::py
