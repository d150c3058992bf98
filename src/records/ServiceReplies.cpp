#include "records/ServiceReplies.h"

#include <cmath>

namespace kestrelvue::detail {
namespace {

// A member that is present must have the expected type; absent and null leave `out` alone.
bool readNumber(const Value& element, std::string_view key, double& out) {
    const Value* v = element.find(key);
    if (!v || v->isNull()) return true;
    if (auto n = v->asNumber()) {
        out = *n;
        return true;
    }
    return false;
}

bool readNumber(const Value& element, std::string_view key, std::optional<double>& out) {
    double value = 0;
    const Value* v = element.find(key);
    if (!v || v->isNull()) return true;
    if (!readNumber(element, key, value)) return false;
    out = value;
    return true;
}

// An integer member: a JSON integer, or a whole number written as a fraction (3.0).
bool readInteger(const Value& element, std::string_view key, std::optional<std::int64_t>& out) {
    const Value* v = element.find(key);
    if (!v || v->isNull()) return true;
    if (auto i = v->asInt()) {
        out = *i;
        return true;
    }
    constexpr double kTwoTo63 = 9223372036854775808.0;
    if (auto d = v->asNumber(); d && *d == std::trunc(*d) && *d >= -kTwoTo63 && *d < kTwoTo63) {
        out = static_cast<std::int64_t>(*d);
        return true;
    }
    return false;
}

bool readBool(const Value& element, std::string_view key, bool& out) {
    const Value* v = element.find(key);
    if (!v || v->isNull()) return true;
    if (auto b = v->asBool()) {
        out = *b;
        return true;
    }
    return false;
}

bool isErrorText(const UserInfo& info) {
    if (!info) return false;
    auto it = info->find("error");
    return it != info->end() && it->second.isString();
}

const List* dataList(const UserInfo& info) {
    if (!info) return nullptr;
    auto it = info->find("Data");
    return it == info->end() ? nullptr : it->second.asList();
}

std::string problemAt(std::size_t index, std::string_view key, std::string_view what) {
    std::string out = "[";
    out += std::to_string(index);
    out += "]";
    if (!key.empty()) {
        out += '.';
        out += key;
    }
    out += ": ";
    out += what;
    return out;
}

}  // namespace

std::optional<RouteLists> readRouteReply(const UserInfo& info) {
    if (isErrorText(info)) return std::nullopt;
    const List* data = dataList(info);
    if (!data) return std::nullopt;
    RouteLists lists;
    lists.passedCoordinates.reserve(data->size());
    lists.fuelDefficiencies.reserve(data->size());
    for (const Value& point : *data) {
        if (!point.isObject()) return std::nullopt;
        platform::Coordinate at;
        bool hasFault = false;
        if (!readNumber(point, "Latitude", at.latitude) ||
            !readNumber(point, "Longitude", at.longitude) ||
            !readBool(point, "HasFault", hasFault)) {
            return std::nullopt;
        }
        lists.passedCoordinates.push_back(at);
        if (hasFault) {
            // Each kind's charge is its penalty plus its per-kilometre penalty.
            double part[10] = {};
            static constexpr std::string_view kKeys[10] = {
                "CorneringPenalty",        "SpeedingPenalty",     "BrakingPenalty",
                "ElevatingPenalty",        "LaneChangingPenalty", "CorneringPenaltyPerKM",
                "SpeedingPenaltyPerKM",    "BrakingPenaltyPerKM", "ElevatingPenaltyPerKM",
                "LaneChangingPenaltyPerKM"};
            for (int i = 0; i < 10; ++i) {
                if (!readNumber(point, kKeys[i], part[i])) return std::nullopt;
            }
            lists.faults.push_back({at, part[0] + part[5], part[1] + part[6], part[2] + part[7],
                                    part[3] + part[8], part[4] + part[9]});
        }
        double fuel = 0;
        if (!readNumber(point, "FuelEfficiencyPenaltyPerKM", fuel)) return std::nullopt;
        lists.fuelDefficiencies.push_back({at, fuel});
    }
    return lists;
}

Result<std::vector<SummaryUpdate>> readSummaryReply(const UserInfo& info) {
    using Read = Result<std::vector<SummaryUpdate>>;
    const List* data = dataList(info);
    if (!data) return Read::failure("the reply is not a list of objects");
    std::vector<SummaryUpdate> updates;
    updates.reserve(data->size());
    for (std::size_t i = 0; i < data->size(); ++i) {
        const Value& element = (*data)[i];
        if (!element.isObject()) return Read::failure(problemAt(i, "", "expected an object"));
        SummaryUpdate u;
        if (!readNumber(element, "AverageScore", u.averageScore)) {
            return Read::failure(problemAt(i, "AverageScore", "expected a number"));
        }
        if (!readNumber(element, "TotalDistance", u.totalDistance)) {
            return Read::failure(problemAt(i, "TotalDistance", "expected a number"));
        }
        if (!readInteger(element, "NumberOfTrips", u.numberOfTrips)) {
            return Read::failure(problemAt(i, "NumberOfTrips", "expected an integer"));
        }
        updates.push_back(u);
    }
    return updates;
}

void applySummaryUpdates(SummaryData& record, const std::vector<SummaryUpdate>& updates) {
    for (const SummaryUpdate& u : updates) {
        if (u.averageScore) record.averageScore = *u.averageScore;
        if (u.totalDistance) record.totalDistance = *u.totalDistance;
        if (u.numberOfTrips) record.numberOfTrips = *u.numberOfTrips;
    }
}

}  // namespace kestrelvue::detail
