#include "MotionFile.h"

#include "Sqlite.h"

namespace kestrelvue::service {
namespace {

constexpr const char* kSchema = R"sql(
-- One b-tree of records ordered by their key: a bulk sent again finds its records where they
-- would go. The key is three integers (the trip's number, the running number, the record time's
-- digits), which compare and store in a fraction of the texts' cost. The arrival number orders a
-- route.
CREATE TABLE IF NOT EXISTS trip_ids (id INTEGER PRIMARY KEY, guid TEXT NOT NULL UNIQUE);
CREATE TABLE IF NOT EXISTS motion (
  trip INTEGER NOT NULL, item_id INTEGER NOT NULL, record_time INTEGER NOT NULL,
  arrival INTEGER NOT NULL, user_id INTEGER, lat REAL, lon REAL, p0 REAL, p1 REAL, p2 REAL,
  p3 REAL, p4 REAL, k0 REAL, k1 REAL, k2 REAL, k3 REAL, k4 REAL, fuel REAL,
  PRIMARY KEY (trip, item_id, record_time)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS counters (name TEXT PRIMARY KEY, value INTEGER) WITHOUT ROWID;
)sql";

// Earlier files kept records in a table numbered by arrival, with the key in an index of its own
// (or, older still, no key): they move to the keyed table in one transaction. A record without a
// key gets one that no library record has (a negative number), so none of them is lost.
constexpr const char* kPointsToMotion = R"sql(
INSERT OR IGNORE INTO trip_ids(guid) SELECT DISTINCT guid FROM points;
INSERT OR IGNORE INTO motion
  SELECT t.id, COALESCE(p.item_id, -p.seq),
         COALESCE(CAST(replace(replace(replace(p.record_time, '-', ''), ' ', ''), ':', '')
                       AS INTEGER), 0),
         p.seq, p.user_id, p.lat, p.lon, p.p0, p.p1, p.p2, p.p3, p.p4, p.k0, p.k1, p.k2, p.k3,
         p.k4, p.fuel
  FROM points p JOIN trip_ids t ON t.guid = p.guid;
INSERT OR REPLACE INTO counters VALUES ('arrival', (SELECT COALESCE(MAX(seq), 0) + 1 FROM points));
DROP TABLE points;
)sql";

}  // namespace

MotionFile::~MotionFile() {
    {
        std::lock_guard lock(checkpointMutex_);
        stopping_ = true;
    }
    checkpointWake_.notify_one();
    if (checkpointer_.joinable()) checkpointer_.join();
    sqlite3_finalize(insertOne_);
    sqlite3_finalize(insertMany_);
    if (db_) sqlite3_close(db_);
}

bool MotionFile::open(const std::string& path, std::string& error) {
    std::lock_guard lock(mutex_);
    if (!openConnection(path, db_, error)) return false;
    path_ = path;
    if (!execute(db_, kSchema, error)) return false;
    // Replaces the checkpoint SQLite would run inside the committing request. Called only while
    // the file is in WAL mode, so never for an in-memory database.
    sqlite3_wal_hook(db_, &MotionFile::committed, this);
    if (!upgradePoints(error)) return false;
    Statement next(db_, "SELECT value FROM counters WHERE name = 'arrival'");
    if (next.step()) nextArrival_ = next.integer(0);
    return true;
}

