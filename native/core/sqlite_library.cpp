#include "core/sqlite_library.hpp"

#include <dlfcn.h>
#include <sqlite3.h>

namespace velmora::core {

bool shares_sqlite_with(const std::string& module_path) {
    void* module = dlopen(module_path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (module == nullptr) return false;
    // The module binds a symbol as the loader does: from the process's global scope first,
    // then from its own dependencies.
    void* theirs = dlsym(RTLD_DEFAULT, "sqlite3_libversion");
    if (theirs == nullptr) theirs = dlsym(module, "sqlite3_libversion");
    dlclose(module);
    return theirs != nullptr && theirs == reinterpret_cast<void*>(&sqlite3_libversion);
}

}  // namespace velmora::core
