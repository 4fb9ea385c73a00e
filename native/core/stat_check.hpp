// The freshness check's comparison of files on disk with what the index recorded of them:
// one lstat per file, without Python in the loop.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velmora::core {

// What the index recorded of one file: its path (joined to a prefix) and its stamp.
struct RecordedFile {
    std::string path;
    bool stamped;  // false: the recorded stamp is not three integers (it never matches)
    int64_t size;
    int64_t mtime_ns;
    int64_t inode;
};

// How a file on disk differs from its record; 0 when it does not.
enum StatChange : uint8_t {
    stamp_differs = 1,  // size, mtime or inode differ, or the recorded mtime is racy
    missing = 2,        // lstat failed (or the path cannot name a file)
    not_a_file = 4,     // a directory, a link, ...: not a regular file
};

// The change of each file (one byte each, in order), under ``prefix``. A recorded mtime at
// or after ``racy_from`` proves nothing, and counts as a difference.
std::vector<uint8_t> stat_changes(const std::string& prefix, const std::vector<RecordedFile>& files,
                                  int64_t racy_from);

}  // namespace velmora::core
