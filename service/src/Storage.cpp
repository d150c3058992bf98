#include "Storage.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <sqlite3.h>

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
CREATE TABLE IF NOT EXISTS points (
  guid TEXT NOT NULL, user_id INTEGER, seq INTEGER PRIMARY KEY AUTOINCREMENT,
  lat REAL, lon REAL, p0 REAL, p1 REAL, p2 REAL, p3 REAL, p4 REAL,
  k0 REAL, k1 REAL, k2 REAL, k3 REAL, k4 REAL, fuel REAL, item_id INTEGER, record_time TEXT);
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

// Files made by earlier versions: the record key and the hashed tokens are new columns; tokens
// stored in plain text are dropped (accounts get new ones issued).
constexpr const char* kUpgrades[] = {
    "ALTER TABLE points ADD COLUMN item_id INTEGER",
    "ALTER TABLE points ADD COLUMN record_time TEXT",
    "ALTER TABLE users ADD COLUMN token_salt TEXT",
    "ALTER TABLE users ADD COLUMN token_hash TEXT",
};
constexpr const char* kAfterUpgrade = R"sql(
UPDATE users SET token = NULL WHERE token IS NOT NULL;
CREATE UNIQUE INDEX IF NOT EXISTS points_key ON points(guid, item_id, record_time);
-- A trip's points are found through the key, whose first column is the trip: an index of its own
-- cost every insert a third b-tree.
DROP INDEX IF EXISTS points_guid;
)sql";

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
    sqlite3_busy_timeout(db_, 2000);
    if (!exec(kSchema, error)) return false;
    // Replaces the checkpoint SQLite would run inside the committing request. Called only while
    // the file is in WAL mode, so never for an in-memory database.
    sqlite3_wal_hook(db_, &Storage::committed, this);
    for (const char* upgrade : kUpgrades) {
        std::string alreadyThere;
        exec(upgrade, alreadyThere);  // fails with "duplicate column" on a current file
    }
    return exec(kAfterUpgrade, error);
}

namespace {

// The log is copied back once it holds this many pages (SQLite's own default), and the committing
// request copies it itself when it grows this far regardless, so that it stays bounded even if the
// checkpointer falls behind.
constexpr int kCheckpointPages = 1000, kInlineCheckpointPages = 16000;

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
    sqlite3_busy_timeout(db, 2000);
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

constexpr int kPointColumns = 17;

/// "INSERT OR IGNORE INTO points(...) VALUES (?, ...), ..." for `rows` rows.
std::string insertPointsSql(std::size_t rows) {
    std::string sql =
        "INSERT OR IGNORE INTO points(guid, user_id, lat, lon, p0, p1, p2, p3, p4, k0, k1, k2, k3, "
        "k4, fuel, item_id, record_time) VALUES ";
    for (std::size_t r = 0; r < rows; ++r) {
        sql += r ? ", (?" : "(?";
        for (int c = 1; c < kPointColumns; ++c) sql += ", ?";
        sql += ')';
    }
    return sql;
}

/// Binds one point's columns from `first` on. The texts outlive the statement's step.
void bindPoint(sqlite3_stmt* stmt, int first, const std::string& guid, std::int64_t userID,
               const PointRow& p) {
    sqlite3_bind_text(stmt, first, guid.data(), static_cast<int>(guid.size()), SQLITE_STATIC);
    sqlite3_bind_int64(stmt, first + 1, userID);
    sqlite3_bind_double(stmt, first + 2, p.latitude);
    sqlite3_bind_double(stmt, first + 3, p.longitude);
    for (int i = 0; i < 5; ++i) {
        sqlite3_bind_double(stmt, first + 4 + i, p.penalty[i]);
        sqlite3_bind_double(stmt, first + 9 + i, p.penaltyPerKM[i]);
    }
    sqlite3_bind_double(stmt, first + 14, p.fuelPerKM);
    sqlite3_bind_int64(stmt, first + 15, p.itemId);
    sqlite3_bind_text(stmt, first + 16, p.recordTime.data(), static_cast<int>(p.recordTime.size()),
                      SQLITE_STATIC);
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
    if (!exec("BEGIN", error)) return std::nullopt;
    // Many rows a statement: each statement of a table with AUTOINCREMENT reads and writes the
    // table's sequence once, so one a row would cost that for every row. The rows still go in
    // in order, each skipped or numbered as it would be alone.
    std::size_t stored = 0;
    for (std::size_t at = 0; at < points.size();) {
        const std::size_t rows = points.size() - at >= kRowsPerInsert ? kRowsPerInsert : 1;
        sqlite3_stmt* insert = prepared(rows);
        bool done = insert != nullptr;
        for (std::size_t r = 0; done && r < rows; ++r) {
            bindPoint(insert, static_cast<int>(r) * kPointColumns + 1, guid, userID,
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
    if (!exec("COMMIT", error)) {
        exec("ROLLBACK", error);
        return std::nullopt;
    }
    return stored;
}

std::vector<PointRow> Storage::points(const std::string& guid) {
    std::lock_guard lock(mutex_);
    std::vector<PointRow> rows;
    Statement q(db_,
                "SELECT lat, lon, p0, p1, p2, p3, p4, k0, k1, k2, k3, k4, fuel FROM points "
                "WHERE guid = ? ORDER BY seq");
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
