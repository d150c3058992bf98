#pragma once
// SQLite storage of the reference service. Trips, accounts and friends: one connection,
// serialised by a mutex. Motion records: MotionFile, spread over files by trip.

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

struct sqlite3;

namespace kestrelvue::service {

class MotionFile;

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
    Storage();
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
    /// True when the database answers a query.
    bool healthy();

private:
    /// Marks new record files as this database's; false when one is another's.
    bool claimMotionFiles(const std::string& path, std::string& error);
    /// The file that keeps `guid`'s records.
    MotionFile& motionOf(const std::string& guid);
    /// Four files: bulks of two trips seldom share one, and two cores store side by side.
    static constexpr std::size_t kMotionFiles = 4;
    std::vector<std::unique_ptr<MotionFile>> motion_;
    std::unordered_set<std::string> keptInDatabaseFile_;
    std::mutex mutex_;
    sqlite3* db_ = nullptr;
};

}  // namespace kestrelvue::service
