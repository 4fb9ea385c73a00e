// The compressed layout's chunk rows read straight from the index file, so that a scan
// thread reads, decodes and searches a group without the interpreter.
//
// A reader holds a few read-only connections, all opened when it is made (one opened later
// could find another file at the path: an index rebuilt meanwhile); each read takes one that
// no other thread uses, and waits for one when all are busy. A group is read in one read
// transaction: one snapshot of the index, as one statement gave it before.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace velmora::core {

// Row ids from `low` to `last`, both included.
struct IdRange {
    int64_t low;
    int64_t last;
};

// The ranges that hold the wanted rows: with `whole_files`, `ids` are file ids and each
// file's rows are [id * stride, (id + 1) * stride); otherwise they are row ids, and runs
// of consecutive ones make one range. Order is kept. A file whose rows' ids would not fit
// in 64 bits has none, and gives no range.
std::vector<IdRange> id_ranges(const std::vector<int64_t>& ids, bool whole_files, int64_t stride);

// One row as read. The types are SQLite's fundamental types of its columns (SQLITE_INTEGER,
// SQLITE_BLOB, ...): the index writes integers and a blob, and a row that holds anything
// else was tampered with, which the caller names as it names such a value elsewhere.
struct ChunkRow {
    int64_t id;
    int64_t first;
    int64_t end;
    size_t begin;  // the body is bodies[begin, begin + size)
    size_t size;
    int first_type;
    int end_type;
    int body_type;
};

struct ChunkRows {
    std::vector<ChunkRow> rows;
    std::string bodies;
};

// Why a connection could not be opened or a read failed: SQLite's extended result code
// and its message.
struct ReadError {
    int code = 0;
    std::string message;
    explicit operator bool() const noexcept { return code != 0; }
};

class ChunkReader {
  public:
    // Opens `connections` read-only connections to the database at `path`, never through a
    // symbolic link, for the rows (id, start_line, end_line, body) of `table`. On failure
    // `error` says why, and every read fails.
    ChunkReader(const std::string& path, const std::string& table, size_t connections, ReadError& error);
    ~ChunkReader();
    ChunkReader(const ChunkReader&) = delete;
    ChunkReader& operator=(const ChunkReader&) = delete;

    // Appends the rows in `ranges` to `out`, range by range, each range's by id. Empty on
    // success. Throws std::bad_alloc when the rows do not fit in memory.
    ReadError read(const std::vector<IdRange>& ranges, ChunkRows& out);

    // The row ids, in order, of the rows that the full-text `match` expression selects in
    // the full-text table `fts_table`. Empty on success.
    ReadError matching_ids(const std::string& fts_table, const std::string& match, std::vector<int64_t>& out);

    // Closes the connections (one in use, when its read ends). Later reads fail.
    void close();

  private:
    class Connection;
    // Runs read(connection) on a connection no other thread uses.
    template <class Read>
    ReadError lent(Read&& read);
    Connection* acquire();
    void release(Connection* connection);

    std::mutex mutex_;
    std::condition_variable returned_;
    std::vector<Connection*> idle_;
    bool closed_ = false;
};

}  // namespace velmora::core
