#pragma once
// Readers of the route and summary replies, which arrive through the call layer as Values.
// Each reads a whole reply or nothing: a reply of the wrong shape is never half applied.

#include <kestrelvue/Result.h>
#include <kestrelvue/SummaryData.h>
#include <kestrelvue/Trip.h>
#include <kestrelvue/Value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvue::detail {

struct RouteLists {
    std::vector<platform::Coordinate> passedCoordinates;
    std::vector<Trip::FaultStruct> faults;
    std::vector<Trip::FuelInefficiencyStruct> fuelDefficiencies;
};

/// The route lists of a reply notification's user information, or nullopt when they must stay as
/// they were: an "error" text, no "Data" list of objects, or a member of the wrong type (a null
/// member counts as absent; the penalty members of a point without a fault are not looked at).
std::optional<RouteLists> readRouteReply(const UserInfo& userInfo);

/// The members one summary element carries.
struct SummaryUpdate {
    std::optional<double> averageScore;
    std::optional<double> totalDistance;
    std::optional<std::int64_t> numberOfTrips;
};

/// The elements of a summary reply's "Data", in order, or a description of what is wrong with
/// it ("Data" missing or not a list of objects, a member of the wrong type; null is absent).
Result<std::vector<SummaryUpdate>> readSummaryReply(const UserInfo& userInfo);

/// Writes the updates into `record` member by member, later elements over earlier ones.
void applySummaryUpdates(SummaryData& record, const std::vector<SummaryUpdate>& updates);

}  // namespace kestrelvue::detail
