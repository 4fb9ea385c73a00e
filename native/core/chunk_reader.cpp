#include "core/chunk_reader.hpp"

#include <sqlite3.h>

#include <algorithm>

namespace velmora::core {

// How long a read waits out another connection's lock, as the host's own connection does.
constexpr int kBusyMilliseconds = 5000;

std::vector<IdRange> id_ranges(const std::vector<int64_t>& ids, bool whole_files, int64_t stride) {
    std::vector<IdRange> ranges;
    for (const int64_t id : ids) {
        if (whole_files) {
            int64_t low = 0, last = 0;
            if (!__builtin_mul_overflow(id, stride, &low) && !__builtin_add_overflow(low, stride - 1, &last)) {
                ranges.push_back({low, last});
            }
        } else if (!ranges.empty() && ranges.back().last != INT64_MAX && ranges.back().last + 1 == id) {
            ranges.back().last = id;
        } else {
            ranges.push_back({id, id});
        }
    }
    return ranges;
}

class ChunkReader::Connection {
  public:
    ~Connection() {
        // Statements first: a connection with statements left cannot close.
        for (sqlite3_stmt* statement : {rows_, begin_, end_}) sqlite3_finalize(statement);
        sqlite3_close(db_);
    }

    ReadError open(const std::string& path, const std::string& table) {
        const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW;
        if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) return failure();
        sqlite3_extended_result_codes(db_, 1);
        sqlite3_busy_timeout(db_, kBusyMilliseconds);
        const std::string select =
            "SELECT id, start_line, end_line, body FROM \"" + table + "\" WHERE id BETWEEN ?1 AND ?2 ORDER BY id";
        if (sqlite3_exec(db_, "PRAGMA query_only = 1", nullptr, nullptr, nullptr) != SQLITE_OK ||
            !prepare(select.c_str(), rows_) || !prepare("BEGIN", begin_) || !prepare("COMMIT", end_)) {
            return failure();
        }
        return {};
    }

    ReadError read(const std::vector<IdRange>& ranges, ChunkRows& out) {
        Transaction transaction(*this);
        if (sqlite3_step(begin_) != SQLITE_DONE) return failure();
        for (const IdRange& range : ranges) {
            sqlite3_bind_int64(rows_, 1, range.low);
            sqlite3_bind_int64(rows_, 2, range.last);
            int step;
            while ((step = sqlite3_step(rows_)) == SQLITE_ROW) append_row(out);
            if (step != SQLITE_DONE) return failure();
            sqlite3_reset(rows_);
        }
        return {};
    }

    ReadError matching_ids(const std::string& fts_table, const std::string& match, std::vector<int64_t>& out) {
        const std::string select = "SELECT rowid FROM \"" + fts_table + "\" WHERE \"" + fts_table + "\" MATCH ?1";
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db_, select.c_str(), -1, &statement, nullptr) != SQLITE_OK) return failure();
        struct Finalized {
            sqlite3_stmt* statement;
            ~Finalized() { sqlite3_finalize(statement); }
        } finalized{statement};
        sqlite3_bind_text(statement, 1, match.data(), static_cast<int>(match.size()), SQLITE_STATIC);
        int step;
        while ((step = sqlite3_step(statement)) == SQLITE_ROW) out.push_back(sqlite3_column_int64(statement, 0));
        if (step != SQLITE_DONE) return failure();
        std::sort(out.begin(), out.end());
        return {};
    }

  private:
    // Ends the read transaction and readies the statements for the next read, however the
    // read ended.
    class Transaction {
      public:
        explicit Transaction(Connection& connection) : connection_(connection) {}
        ~Transaction() {
            sqlite3_reset(connection_.rows_);
            sqlite3_reset(connection_.begin_);
            if (!sqlite3_get_autocommit(connection_.db_)) {
                sqlite3_step(connection_.end_);
                sqlite3_reset(connection_.end_);
            }
        }
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;

      private:
        Connection& connection_;
    };

    bool prepare(const char* sql, sqlite3_stmt*& statement) {
        return sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) == SQLITE_OK;
    }

    ReadError failure() const {
        if (db_ == nullptr) return {SQLITE_NOMEM, "out of memory"};
        return {sqlite3_extended_errcode(db_), sqlite3_errmsg(db_)};
    }

    void append_row(ChunkRows& out) {
        ChunkRow row{};
        row.id = sqlite3_column_int64(rows_, 0);
        row.first_type = sqlite3_column_type(rows_, 1);
        row.end_type = sqlite3_column_type(rows_, 2);
        row.body_type = sqlite3_column_type(rows_, 3);
        if (row.first_type == SQLITE_INTEGER) row.first = sqlite3_column_int64(rows_, 1);
        if (row.end_type == SQLITE_INTEGER) row.end = sqlite3_column_int64(rows_, 2);
        row.begin = out.bodies.size();
        if (row.body_type == SQLITE_BLOB) {
            const void* body = sqlite3_column_blob(rows_, 3);
            row.size = static_cast<size_t>(sqlite3_column_bytes(rows_, 3));
            if (body != nullptr) out.bodies.append(static_cast<const char*>(body), row.size);
        }
        out.rows.push_back(row);
    }

    sqlite3* db_ = nullptr;
    sqlite3_stmt* rows_ = nullptr;
    sqlite3_stmt* begin_ = nullptr;
    sqlite3_stmt* end_ = nullptr;
};

ChunkReader::ChunkReader(const std::string& path, const std::string& table, size_t connections,
                         ReadError& error) {
    idle_.reserve(connections);
    for (size_t i = 0; i < connections && !error; ++i) {
        idle_.push_back(new Connection());
        error = idle_.back()->open(path, table);
    }
    if (error) close();
}

ChunkReader::~ChunkReader() { close(); }

template <class Read>
ReadError ChunkReader::lent(Read&& read) {
    Connection* connection = acquire();
    if (connection == nullptr) return {SQLITE_MISUSE, "the index was closed"};
    struct Lent {
        ChunkReader& reader;
        Connection* connection;
        ~Lent() { reader.release(connection); }
    } lent{*this, connection};
    return read(*connection);
}

ReadError ChunkReader::read(const std::vector<IdRange>& ranges, ChunkRows& out) {
    return lent([&](Connection& connection) { return connection.read(ranges, out); });
}

ReadError ChunkReader::matching_ids(const std::string& fts_table, const std::string& match,
                                    std::vector<int64_t>& out) {
    return lent([&](Connection& connection) { return connection.matching_ids(fts_table, match, out); });
}

void ChunkReader::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    for (Connection* connection : idle_) delete connection;
    idle_.clear();
    returned_.notify_all();
}

ChunkReader::Connection* ChunkReader::acquire() {
    std::unique_lock<std::mutex> lock(mutex_);
    returned_.wait(lock, [this] { return closed_ || !idle_.empty(); });
    if (closed_) return nullptr;
    Connection* connection = idle_.back();
    idle_.pop_back();
    return connection;
}

void ChunkReader::release(Connection* connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) {
        delete connection;
        return;
    }
    idle_.push_back(connection);
    returned_.notify_one();
}

}  // namespace velmora::core
