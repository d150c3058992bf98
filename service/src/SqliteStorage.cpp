// The SQLite storage: one file, one connection serialised by a mutex. SQLite writes one
// transaction at a time to a file anyway, and a bulk is one row, so a second connection would
// only wait for the same lock.

#include <lz4frame.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "Storage.h"
#include "records/EventKinds.h"

namespace kestrelvue::service {
namespace {

/// Bytes bound as a BLOB, not as text.
struct Blob {
    std::string_view bytes;
};

/// A prepared statement that finalises itself, its parameters bound from `values` in order (an
/// array fills as many). Texts and blobs are not copied: they must outlive the statement.
class Statement {
public:
    template <class... Values>
    Statement(sqlite3* db, std::string_view sql, const Values&... values) {
        sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr);
        [[maybe_unused]] int i = 1;
        (bind(i, values), ...);
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// The current row's columns into `out`, in order, as the constructor binds them.
    template <class... Out>
    void read(Out&... out) {
        [[maybe_unused]] int c = 0;
        (get(c, out), ...);
    }
    bool step() { return stmt_ && sqlite3_step(stmt_) == SQLITE_ROW; }
    bool run() { return stmt_ && sqlite3_step(stmt_) == SQLITE_DONE; }
    std::int64_t integer(int c) { return sqlite3_column_int64(stmt_, c); }
    double real(int c) { return sqlite3_column_double(stmt_, c); }
    /// A TEXT or BLOB column's bytes (empty for NULL).
    std::string text(int c) {
        const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, c));
        return p ? std::string(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, c))) : "";
    }

private:
    void bind(int& i, std::int64_t v) { sqlite3_bind_int64(stmt_, i++, v); }
    void bind(int& i, double v) { sqlite3_bind_double(stmt_, i++, v); }
    void bind(int& i, std::string_view v) {
        sqlite3_bind_text64(stmt_, i++, v.data(), v.size(), SQLITE_STATIC, SQLITE_UTF8);
    }
    void bind(int& i, Blob v) {
        sqlite3_bind_blob64(stmt_, i++, v.bytes.data(), v.bytes.size(), SQLITE_STATIC);
    }
    void get(int& c, std::int64_t& v) { v = integer(c++); }
    void get(int& c, double& v) { v = real(c++); }
    void get(int& c, std::string& v) { v = text(c++); }
    template <class T, std::size_t N>
    void bind(int& i, const std::array<T, N>& values) {
        for (const T& v : values) bind(i, v);
    }
    template <class T, std::size_t N>
    void get(int& c, std::array<T, N>& out) {
        for (T& v : out) get(c, v);
    }

    sqlite3_stmt* stmt_ = nullptr;
};

/// Sets `error` to `why` and answers false: opening a file fails in many ways.
bool failed(std::string& error, std::string why) {
    error = std::move(why);
    return false;
}

/// Runs `sql`; false with SQLite's message in `error` when it fails.
bool execute(sqlite3* db, const std::string& sql, std::string& error) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        error = message ? message : "SQLite error";
        sqlite3_free(message);
        return false;
    }
    return true;
}

/// Runs `sql` when it can (a clean-up, or a change that may have been made before).
void tryExecute(sqlite3* db, const std::string& sql) {
    sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
}

