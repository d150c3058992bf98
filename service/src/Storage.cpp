#include "Storage.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <sqlite3.h>

#include <utility>

#include "MotionFile.h"
#include "Sqlite.h"

namespace kestrelvue::service {
namespace {

constexpr const char* kSchema = R"sql(
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

Storage::Storage() = default;
Storage::~Storage() {
    motion_.clear();  // their connections close before this one
    if (db_) sqlite3_close(db_);
}

namespace {

/// The file that keeps the records of the `k`th share of trips: the database file itself, or
/// one beside it. An in-memory database has its shares in memory too.
std::string motionPath(const std::string& path, std::size_t k) {
    if (k == 0 || path.empty() || path == ":memory:") return path;
    return path + ".motion-" + std::to_string(k);
}

/// FNV-1a: the same trip goes to the same file in every run and every build.
std::size_t shareOf(const std::string& guid, std::size_t files) {
    std::uint64_t hash = 14695981039346656037ull;
    for (const unsigned char c : guid) hash = (hash ^ c) * 1099511628211ull;
    return static_cast<std::size_t>(hash % files);
}

}  // namespace

bool Storage::open(const std::string& path, std::string& error) {
    std::lock_guard lock(mutex_);
    if (!openConnection(path, db_, error) || !execute(db_, kSchema, error)) return false;
    for (const char* upgrade : kUpgrades) {
        std::string alreadyThere;
        execute(db_, upgrade, alreadyThere);  // fails with "duplicate column" on a current file
    }
    // Motion records are spread over files by trip: SQLite writes one transaction at a time to a
    // file, so bulks of different trips are stored side by side only in different files.
    motion_.clear();
    for (std::size_t k = 0; k < kMotionFiles; ++k) {
        motion_.push_back(std::make_unique<MotionFile>());
        if (!motion_.back()->open(motionPath(path, k), error)) return false;
    }
    if (!claimMotionFiles(path, error)) return false;
    // Trips stored before records were spread stay in the database file, where their records are.
    keptInDatabaseFile_.clear();
    for (std::string& guid : motion_[0]->trips()) {
        if (shareOf(guid, kMotionFiles) != 0) keptInDatabaseFile_.insert(std::move(guid));
    }
    return true;
}

// The files of one database carry one number, so that a file another database left (one deleted
// and made anew, say) is refused instead of mixed in.
bool Storage::claimMotionFiles(const std::string& path, std::string& error) {
    std::int64_t number = motion_[0]->databaseNumber();
    if (number == 0) {
        if (RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number) != 1) number = 1;
        number = (number & 0x3fffffffffffffff) | 1;  // positive, never 0
        if (!motion_[0]->setDatabaseNumber(number)) {
            error = "cannot write to database " + path;
            return false;
        }
    }
    for (std::size_t k = 1; k < kMotionFiles; ++k) {
        const std::int64_t theirs = motion_[k]->databaseNumber();
        if (theirs == number) continue;
        // A file without records can be taken over whoever made it.
        if (!motion_[k]->hasRecords() && motion_[k]->setDatabaseNumber(number)) continue;
        error = motionPath(path, k) +
                " holds records of another database: move it away, or put back the database "
                "file it was made with";
        return false;
    }
    return true;
}

MotionFile& Storage::motionOf(const std::string& guid) {
    return *motion_[keptInDatabaseFile_.count(guid) ? 0 : shareOf(guid, kMotionFiles)];
}

// motion_ and keptInDatabaseFile_ are set before the service serves, and only read after: the
// files serialise their own connections, so bulks of trips in different files never wait for
// each other.
std::optional<std::size_t> Storage::addPoints(const std::string& guid, std::int64_t userID,
                                              const std::vector<PointRow>& points) {
    return motionOf(guid).add(guid, userID, points);
}

std::vector<PointRow> Storage::points(const std::string& guid) {
    return motionOf(guid).points(guid);
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

bool Storage::healthy() {
    std::lock_guard lock(mutex_);
    return db_ && Statement(db_, "SELECT count(*) FROM sqlite_schema").step();
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
