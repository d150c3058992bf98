#pragma once
// The rows the service reads from requests and keeps: what the handlers and every storage backend
// share, apart from both.

#include <kestrelvue/service/MotionBulk.h>

#include <array>
#include <cstdint>
#include <string>

namespace kestrelvue::service {

struct DrivingRow {
    std::int64_t userID = 0;
    std::string guid{};
    std::string startDateTime{}, endDateTime{};  // "yyyy-MM-dd HH:mm:ss +0000"
    std::string startLocation{}, endLocation{};
    double startLat = 0, startLong = 0, endLat = 0, endLong = 0;
    double score = 0;
    std::array<std::int64_t, detail::kEventKindCount> counts{};  // by detail::EventKind
    std::array<double, detail::kEventKindCount> penalties{};
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