/// Opens `path` for one thread at a time (the caller serialises its use). A lock another process
/// holds (a backup, say) is waited for up to five seconds.
bool openConnection(const std::string& path, sqlite3*& db, std::string& error) {
    if (sqlite3_open_v2(path.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK)
        return failed(error, "cannot open database " + path + ": " + sqlite3_errmsg(db));
    sqlite3_busy_timeout(db, 5000);
    // Larger pages for a new file: a bulk writes a quarter as many to the log. With the log a
    // commit survives a crash of the service (a power loss may undo the last ones); copying it
    // back at 4 MB, twice as often as SQLite's default, halves each wait for the copy.
    if (!execute(
            db,
            "PRAGMA page_size = 16384; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; "
            "PRAGMA wal_autocheckpoint = 256",
            error))
        return failed(error, "cannot open database " + path + ": " + error);
    return true;
}

/// "KVSD": marks a file as this service's database.
constexpr std::int64_t kApplicationId = 0x4B565344;

// Motion is kept in the shape the writes want: one row a bulk, its records the text they came
// in, keyed by the trip and the keys of its first and last records and their number, so that a
// bulk sent again stores nothing. A route reads a trip's bulks in arrival order and drops the
// record keys it has seen, so bulks that only overlap lose nothing either.
constexpr const char* kSchemaVersion1 = R"sql(
CREATE TABLE IF NOT EXISTS trips (
  guid TEXT PRIMARY KEY, user_id INTEGER, start_time TEXT, end_time TEXT, start_location TEXT,
  end_location TEXT, start_latitude REAL, start_longitude REAL, end_latitude REAL,
  end_longitude REAL, score REAL, cornering_count INTEGER, speeding_count INTEGER,
  braking_count INTEGER, elevating_count INTEGER, lane_changing_count INTEGER,
  cornering_penalty REAL, speeding_penalty REAL, braking_penalty REAL, elevating_penalty REAL,
  lane_changing_penalty REAL, fuel_penalty REAL, distance_metres REAL, elapsed TEXT,
  received INTEGER);
CREATE INDEX IF NOT EXISTS trips_of_user ON trips(user_id, received);
CREATE TABLE IF NOT EXISTS users (
  id INTEGER PRIMARY KEY AUTOINCREMENT, reference_id TEXT UNIQUE, mobile TEXT UNIQUE,
  first_name TEXT DEFAULT '', last_name TEXT DEFAULT '', email TEXT DEFAULT '',
  gender INTEGER DEFAULT 0, type INTEGER DEFAULT 4, city TEXT DEFAULT '', country TEXT DEFAULT '',
  token_salt TEXT, token_hash TEXT);
CREATE TABLE IF NOT EXISTS friends (
  user_ref TEXT NOT NULL, friend_ref TEXT NOT NULL, PRIMARY KEY (user_ref, friend_ref));
CREATE TABLE IF NOT EXISTS motion_bulks (
  id INTEGER PRIMARY KEY, trip TEXT NOT NULL, user_id INTEGER, first_and_last TEXT NOT NULL,
  records INTEGER NOT NULL, motion_text TEXT NOT NULL, UNIQUE (trip, first_and_last, records));
)sql";

// The four-file release kept trip records in "drivings", its columns in the order of trips'
// (c0..c4 and p0..p4 held counts and penalties by kind), and motion records a row each, in this
// file and in three beside it, which the upgrade shows as temp.earlier_motion. A row becomes a
// bulk of one record in the library's text, its other fields zero; the rows of a trip go in the
// order they came, file by file, so that a key kept in two files is moved once.
constexpr const char* kFromFourFiles = R"sql(
INSERT INTO trips SELECT * FROM drivings;
DROP TABLE drivings;
ALTER TABLE users DROP COLUMN token;
INSERT OR IGNORE INTO motion_bulks(trip, user_id, first_and_last, records, motion_text)
SELECT guid, user_id, item_id || ' ' || stamp || ' ' || item_id || ' ' || stamp, 1,
  printf('  0.000,  0.000,  0.000,  0.000,  0.000,  0.000,  0.000,  0.000,  0.000,  0.000,' ||
         '  0.000,  0.000, , , , ,%10.6f,%10.6f,UN,   0,%s,   0,%7d,%s,' ||
         '%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,%7.3f,' ||
         '  0.000,    0,  0.000000,UN,;',
         lat, lon, stamp, item_id, stamp, p0, p1, p2, p3, p4, k0, k1, k2, k3, k4, fuel)
FROM (SELECT *, substr(d, 1, 4) || '-' || substr(d, 5, 2) || '-' || substr(d, 7, 2) || ' ' ||
        substr(d, 9, 2) || ':' || substr(d, 11, 2) || ':' || substr(d, 13, 2) || ':' ||
        substr(d, 15, 3) AS stamp
      FROM (SELECT *, printf('%017d', record_time % 100000000000000000) AS d
            FROM temp.earlier_motion))
ORDER BY guid, file, arrival;
DROP VIEW temp.earlier_motion; DROP TABLE motion;
DROP TABLE trip_ids; DROP TABLE IF EXISTS counters;
)sql";

// The schema and the statements below list five kinds: another needs a migration that adds its
// columns to trips.
static_assert(detail::kEventKindCount == 5);

