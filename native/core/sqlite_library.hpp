// Whether this code and another loaded module use one SQLite library. Two copies of SQLite
// in one process each keep their own table of POSIX locks, and a connection of one closing
// the index file drops the other's locks on it: a native reader is safe only beside the
// interpreter's own SQLite.
#pragma once

#include <string>

namespace velmora::core {

// Whether the module at `module_path`, already loaded, calls the very SQLite this code calls.
bool shares_sqlite_with(const std::string& module_path);

}  // namespace velmora::core
