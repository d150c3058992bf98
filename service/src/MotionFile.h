#pragma once
// The motion records of the trips one SQLite file keeps. One connection, serialised by a mutex;
// a second connection on a thread of its own copies the write-ahead log back into the file, so
// that no request waits for that copy and its syncs.

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Storage.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kestrelvue::service {

class MotionFile {
public:
    MotionFile() = default;
    ~MotionFile();
    MotionFile(const MotionFile&) = delete;
    MotionFile& operator=(const MotionFile&) = delete;

    /// Opens (creating or upgrading when needed) the records' tables in `path`.
    bool open(const std::string& path, std::string& error);
    /// As Storage::addPoints.
    std::optional<std::size_t> add(const std::string& guid, std::int64_t userID,
                                   const std::vector<PointRow>& points);
    /// A trip's records in their arrival order.
    std::vector<PointRow> points(const std::string& guid);
    /// The identifiers of the trips the file has records of.
    std::vector<std::string> trips();
    bool hasRecords();
    /// The number of the database the file is one of; 0 when it has none yet.
    std::int64_t databaseNumber();
    bool setDatabaseNumber(std::int64_t number);

private:
    /// Moves the records of a file written before they were kept by their key alone.
    bool upgradePoints(std::string& error);
    /// The insert of one point, or of kRowsPerInsert points, prepared once.
    sqlite3_stmt* prepared(std::size_t rows);
    static constexpr std::size_t kRowsPerInsert = 32;
    /// Called after each commit with the log's length in pages; wakes the checkpointer.
    static int committed(void* self, sqlite3* db, const char* schema, int pages);
    void checkpointLoop();

    std::mutex mutex_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt *insertOne_ = nullptr, *insertMany_ = nullptr;
    /// The arrival number of the next record stored: a route lists its records in arrival order.
    std::int64_t nextArrival_ = 1;
    std::string path_;
    std::thread checkpointer_;
    std::mutex checkpointMutex_;
    std::condition_variable checkpointWake_;
    bool checkpointDue_ = false, stopping_ = false;
};

}  // namespace kestrelvue::service
