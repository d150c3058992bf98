#pragma once
// A motion bulk as the reference service reads it, for the programs that look into what the
// library uploads (the replay tool counts and times its records this way).

#include <kestrelvue/Result.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "records/EventKinds.h"

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
    std::array<double, detail::kEventKindCount> penalty{};  // by detail::EventKind
    std::array<double, detail::kEventKindCount> penaltyPerKM{};
    double fuelPerKM = 0;
    double course = 0, horizontalAccuracy = 0, locationSpeed = 0;  // degrees, metres, m/s
    std::array<char, 2> orientation = {'U', 'N'};

    bool hasFault() const;
    std::string_view recordTimeText() const { return {recordTime.data(), recordTime.size()}; }
    bool operator==(const MotionRecord&) const = default;
};

/// A motion bulk as it was read: its records and the text they were read from.
struct MotionBulk {
    std::string guid;
    std::int64_t userID = 0;
    std::string text;  // the bulk's "MotionStr", each record as it came
    std::vector<MotionRecord> records;
};

/// An "addMotionData" body: "UserID", "DrivingGuid" (required) and "MotionStr", whose records
/// each hold 39 comma-terminated fields and end with ";". A record that is malformed or holds
/// what cannot be true (a latitude beyond ±90, a record time that is no date, a penalty that is
/// not finite) refuses the bulk, named by its number and field.
Result<MotionBulk> parseMotionBulk(std::string_view body);

}  // namespace kestrelvue::service
