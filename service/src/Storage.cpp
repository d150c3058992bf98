#include "Storage.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <sqlite3.h>

#include <chrono>
#include <thread>
#include <utility>

namespace kestrelvue::service {
namespace {

/// A prepared statement that finalises itself.
class Statement {
public:
    Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr); }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int i, std::int64_t v) { return sqlite3_bind_int64(stmt_, i, v), *this; }
    Statement& bind(int i, double v) { return sqlite3_bind_double(stmt_, i, v), *this; }
    Statement& bind(int i, const std::string& v) {
        sqlite3_bind_text(stmt_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
        return *this;
    }
    bool step() { return stmt_ && sqlite3_step(stmt_) == SQLITE_ROW; }
    bool run() { return stmt_ && sqlite3_step(stmt_) == SQLITE_DONE; }
    void reset() {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
    std::int64_t integer(int c) { return sqlite3_column_int64(stmt_, c); }
    double real(int c) { return sqlite3_column_double(stmt_, c); }
    std::string text(int c) {
        auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, c));
        return p ? std::string(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, c))) : "";
    }

private:
    sqlite3_stmt* stmt_ = nullptr;
};

constexpr const char* kSchema = R"sql(
PRAGMA journal_mode = WAL;
-- Safe against a crash of the service; only a power loss may undo the last commits.
PRAGMA synchronous = NORMAL;
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
CREATE TABLE IF NOT EXISTS drivings (
  guid TEXT PRIMARY KEY, user_id INTEGER, start_dt TEXT, end_dt TEXT, start_loc TEXT,
  end_loc TEXT, start_lat REAL, start_lon REAL, end_lat REAL, end_lon REAL, score REAL,
  c0 INTEGER, c1 INTEGER, c2 INTEGER, c3 INTEGER, c4 INTEGER,
  p0 REAL, p1 REAL, p2 REAL, p3 REAL, p4 REAL, fuel REAL, distance REAL, elapsed TEXT,
  received INTEGER);
CREATE INDEX IF NOT EXISTS drivings_user ON drivings(user_id, received);
CREATE TABLE IF NOT EXISTS users (
  id INTEGER PRIMARY KEY AUTOINCREMENT, reference_id TEXT UNIQUE, mobile TEXT UNIQUE, token TEXT,
  first_name TEXT DEFAULT '', last_name TEXT DEFAULT '', email TEXT DEFAULT '',
  gender INTEGER DEFAULT 0, type INTEGER DEFAULT 4, city TEXT DEFAULT '', country TEXT DEFAULT '',
  token_salt TEXT, token_hash TEXT);
CREATE TABLE IF NOT EXISTS friends (
  user_ref TEXT NOT NULL, friend_ref TEXT NOT NULL, PRIMARY KEY (user_ref, friend_ref));
)sql";

// Files made by earlier versions: hashed tokens are new columns; tokens stored in plain text are
// dropped (accounts get new ones issued).
constexpr const char* kUpgrades[] = {
    "ALTER TABLE users ADD COLUMN token_salt TEXT",
    "ALTER TABLE users ADD COLUMN token_hash TEXT",
    "UPDATE users SET token = NULL WHERE token IS NOT NULL",
};

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

/// Waits for a lock the other connection holds: up to two seconds, looking again every 200 us.
/// SQLite's own timed wait sleeps 1, 2, 5, 10, 15, 20 ms and so on between looks, so a request
/// that met a checkpoint's few milliseconds waited tens of them.
int waitBriefly(void*, int tries) {
    constexpr int kLookEveryMicros = 200, kGiveUpAfterMicros = 2'000'000;
    if (tries * kLookEveryMicros >= kGiveUpAfterMicros) return 0;
    std::this_thread::sleep_for(std::chrono::microseconds(kLookEveryMicros));
    return 1;
}

std::string hex(const unsigned char* bytes, std::size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < n; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

std::string randomHex(std::size_t bytes) {
    unsigned char buffer[32];
    if (bytes > sizeof buffer || RAND_bytes(buffer, static_cast<int>(bytes)) != 1) return {};
    return hex(buffer, bytes);
}

std::string saltedHash(const std::string& salt, const std::string& token) {
    const std::string input = salt + token;
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(input.data()), input.size(), digest);
    return hex(digest, sizeof digest);
}

}  // namespace