bool MotionFile::upgradePoints(std::string& error) {
    if (!Statement(db_, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'points'")
             .step())
        return true;
    std::string keyed;  // columns added when records got keys
    execute(db_, "ALTER TABLE points ADD COLUMN item_id INTEGER", keyed);
    execute(db_, "ALTER TABLE points ADD COLUMN record_time TEXT", keyed);
    if (!execute(db_, "BEGIN", error)) return false;
    if (!execute(db_, kPointsToMotion, error)) {
        std::string ignored;
        execute(db_, "ROLLBACK", ignored);
        error = "cannot upgrade the records of " + path_ + ": " + error;
        return false;
    }
    return execute(db_, "COMMIT", error);
}

namespace {

// The log is copied back once it holds some 4 MB (SQLite's own default at its default page size),
// and the committing request copies it itself past 64 MB, so that it stays bounded even if the
// checkpointer falls behind. In pages of the size a new file gets.
constexpr int kCheckpointPages = 256, kInlineCheckpointPages = 4096;

}  // namespace

int MotionFile::committed(void* self, sqlite3* db, const char* schema, int pages) {
    auto* file = static_cast<MotionFile*>(self);
    if (pages >= kInlineCheckpointPages) {
        sqlite3_wal_checkpoint_v2(db, schema, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    } else if (pages >= kCheckpointPages) {
        {
            std::lock_guard lock(file->checkpointMutex_);
            file->checkpointDue_ = true;
            if (!file->checkpointer_.joinable())
                file->checkpointer_ = std::thread([file] { file->checkpointLoop(); });
        }
        file->checkpointWake_.notify_one();
    }
    return SQLITE_OK;
}

void MotionFile::checkpointLoop() {
    sqlite3* db = nullptr;
    if (std::string error; !openConnection(path_, db, error)) {
        sqlite3_close(db);
        return;  // the committing requests copy the log themselves, past kInlineCheckpointPages
    }
    std::unique_lock lock(checkpointMutex_);
    while (true) {
        checkpointWake_.wait(lock, [this] { return checkpointDue_ || stopping_; });
        if (stopping_) break;
        checkpointDue_ = false;
        lock.unlock();
        // First what can be copied without holding up the writer. Writes go on meanwhile, so the
        // log would seldom be found all copied and could grow for good: the few pages written
        // since are then copied while the writer waits, and the log starts over.
        sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
        sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_RESTART, nullptr, nullptr);
        lock.lock();
    }
    sqlite3_close(db);
}

namespace {

constexpr int kPointColumns = 18;

/// "INSERT OR IGNORE INTO motion VALUES (?, ...), ..." for `rows` rows.
std::string insertPointsSql(std::size_t rows) {
    std::string sql = "INSERT OR IGNORE INTO motion VALUES ";
    for (std::size_t r = 0; r < rows; ++r) {
        sql += r ? ", (?" : "(?";
        for (int c = 1; c < kPointColumns; ++c) sql += ", ?";
        sql += ')';
    }
    return sql;
}

/// The record time's seventeen digits as one number ("2026-11-16 14:05:09:250" is
/// 20261116140509250): in the same order as the texts, and told apart as they are.
std::int64_t recordTimeDigits(const PointRow& p) {
    std::int64_t digits = 0;
    for (const char c : p.recordTime) {
        if (c >= '0' && c <= '9') digits = digits * 10 + (c - '0');
    }
    return digits;
}

/// Binds one point's columns from `first` on.
void bindPoint(sqlite3_stmt* stmt, int first, std::int64_t trip, std::int64_t userID,
               std::int64_t arrival, const PointRow& p) {
    sqlite3_bind_int64(stmt, first, trip);
    sqlite3_bind_int64(stmt, first + 1, p.itemId);
    sqlite3_bind_int64(stmt, first + 2, recordTimeDigits(p));
    sqlite3_bind_int64(stmt, first + 3, arrival);
    sqlite3_bind_int64(stmt, first + 4, userID);
    sqlite3_bind_double(stmt, first + 5, p.latitude);
    sqlite3_bind_double(stmt, first + 6, p.longitude);
    for (int i = 0; i < 5; ++i) {
        sqlite3_bind_double(stmt, first + 7 + i, p.penalty[i]);
        sqlite3_bind_double(stmt, first + 12 + i, p.penaltyPerKM[i]);
    }
    sqlite3_bind_double(stmt, first + 17, p.fuelPerKM);
}

}  // namespace

sqlite3_stmt* MotionFile::prepared(std::size_t rows) {
    sqlite3_stmt*& stmt = rows == 1 ? insertOne_ : insertMany_;
    if (!stmt) sqlite3_prepare_v2(db_, insertPointsSql(rows).c_str(), -1, &stmt, nullptr);
    return stmt;
}

std::optional<std::size_t> MotionFile::add(const std::string& guid, std::int64_t userID,
                                           const std::vector<PointRow>& points) {
    std::lock_guard lock(mutex_);
    std::string error;
    // Immediate: a read first would leave the transaction unable to write if the log restarted
    // since, and the busy wait does not cover that.
    if (!execute(db_, "BEGIN IMMEDIATE", error)) return std::nullopt;
    std::int64_t trip = 0;
    {
        Statement known(db_, "SELECT id FROM trip_ids WHERE guid = ?");
        Statement added(db_, "INSERT INTO trip_ids(guid) VALUES (?)");
        if (known.bind(1, guid).step()) {
            trip = known.integer(0);
        } else if (added.bind(1, guid).run()) {
            trip = sqlite3_last_insert_rowid(db_);
        } else {
            execute(db_, "ROLLBACK", error);
            return std::nullopt;
        }
    }
    // Many rows a statement: a statement's own cost is paid a thirty-second as often. The rows
    // still go in in order, each skipped as it would be alone. A skipped row leaves its arrival
    // number unused, which only the order of numbers matters for.
    std::int64_t arrival = nextArrival_;
    std::size_t stored = 0;
    for (std::size_t at = 0; at < points.size();) {
        const std::size_t rows = points.size() - at >= kRowsPerInsert ? kRowsPerInsert : 1;
        sqlite3_stmt* insert = prepared(rows);
        bool done = insert != nullptr;
        for (std::size_t r = 0; done && r < rows; ++r) {
            bindPoint(insert, static_cast<int>(r) * kPointColumns + 1, trip, userID, arrival++,
                      points[at + r]);
        }
        done = done && sqlite3_step(insert) == SQLITE_DONE;
        if (insert) sqlite3_reset(insert);
        if (!done) {
            execute(db_, "ROLLBACK", error);
            return std::nullopt;
        }
        stored += static_cast<std::size_t>(sqlite3_changes(db_));
        at += rows;
    }
    Statement counter(db_, "INSERT OR REPLACE INTO counters VALUES ('arrival', ?)");
    if (!counter.bind(1, arrival).run() || !execute(db_, "COMMIT", error)) {
        execute(db_, "ROLLBACK", error);
        return std::nullopt;
    }
    nextArrival_ = arrival;
    return stored;
}

std::vector<PointRow> MotionFile::points(const std::string& guid) {
    std::lock_guard lock(mutex_);
    std::vector<PointRow> rows;
    Statement q(db_,
                "SELECT lat, lon, p0, p1, p2, p3, p4, k0, k1, k2, k3, k4, fuel FROM motion WHERE "
                "trip = (SELECT id FROM trip_ids WHERE guid = ?) ORDER BY arrival");
    q.bind(1, guid);
    while (q.step()) {
        PointRow p;
        p.latitude = q.real(0);
        p.longitude = q.real(1);
        for (int i = 0; i < 5; ++i) {
            p.penalty[i] = q.real(2 + i);
            p.penaltyPerKM[i] = q.real(7 + i);
        }
        p.fuelPerKM = q.real(12);
        rows.push_back(p);
    }
    return rows;
}

std::vector<std::string> MotionFile::trips() {
    std::lock_guard lock(mutex_);
    std::vector<std::string> guids;
    Statement q(db_, "SELECT guid FROM trip_ids");
    while (q.step()) guids.push_back(q.text(0));
    return guids;
}

bool MotionFile::hasRecords() {
    std::lock_guard lock(mutex_);
    return Statement(db_, "SELECT 1 FROM motion LIMIT 1").step();
}

std::int64_t MotionFile::databaseNumber() {
    std::lock_guard lock(mutex_);
    Statement q(db_, "SELECT value FROM counters WHERE name = 'database'");
    return q.step() ? q.integer(0) : 0;
}

bool MotionFile::setDatabaseNumber(std::int64_t number) {
    std::lock_guard lock(mutex_);
    return Statement(db_, "INSERT OR REPLACE INTO counters VALUES ('database', ?)")
        .bind(1, number)
        .run();
}

}  // namespace kestrelvue::service
