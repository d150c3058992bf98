#pragma once
// SQLite storage of the reference service. One connection, serialised by a mutex: the service's
// load is a handful of phones, and SQLite writes are serial anyway.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace kestrelvue::service {

struct ThresholdRow {
    std::string name;
    double limitStart, limitEnd, impact;
    bool perKilometer;
};

/// One evaluated sample as the motion text carries it (position and the eleven penalties).
struct PointRow {
    double latitude = 0, longitude = 0;
    double penalty[5] = {};       // cornering, speeding, braking, elevating, lane changing
    double penaltyPerKM[5] = {};  // the same kinds, per kilometre
    double fuelPerKM = 0;
    bool hasFault() const;
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

    /// Opens (creating when needed) the database and its tables; seeds default bands once.
    bool open(const std::string& path, std::string& error);

    std::vector<ThresholdRow> thresholds();
    void addPoints(const std::string& guid, std::int64_t userID,
                   const std::vector<PointRow>& points);
    std::vector<PointRow> points(const std::string& guid);
    void saveDriving(const DrivingRow& row);
    std::vector<DrivingRow> drivings(std::int64_t userID);

    /// The account for `mobile`: created with `token` on its first login. nullopt when the token
    /// differs from the stored one.
    std::optional<UserRow> login(const std::string& mobile, const std::string& token,
                                 bool& expired);
    std::int64_t addUser(const UserRow& user);
    /// False when either reference is unknown.
    bool addFriend(const std::string& referenceId, const std::string& friendReferenceId);
    std::optional<UserRow> user(std::int64_t id);
    /// Drivers ranked by average score; scope 1 country, 2 city, 3 friends, else everyone.
    std::vector<LeaderRow> leaders(const UserRow& me, int scope);

private:
    bool exec(const char* sql, std::string& error);
    std::mutex mutex_;
    sqlite3* db_ = nullptr;
};

}  // namespace kestrelvue::service
