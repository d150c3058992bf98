#pragma once
// The rows the service reads from requests and keeps: what the handlers and every storage backend
// share, apart from both.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestrelvue::service {

/// "yyyy-MM-dd HH:mm:ss:SSS", always that long: held in place, since a bulk has a thousand.
using RecordTime = std::array<char, 23>;

/// One motion record with every one of its 39 fields, in the order the motion text has them.
struct MotionRecord {
    double acceleration[3] = {}, rotation[3] = {}, attitude[3] = {}, gravity[3] = {};
    /// The event characters: cornering, speeding, elevating, lane changing (' ' for none).
    char events[4] = {' ', ' ', ' ', ' '};
    double latitude = 0, longitude = 0;
    std::array<char, 2> orientationGiven = {'U', 'N'};
    double locationSpeedKmh = 0;  // whole km/h, as the text rounds it
    RecordTime locationTime = {};
    double currentSpeedKmh = 0;
    std::int64_t itemId = 0;
    RecordTime recordTime = {};
    double penalty[5] = {};       // cornering, speeding, braking, elevating, lane changing
    double penaltyPerKM[5] = {};  // the same kinds, per kilometre
    double fuelPerKM = 0;
    double course = 0, horizontalAccuracy = 0, locationSpeed = 0;  // degrees, metres, m/s
    std::array<char, 2> orientation = {'U', 'N'};

    bool hasFault() const;
    std::string_view recordTimeText() const { return {recordTime.data(), recordTime.size()}; }
    bool operator==(const MotionRecord&) const = default;
};

struct DrivingRow {
    std::int64_t userID = 0;
    std::string guid{};
    std::string startDateTime{}, endDateTime{};  // "yyyy-MM-dd HH:mm:ss +0000"
    std::string startLocation{}, endLocation{};
    double startLat = 0, startLong = 0, endLat = 0, endLong = 0;
    double score = 0;
    std::int64_t counts[5] = {};  // cornering, speeding, braking, elevating, lane changing
    double penalties[5] = {};
    double fuelPenalty = 0;
    double totalDistance = 0;  // metres
    std::string timeElapsed{};
};

/// A user's trips taken together; the average weighs each trip by its distance.
struct SummaryRow {
    std::int64_t trips = 0;
    double metres = 0, averageScore = 0;
};

struct UserRow {
    std::int64_t id = 0;
    std::string referenceId{}, firstName{}, lastName{}, email{}, city{}, country{};
    std::int64_t genderId = 0, typeId = 4;
};

struct LeaderRow {
    std::int64_t id;
    std::string name, city, country;
    std::int64_t trips;
    double averageScore;  // weighed by distance, as the summary's
};

}  // namespace kestrelvue::service
