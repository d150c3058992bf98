#pragma once

#include <cstdint>

namespace kestrelvue {

struct SummaryData {
    double averageScore = 0;
    double totalDistance = 0;
    std::int64_t numberOfTrips = 0;

    SummaryData() = default;
    SummaryData(double averageScore, double totalDistance, std::int64_t numberOfTrips)
        : averageScore(averageScore), totalDistance(totalDistance), numberOfTrips(numberOfTrips) {}
    bool operator==(const SummaryData&) const = default;
};

}  // namespace kestrelvue
