#pragma once

#include <kestrelvue/Export.h>

#include <cstdint>

namespace kestrelvue {

struct KESTRELVUE_EXPORT SummaryData {
    double averageScore = 0;
    double totalDistance = 0;
    std::int64_t numberOfTrips = 0;

    SummaryData() = default;
    SummaryData(double average, double distance, std::int64_t trips)
        : averageScore(average), totalDistance(distance), numberOfTrips(trips) {}
    bool operator==(const SummaryData&) const = default;
};

}  // namespace kestrelvue