/// Later changes of the schema, each run once, in order: the first makes version 2 of a file at
/// version 1, and so on. A file's `user_version` is the version it has.
constexpr std::array<std::string_view, 1> kLaterMigrations{
    // A bulk's text compressed (lz4), a fifth of its bytes through the log and the file. Rows
    // stored before keep their text as it was, with no motion_lz4: nothing is rewritten.
    "ALTER TABLE motion_bulks ADD COLUMN motion_lz4 BLOB",
};
constexpr int kVersion = 1 + static_cast<int>(kLaterMigrations.size());

std::string hex(const unsigned char* bytes, std::size_t n) {
    std::string out(2 * n + 1, '\0');
    for (std::size_t i = 0; i < n; ++i) std::snprintf(&out[2 * i], 3, "%02x", bytes[i]);
    out.pop_back();
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

bool hasTable(sqlite3* db, const char* schema, const char* table) {
    const std::string sql =
        std::string("SELECT 1 FROM ") + schema + ".sqlite_master WHERE type = 'table' AND name = ?";
    return Statement(db, sql, std::string_view(table)).step();
}

/// A bulk's text as stored: an lz4 frame that carries its size and a checksum of each block.
/// Empty when it cannot be made.
std::string pack(std::string_view text) {
    LZ4F_preferences_t prefs = LZ4F_INIT_PREFERENCES;
    prefs.frameInfo.contentSize = text.size();
    prefs.frameInfo.blockChecksumFlag = LZ4F_blockChecksumEnabled;
    std::string packed(LZ4F_compressFrameBound(text.size(), &prefs), '\0');
    const std::size_t n =
        LZ4F_compressFrame(packed.data(), packed.size(), text.data(), text.size(), &prefs);
    packed.resize(LZ4F_isError(n) ? 0 : n);
    return packed;
}

/// The text of a packed bulk; false when the frame is damaged (a checksum included) or claims
/// more text than lz4 makes of its bytes (at most 255 a byte), which is not made room for.
bool unpack(std::string_view packed, std::string& text) {
    LZ4F_dctx* made = nullptr;
    if (LZ4F_isError(LZ4F_createDecompressionContext(&made, LZ4F_VERSION))) return false;
    const std::unique_ptr<LZ4F_dctx, decltype(&LZ4F_freeDecompressionContext)> context(
        made, &LZ4F_freeDecompressionContext);
    LZ4F_frameInfo_t frame = LZ4F_INIT_FRAMEINFO;
    std::size_t head = packed.size();
    if (LZ4F_isError(LZ4F_getFrameInfo(made, &frame, packed.data(), &head)) ||
        frame.contentSize > 255 * packed.size())
        return false;
    text.resize(frame.contentSize);
    std::size_t written = text.size(), read = packed.size() - head;
    const std::size_t left =
        LZ4F_decompress(made, text.data(), &written, packed.data() + head, &read, nullptr);
    return left == 0 && written == text.size() && head + read == packed.size();
}

class SqliteStorage final : public Storage {
public:
    ~SqliteStorage() override {
        if (db_) sqlite3_close(db_);
    }

    bool open(const std::string& path, std::string& error) {
        if (!openConnection(path, db_, error)) return false;
        std::int64_t app = -1, version = -1;
        if (Statement q(db_, "SELECT * FROM pragma_application_id, pragma_user_version"); q.step())
            q.read(app, version);
        if ((app != 0 || version != 0) && app != kApplicationId)
            return failed(error, path + " is not a database of this service");
        if (version > kVersion)
            return failed(error, path + " was written by a newer version of this service (schema " +
                                     std::to_string(version) + ")");
        if (version == 0 && !createOrUpgrade(path, error)) return false;
        for (int v = static_cast<int>(std::max<std::int64_t>(version, 1)); v < kVersion; ++v) {
            const std::string sql = std::string(kLaterMigrations.at(v - 1)) +
                                    "; PRAGMA user_version = " + std::to_string(v + 1);
            if (!transaction(sql, "cannot upgrade " + path, error)) return false;
        }
        return true;
    }

    std::optional<std::size_t> addMotion(const MotionBulk& bulk) override {
        if (bulk.count == 0) return 0;
        const MotionRecord &first = bulk.first, &last = bulk.last;
        const std::string key =
            std::to_string(first.itemId) + " " + std::string(first.recordTimeText()) + " " +
            std::to_string(last.itemId) + " " + std::string(last.recordTimeText());
        const std::string packed = pack(bulk.text);  // before the lock
        if (packed.empty()) return std::nullopt;
        std::lock_guard lock(mutex_);
        Statement q(db_,
                    "INSERT OR IGNORE INTO motion_bulks(trip, user_id, first_and_last, records, "
                    "motion_text, motion_lz4) VALUES (?, ?, ?, ?, '', ?)",
                    bulk.guid, bulk.userID, key, static_cast<std::int64_t>(bulk.count),
                    Blob{packed});
        if (!q.run()) return std::nullopt;
        return sqlite3_changes(db_) ? bulk.count : 0;
    }

    Result<std::vector<MotionRecord>> motion(const std::string& guid) override {
        std::vector<std::pair<std::string, std::string>> stored;  // plain text or packed
        {
            std::lock_guard lock(mutex_);
            Statement q(db_,
                        "SELECT motion_text, motion_lz4 FROM motion_bulks WHERE trip = ? ORDER "
                        "BY id",
                        guid);
            while (q.step()) stored.emplace_back(q.text(0), q.text(1));
        }
        std::vector<MotionRecord> records;
        std::set<std::pair<std::int64_t, RecordTime>> seen;
        std::string unpacked;
        for (std::size_t i = 0; i < stored.size(); ++i) {
            const auto& [plain, packed] = stored[i];
            const auto damaged = [&](const std::string& why) {
                std::string text = "bulk " + std::to_string(i + 1);
                text.append(" of trip ").append(guid).append(" is damaged in the database");
                return Result<std::vector<MotionRecord>>::failure(text.append(why));
            };
            if (!packed.empty() && !unpack(packed, unpacked)) return damaged("");
            // As it was stored: an earlier file's records may hold what is refused today.
            auto read = detail::readMotionText(packed.empty() ? plain : unpacked, false,
                                               [&](const MotionRecord& r) {
                                                   if (seen.emplace(r.itemId, r.recordTime).second)
                                                       records.push_back(r);
                                               });
            if (!read) return damaged(": " + read.error);
        }
        return records;
    }

    bool saveDriving(const DrivingRow& d) override {
        std::lock_guard lock(mutex_);
        return Statement(db_,
                         "INSERT OR REPLACE INTO trips VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                         "?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, (SELECT COALESCE(MAX(received), 0) + "
                         "1 FROM trips))",
                         d.guid, d.userID, d.startDateTime, d.endDateTime, d.startLocation,
                         d.endLocation, d.startLat, d.startLong, d.endLat, d.endLong, d.score,
                         d.counts, d.penalties, d.fuelPenalty, d.totalDistance, d.timeElapsed)
            .run();
    }

    std::vector<DrivingRow> drivings(std::int64_t userID) override {
        std::lock_guard lock(mutex_);
        std::vector<DrivingRow> rows;
        Statement q(db_, "SELECT * FROM trips WHERE user_id = ? ORDER BY received", userID);
        while (q.step()) {
            DrivingRow& d = rows.emplace_back();
            q.read(d.guid, d.userID, d.startDateTime, d.endDateTime, d.startLocation, d.endLocation,
                   d.startLat, d.startLong, d.endLat, d.endLong, d.score, d.counts, d.penalties,
                   d.fuelPenalty, d.totalDistance, d.timeElapsed);
        }
        return rows;
    }

    SummaryRow summary(std::int64_t userID) override {
        std::lock_guard lock(mutex_);
        Statement q(db_,
                    (std::string("SELECT COUNT(*), TOTAL(MIN(MAX(distance_metres, 0), 1e9)), ") +
                     kWeighedScore + " FROM trips WHERE user_id = ?"),
                    userID);
        if (!q.step()) return {};
        return {q.integer(0), q.real(1), q.real(2)};
    }

    std::optional<UserRow> login(const std::string& mobile, const std::string& token) override {
        std::lock_guard lock(mutex_);
        Statement q(db_,
                    (std::string("SELECT ") + kUserColumns +
                     ", token_salt, token_hash FROM users WHERE mobile = ?"),
                    mobile);
        if (!q.step()) return std::nullopt;
        const std::string salt = q.text(9), stored = q.text(10);
        const std::string offered = saltedHash(salt, token);
        if (stored.size() != offered.size() ||
            CRYPTO_memcmp(stored.data(), offered.data(), stored.size()) != 0)
            return std::nullopt;
        return readUser(q);
    }

    std::string issueToken(const std::string& mobile) override {
        const std::string token = randomHex(16), salt = randomHex(16);
        if (token.empty() || salt.empty()) return {};
        const std::string hash = saltedHash(salt, token);
        std::lock_guard lock(mutex_);
        Statement q(db_,
                    "INSERT INTO users(reference_id, mobile, token_salt, token_hash) VALUES (?1, "
                    "?1, ?2, ?3) ON CONFLICT(mobile) DO UPDATE SET token_salt = ?2, token_hash = "
                    "?3",
                    mobile, salt, hash);
        return q.run() ? token : std::string();
    }

    AddedUser addUser(const UserRow& user) override {
        std::lock_guard lock(mutex_);
        // A known reference is never written over: the same registration sent again is answered
        // with its account, any other is refused.
        if (!user.referenceId.empty()) {
            Statement known(db_,
                            "SELECT id, first_name = ?2 AND last_name = ?3 AND email = ?4 AND "
                            "gender = ?5 FROM users WHERE reference_id = ?1",
                            user.referenceId, user.firstName, user.lastName, user.email,
                            user.genderId);
            if (known.step()) return {known.integer(1) ? known.integer(0) : 0, !known.integer(1)};
        }
        Statement q(db_,
                    "INSERT INTO users(reference_id, first_name, last_name, email, gender) "
                    "VALUES (NULLIF(?, ''), ?, ?, ?, ?) RETURNING id",
                    user.referenceId, user.firstName, user.lastName, user.email, user.genderId);
        return {q.step() ? q.integer(0) : 0, false};
    }

    bool addFriend(const std::string& referenceId, const std::string& friendReferenceId) override {
        std::lock_guard lock(mutex_);
        Statement known(db_, "SELECT COUNT(*) FROM users WHERE reference_id IN (?, ?)", referenceId,
                        friendReferenceId);
        if (!known.step() || known.integer(0) != (referenceId == friendReferenceId ? 1 : 2))
            return false;
        return Statement(db_, "INSERT OR IGNORE INTO friends VALUES (?1, ?2), (?2, ?1)",
                         referenceId, friendReferenceId)
            .run();
    }

    std::optional<UserRow> user(std::int64_t id) override {
        std::lock_guard lock(mutex_);
        Statement q(db_, (std::string("SELECT ") + kUserColumns + " FROM users WHERE id = ?"), id);
        if (!q.step()) return std::nullopt;
        return readUser(q);
    }

    std::vector<LeaderRow> leaders(const UserRow& me, int scope) override {
        std::lock_guard lock(mutex_);
        // Everyone, the country, the city, the friends and oneself.
        static constexpr const char* kScopes[] = {
            "1", "u.country = ?2", "u.city = ?2",
            "u.id = ?1 OR u.reference_id IN (SELECT friend_ref FROM friends WHERE user_ref = ?3)"};
        const char* where = kScopes[scope >= 1 && scope <= 3 ? scope : 0];
        const std::string sql =
            "SELECT u.id, TRIM(u.first_name || ' ' || u.last_name), u.city, u.country, "
            "COUNT(guid), " +
            std::string(kWeighedScore) + " FROM users u LEFT JOIN trips ON user_id = u.id WHERE " +
            where + " GROUP BY u.id ORDER BY 6 DESC, 1 ASC";
        Statement q(db_, sql, me.id, scope == 1 ? me.country : me.city, me.referenceId);
        std::vector<LeaderRow> rows;
        while (q.step())
            rows.push_back(
                {q.integer(0), q.text(1), q.text(2), q.text(3), q.integer(4), q.real(5)});
        return rows;
    }

    bool healthy() override {
        std::lock_guard lock(mutex_);
        return Statement(db_, "SELECT EXISTS (SELECT 1 FROM motion_bulks)").step();
    }

private:
    // Short trips swing widely, so an average over trips weighs each by its distance; trips
    // without any distance are averaged plainly. Rows stored before values were bounded count at
    // the bound (kMaxScore, kMaxDistanceMetres), so that no sum can overflow.
    static constexpr const char* kWeighedScore =
        "CASE WHEN TOTAL(MIN(MAX(distance_metres, 0), 1e9)) > 0 THEN "
        "TOTAL(MIN(MAX(score, -1e6), 1e6) * MIN(MAX(distance_metres, 0), 1e9)) / "
        "TOTAL(MIN(MAX(distance_metres, 0), 1e9)) ELSE "
        "TOTAL(MIN(MAX(score, -1e6), 1e6)) / MAX(COUNT(score), 1) END";
    static constexpr const char* kUserColumns =
        "id, reference_id, first_name, last_name, email, city, country, gender, type";

    static UserRow readUser(Statement& q) {
        UserRow u;
        q.read(u.id, u.referenceId, u.firstName, u.lastName, u.email, u.city, u.country, u.genderId,
               u.typeId);
        return u;
    }

    bool createOrUpgrade(const std::string& path, std::string& error);

    /// Runs `sql` in one transaction; false with `what` and SQLite's reason in `error`, nothing
    /// changed, when it fails.
    bool transaction(const std::string& sql, const std::string& what, std::string& error) {
        if (execute(db_, "BEGIN IMMEDIATE; " + sql + "; COMMIT", error)) return true;
        tryExecute(db_, "ROLLBACK");
        error.insert(0, what + ": ");
        return false;
    }

    std::mutex mutex_;
    sqlite3* db_ = nullptr;
};

// A new file gets the schema. A file of the four-file release is moved into it in the same
// transaction, the motion files beside it attached, so that a failure leaves every file as it
// was. Each file kept its database's number: a file of another database is refused.
bool SqliteStorage::createOrUpgrade(const std::string& path, std::string& error) {
    const bool earlier = hasTable(db_, "main", "drivings");
    if (hasTable(db_, "main", "points"))
        return failed(
            error, path + " is older than the four-file layout: open it with the release before");
    if (!earlier && Statement(db_, "SELECT 1 FROM sqlite_master").step())
        return failed(error, path + " is not a database of this service");
    const auto number = [&](const std::string& schema) {
        Statement q(db_, ("SELECT value FROM " + schema + ".counters WHERE name = 'database'"));
        return q.step() ? q.integer(0) : 0;
    };
    const auto motionOf = [](const std::string& schema, int k) {
        return "SELECT t.guid, m.*, " + std::to_string(k) + " AS file FROM " + schema +
               ".motion m JOIN " + schema + ".trip_ids t ON t.id = m.trip";
    };
    std::string sql = kSchemaVersion1;
    std::vector<std::string> attached;
    if (earlier) {
        std::string rows = motionOf("main", 0);
        for (int k = 1; k <= 3; ++k) {
            const std::string schema = "m" + std::to_string(k),
                              file = path + ".motion-" + std::to_string(k);
            std::error_code ignored;
            if (!std::filesystem::exists(file, ignored)) continue;
            if (!Statement(db_, ("ATTACH DATABASE ? AS " + schema), file).run())
                return failed(error, "cannot read " + file + ": " + sqlite3_errmsg(db_));
            attached.push_back(file);
            if (!hasTable(db_, schema.c_str(), "motion")) continue;
            if (number(schema) != number("main"))
                return failed(error, file +
                                         " holds records of another database: move it away, or "
                                         "put back the database file it was made with");
            rows += " UNION ALL " + motionOf(schema, k);
        }
        sql += "CREATE TEMP VIEW earlier_motion AS " + rows + "; " + kFromFourFiles;
    }
    sql +=
        "PRAGMA application_id = " + std::to_string(kApplicationId) + "; PRAGMA user_version = 1";
    const bool done =
        transaction(sql, (earlier ? "cannot upgrade " : "cannot create ") + path, error);
    for (int k = 1; k <= 3; ++k) tryExecute(db_, "DETACH DATABASE m" + std::to_string(k));
    // Every record is in the one file now: the others would only mislead.
    std::error_code ignored;
    for (const std::string& file : done ? attached : std::vector<std::string>{})
        for (const char* suffix : {"", "-wal", "-shm"})
            std::filesystem::remove(file + suffix, ignored);
    return done;
}

}  // namespace

std::unique_ptr<Storage> openSqliteStorage(const std::string& path, std::string& error) {
    auto storage = std::make_unique<SqliteStorage>();
    if (!storage->open(path, error)) return nullptr;
    return storage;
}

}  // namespace kestrelvue::service
