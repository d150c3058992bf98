#pragma once
// SQLite storage of the reference service. One connection, serialised by a mutex: the service's
// load is a handful of phones, and SQLite writes are serial anyway. A second connection on a thread
// of its own copies the write-ahead log back into the database file, so that no request waits
// for that copy and its syncs.

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace kestrelvue::service {

/// One evaluated sample as the motion text carries it: its key (running number and record time,
/// within the trip it arrived under), position and the eleven penalties.
struct PointRow {
    std::int64_t itemId = 0;
    // "yyyy-MM-dd HH:mm:ss:SSS", always that long: held in place, since a bulk has a thousand.
    std::array<char, 23> recordTime = {};
    double latitude = 0, longitude = 0;
    double penalty[5] = {};       // cornering, speeding, braking, elevating, lane changing
    double penaltyPerKM[5] = {};  // the same kinds, per kilometre
    double fuelPerKM = 0;
    bool hasFault() const;
    std::string_view recordTimeText() const { return {recordTime.data(), recordTime.size()}; }
};

struct DrivingRow {
    std::int64_t userID = 0;
    std::string guid;
    std::string startDateTime, endDateTime;  // "yyyy-MM-dd HH:mm:ss +0000"
    std::string startLocation, endLocation;
    double startLat = 0, startLong = 0, endLat = 0, endLong = 0;
    double score = 0;
    std::int64_t counts[5] = {};  // cornering, speeding, braking, elevating, lane changing
    double penalties[5] = {};
    double fuelPenalty = 0;
    double totalDistance = 0;
    std::string timeElapsed;
};

struct UserRow {
    std::int64_t id = 0;
    std::string referenceId, firstName, lastName, email, city, country;
    std::int64_t genderId = 0, typeId = 4;
};

struct LeaderRow {
    std::int64_t id;
    std::string name, city, country;
    std::int64_t trips;
    double averageScore;
};

class Storage {
public:
    Storage() = default;
    ~Storage();
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;

    /// Opens (creating or upgrading when needed) the database and its tables.
    bool open(const std::string& path, std::string& error);

    /// Stores the points in one transaction; a point whose key (trip, running number, record
    /// time) is already stored is skipped, so a bulk sent again stores nothing new. The number
    /// stored, or nullopt when the store failed and nothing was kept.
    std::optional<std::size_t> addPoints(const std::string& guid, std::int64_t userID,
                                         const std::vector<PointRow>& points);
    std::vector<PointRow> points(const std::string& guid);
    void saveDriving(const DrivingRow& row);
    std::vector<DrivingRow> drivings(std::int64_t userID);

    /// The account of `mobile` when `token` is the one last issued to it; nullopt otherwise,
    /// whether the number is unknown or the token wrong.
    std::optional<UserRow> login(const std::string& mobile, const std::string& token);
    /// Issues a fresh login token for `mobile` (creating a driver account on first issue) and
    /// stores only its salted hash. Empty when the store failed.
    std::string issueToken(const std::string& mobile);
    std::int64_t addUser(const UserRow& user);
    /// False when either reference is unknown.
    bool addFriend(const std::string& referenceId, const std::string& friendReferenceId);
    std::optional<UserRow> user(std::int64_t id);
    /// Drivers ranked by average score; scope 1 country, 2 city, 3 friends, else everyone.
    std::vector<LeaderRow> leaders(const UserRow& me, int scope);

private:
    bool exec(const char* sql, std::string& error);
    /// Moves the records of a file written before they were kept by their key alone.
    bool upgradePoints(std::string& error);
    /// The insert of one point, or of kRowsPerInsert points, prepared once.
    sqlite3_stmt* prepared(std::size_t rows);
    static constexpr std::size_t kRowsPerInsert = 32;
    /// The arrival number of the next record stored: a route lists its records in arrival order.
    std::int64_t nextArrival_ = 1;
    /// Called after each commit with the log's length in pages; wakes the checkpointer.
    static int committed(void* self, sqlite3* db, const char* schema, int pages);
    void checkpointLoop();
    std::mutex mutex_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt *insertOne_ = nullptr, *insertMany_ = nullptr;
    std::string path_;
    std::thread checkpointer_;
    std::mutex checkpointMutex_;
    std::condition_variable checkpointWake_;
    bool checkpointDue_ = false, stopping_ = false;
};

}  // namespace kestrelvue::service