bool PointRow::hasFault() const {
    for (int i = 0; i < 5; ++i) {
        if (penalty[i] != 0 || penaltyPerKM[i] != 0) return true;
    }
    return false;
}

Storage::~Storage() {
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

bool Storage::exec(const char* sql, std::string& error) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        error = message ? message : "SQLite error";
        sqlite3_free(message);
        return false;
    }
    return true;
}

bool Storage::open(const std::string& path, std::string& error) {
    std::lock_guard lock(mutex_);
    // Without SQLite's own mutex on every call: mutex_ serialises the connection already.
    if (sqlite3_open_v2(path.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        error = "cannot open database " + path + ": " + sqlite3_errmsg(db_);
        return false;
    }
    path_ = path;
    sqlite3_busy_handler(db_, waitBriefly, nullptr);
    // Larger pages for a new file (an existing one keeps its size): a bulk writes a quarter as
    // many pages to the log, and copies a quarter as many back.
    exec("PRAGMA page_size = 16384", error);
    if (!exec(kSchema, error)) return false;
    // Replaces the checkpoint SQLite would run inside the committing request. Called only while
    // the file is in WAL mode, so never for an in-memory database.
    sqlite3_wal_hook(db_, &Storage::committed, this);
    for (const char* upgrade : kUpgrades) {
        std::string alreadyThere;
        exec(upgrade, alreadyThere);  // fails with "duplicate column" on a current file
    }
    if (!upgradePoints(error)) return false;
    Statement next(db_, "SELECT value FROM counters WHERE name = 'arrival'");
    if (next.step()) nextArrival_ = next.integer(0);
    return true;
}

bool Storage::upgradePoints(std::string& error) {
    if (!Statement(db_, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'points'")
             .step())
        return true;
    std::string keyed;
    exec("ALTER TABLE points ADD COLUMN item_id INTEGER", keyed);  // before records had keys
    exec("ALTER TABLE points ADD COLUMN record_time TEXT", keyed);
    if (!exec("BEGIN", error)) return false;
    if (!exec(kPointsToMotion, error)) {
        std::string ignored;
        exec("ROLLBACK", ignored);
        error = "cannot upgrade the records of " + path_ + ": " + error;
        return false;
    }
    return exec("COMMIT", error);
}

namespace {

// The log is copied back once it holds some 4 MB (SQLite's own default at its default page size),
// and the committing request copies it itself past 64 MB, so that it stays bounded even if the
// checkpointer falls behind. In pages of the size a new file gets.
constexpr int kCheckpointPages = 256, kInlineCheckpointPages = 4096;

}  // namespace

int Storage::committed(void* self, sqlite3* db, const char* schema, int pages) {
    auto* storage = static_cast<Storage*>(self);
    if (pages >= kInlineCheckpointPages) {
        sqlite3_wal_checkpoint_v2(db, schema, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    } else if (pages >= kCheckpointPages) {
        {
            std::lock_guard lock(storage->checkpointMutex_);
            storage->checkpointDue_ = true;
            if (!storage->checkpointer_.joinable())
                storage->checkpointer_ = std::thread([storage] { storage->checkpointLoop(); });
        }
        storage->checkpointWake_.notify_one();
    }
    return SQLITE_OK;
}

void Storage::checkpointLoop() {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path_.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) !=
        SQLITE_OK) {
        sqlite3_close(db);
        return;  // the committing requests copy the log themselves, past kInlineCheckpointPages
    }
    sqlite3_busy_handler(db, waitBriefly, nullptr);
    sqlite3_exec(db, "PRAGMA synchronous = NORMAL", nullptr, nullptr, nullptr);
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

sqlite3_stmt* Storage::prepared(std::size_t rows) {
    sqlite3_stmt*& stmt = rows == 1 ? insertOne_ : insertMany_;
    if (!stmt) sqlite3_prepare_v2(db_, insertPointsSql(rows).c_str(), -1, &stmt, nullptr);
    return stmt;
}

std::optional<std::size_t> Storage::addPoints(const std::string& guid, std::int64_t userID,
                                              const std::vector<PointRow>& points) {
    std::lock_guard lock(mutex_);
    std::string error;
    // Immediate: a read first would leave the transaction unable to write if the log restarted
    // since, and the busy wait does not cover that.
    if (!exec("BEGIN IMMEDIATE", error)) return std::nullopt;
    std::int64_t trip = 0;
    {
        Statement known(db_, "SELECT id FROM trip_ids WHERE guid = ?");
        Statement added(db_, "INSERT INTO trip_ids(guid) VALUES (?)");
        if (known.bind(1, guid).step()) {
            trip = known.integer(0);
        } else if (added.bind(1, guid).run()) {
            trip = sqlite3_last_insert_rowid(db_);
        } else {
            exec("ROLLBACK", error);
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
            exec("ROLLBACK", error);
            return std::nullopt;
        }
        stored += static_cast<std::size_t>(sqlite3_changes(db_));
        at += rows;
    }
    Statement counter(db_, "INSERT OR REPLACE INTO counters VALUES ('arrival', ?)");
    if (!counter.bind(1, arrival).run() || !exec("COMMIT", error)) {
        exec("ROLLBACK", error);
        return std::nullopt;
    }
    nextArrival_ = arrival;
    return stored;
}

std::vector<PointRow> Storage::points(const std::string& guid) {
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

void Storage::saveDriving(const DrivingRow& d) {
    std::lock_guard lock(mutex_);
    Statement q(db_,
                "INSERT OR REPLACE INTO drivings VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                "?, ?, ?, ?, ?, ?, ?, ?, ?, ?, (SELECT COALESCE(MAX(received), 0) + 1 FROM "
                "drivings))");
    q.bind(1, d.guid).bind(2, d.userID).bind(3, d.startDateTime).bind(4, d.endDateTime);
    q.bind(5, d.startLocation).bind(6, d.endLocation).bind(7, d.startLat).bind(8, d.startLong);
    q.bind(9, d.endLat).bind(10, d.endLong).bind(11, d.score);
    for (int i = 0; i < 5; ++i) q.bind(12 + i, d.counts[i]).bind(17 + i, d.penalties[i]);
    q.bind(22, d.fuelPenalty).bind(23, d.totalDistance).bind(24, d.timeElapsed);
    q.run();
}

std::vector<DrivingRow> Storage::drivings(std::int64_t userID) {
    std::lock_guard lock(mutex_);
    std::vector<DrivingRow> rows;
    Statement q(db_, "SELECT * FROM drivings WHERE user_id = ? ORDER BY received");
    q.bind(1, userID);
    while (q.step()) {
        DrivingRow d;
        d.guid = q.text(0);
        d.userID = q.integer(1);
        d.startDateTime = q.text(2);
        d.endDateTime = q.text(3);
        d.startLocation = q.text(4);
        d.endLocation = q.text(5);
        d.startLat = q.real(6);
        d.startLong = q.real(7);
        d.endLat = q.real(8);
        d.endLong = q.real(9);
        d.score = q.real(10);
        for (int i = 0; i < 5; ++i) {
            d.counts[i] = q.integer(11 + i);
            d.penalties[i] = q.real(16 + i);
        }
        d.fuelPenalty = q.real(21);
        d.totalDistance = q.real(22);
        d.timeElapsed = q.text(23);
        rows.push_back(std::move(d));
    }
    return rows;
}

namespace {
UserRow readUser(Statement& q) {
    UserRow u;
    u.id = q.integer(0);
    u.referenceId = q.text(1);
    u.firstName = q.text(2);
    u.lastName = q.text(3);
    u.email = q.text(4);
    u.genderId = q.integer(5);
    u.typeId = q.integer(6);
    u.city = q.text(7);
    u.country = q.text(8);
    return u;
}
constexpr const char* kUserColumns =
    "id, reference_id, first_name, last_name, email, gender, type, city, country";
}  // namespace

std::optional<UserRow> Storage::login(const std::string& mobile, const std::string& token) {
    std::lock_guard lock(mutex_);
    Statement q(db_, (std::string("SELECT ") + kUserColumns +
                      ", token_salt, token_hash FROM users WHERE mobile = ?")
                         .c_str());
    q.bind(1, mobile);
    if (!q.step()) return std::nullopt;
    const std::string salt = q.text(9), stored = q.text(10);
    const std::string offered = saltedHash(salt, token);
    if (stored.size() != offered.size() ||
        CRYPTO_memcmp(stored.data(), offered.data(), stored.size()) != 0) {
        return std::nullopt;
    }
    return readUser(q);
}

std::string Storage::issueToken(const std::string& mobile) {
    const std::string token = randomHex(16), salt = randomHex(16);
    if (token.empty() || salt.empty()) return {};
    std::lock_guard lock(mutex_);
    Statement q(db_,
                "INSERT INTO users(reference_id, mobile, token_salt, token_hash) VALUES (?1, ?1, "
                "?2, ?3) ON CONFLICT(mobile) DO UPDATE SET token_salt = ?2, token_hash = ?3");
    q.bind(1, mobile).bind(2, salt).bind(3, saltedHash(salt, token));
    return q.run() ? token : std::string();
}

std::int64_t Storage::addUser(const UserRow& user) {
    std::lock_guard lock(mutex_);
    Statement q(db_,
                "INSERT INTO users(reference_id, first_name, last_name, email, gender) "
                "VALUES (NULLIF(?, ''), ?, ?, ?, ?) ON CONFLICT(reference_id) DO UPDATE SET "
                "first_name = excluded.first_name, last_name = excluded.last_name, "
                "email = excluded.email, gender = excluded.gender RETURNING id");
    q.bind(1, user.referenceId).bind(2, user.firstName).bind(3, user.lastName);
    q.bind(4, user.email).bind(5, user.genderId);
    return q.step() ? q.integer(0) : 0;
}

bool Storage::addFriend(const std::string& referenceId, const std::string& friendReferenceId) {
    std::lock_guard lock(mutex_);
    Statement known(db_, "SELECT COUNT(*) FROM users WHERE reference_id IN (?, ?)");
    known.bind(1, referenceId).bind(2, friendReferenceId);
    if (!known.step() || known.integer(0) != (referenceId == friendReferenceId ? 1 : 2)) {
        return false;
    }
    Statement q(db_, "INSERT OR IGNORE INTO friends VALUES (?, ?), (?, ?)");
    q.bind(1, referenceId)
        .bind(2, friendReferenceId)
        .bind(3, friendReferenceId)
        .bind(4, referenceId);
    return q.run();
}

std::optional<UserRow> Storage::user(std::int64_t id) {
    std::lock_guard lock(mutex_);
    Statement q(db_, (std::string("SELECT ") + kUserColumns + " FROM users WHERE id = ?").c_str());
    q.bind(1, id);
    if (!q.step()) return std::nullopt;
    return readUser(q);
}

std::vector<LeaderRow> Storage::leaders(const UserRow& me, int scope) {
    std::lock_guard lock(mutex_);
    std::string where = "1";
    if (scope == 1) where = "u.country = ?2";
    if (scope == 2) where = "u.city = ?2";
    if (scope == 3) {
        where =
            "(u.id = ?1 OR u.reference_id IN (SELECT friend_ref FROM friends WHERE user_ref = ?3))";
    }
    std::string sql =
        "SELECT u.id, TRIM(u.first_name || ' ' || u.last_name), u.city, u.country, COUNT(d.guid), "
        "COALESCE(AVG(d.score), 0) FROM users u LEFT JOIN drivings d ON d.user_id = u.id WHERE " +
        where + " GROUP BY u.id ORDER BY 6 DESC, 1 ASC";
    Statement q(db_, sql.c_str());
    q.bind(1, me.id).bind(2, scope == 1 ? me.country : me.city).bind(3, me.referenceId);
    std::vector<LeaderRow> rows;
    while (q.step()) {
        rows.push_back({q.integer(0), q.text(1), q.text(2), q.text(3), q.integer(4), q.real(5)});
    }
    return rows;
}

}  // namespace kestrelvue::service
