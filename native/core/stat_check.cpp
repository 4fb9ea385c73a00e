#include "core/stat_check.hpp"

#include <sys/stat.h>

namespace velmora::core {

std::vector<uint8_t> stat_changes(const std::string& prefix, const std::vector<RecordedFile>& files,
                                  int64_t racy_from) {
    std::vector<uint8_t> changes(files.size(), 0);
    std::string location = prefix;
    for (size_t i = 0; i < files.size(); ++i) {
        const RecordedFile& file = files[i];
        location.resize(prefix.size());
        location += file.path;
        struct stat info;
        if (file.path.find('\0') != std::string::npos || lstat(location.c_str(), &info) != 0) {
            changes[i] = missing;
            continue;
        }
        uint8_t change = S_ISREG(info.st_mode) ? 0 : not_a_file;
        // An mtime past what 64 bits of nanoseconds hold matches no recorded one.
        int64_t mtime_ns = 0;
        const bool in_range = !__builtin_mul_overflow(int64_t(info.st_mtim.tv_sec), int64_t(1000000000), &mtime_ns) &&
                              !__builtin_add_overflow(mtime_ns, int64_t(info.st_mtim.tv_nsec), &mtime_ns);
        if (!file.stamped || !in_range || file.size != int64_t(info.st_size) || file.mtime_ns != mtime_ns ||
            uint64_t(file.inode) != uint64_t(info.st_ino) || file.mtime_ns >= racy_from) {
            change |= stamp_differs;
        }
        changes[i] = change;
    }
    return changes;
}

}  // namespace velmora::core
