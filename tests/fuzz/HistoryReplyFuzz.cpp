// History, route and summary replies from outside: any body must give whole records or a
// refusal with a reason, never a crash, and the readers must agree with the JSON reader about
// what is JSON at all.
#include <kestrelvue/Environment.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>

#include "core/Json.h"
#include "records/HistoryReply.h"
#include "records/ServiceReplies.h"

namespace {

using namespace kestrelvue;

class FixedClock final : public platform::Clock {
public:
    platform::TimePoint now() const override { return {}; }
};

const Environment& environment() {
    static const Environment* env = [] {
        auto* e = new Environment;
        e->clock = std::make_shared<FixedClock>();
        e->applicationInfo = Object{{std::string(kBaseURLKey), Value("http://service.test")}};
        return e;
    }();
    return *env;
}

bool same(double a, double b) {
    return a == b && std::signbit(a) == std::signbit(b);
}

bool sameRecord(const Trip& a, const Trip& b) {
    const auto texts = [](const Trip& t) {
        return std::tie(t.DrivingID, t.StartDateTime_Formatted, t.StartLocation, t.EndLocation,
                        t.TimeElapsed, t.TimeElapsedTotalDistance_Formatted,
                        t.StartAnnotation->subtitle, t.EndAnnotation->subtitle);
    };
    const auto integers = [](const Trip& t) {
        return std::tie(t.UserID, t.StartDateTime, t.EndDateTime, t.SharpCorneringCount,
                        t.SharpSpeedingCount, t.SharpBrakingCount, t.SharpElevatingCount,
                        t.SharpLaneChangingCount);
    };
    const double Trip::*const numbers[] = {&Trip::StartLocationLat,
                                           &Trip::StartLocationLong,
                                           &Trip::EndLocationLat,
                                           &Trip::EndLocationLong,
                                           &Trip::Score,
                                           &Trip::SharpCorneringPenalty,
                                           &Trip::SharpSpeedingPenalty,
                                           &Trip::SharpBrakingPenalty,
                                           &Trip::SharpElevatingPenalty,
                                           &Trip::SharpLaneChangingPenalty,
                                           &Trip::FuelEfficiencyPenaltyPerKM,
                                           &Trip::TotalDistance};
    for (auto field : numbers) {
        if (!same(a.*field, b.*field)) return false;
    }
    return texts(a) == texts(b) && integers(a) == integers(b);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view body(reinterpret_cast<const char*>(data), size);
    const auto history = detail::readHistoryReply(body, environment());
    const auto parsed = json::parse(body);
    if (history.ok) {
        // Accepted: it was a JSON list, and every element became one record.
        if (!parsed || !parsed.value->isList()) __builtin_trap();
        if (history.trips.size() != parsed.value->asList()->size()) __builtin_trap();
        for (const auto& trip : history.trips) {
            if (!trip || !trip->StartAnnotation || !trip->EndAnnotation) __builtin_trap();
        }
    } else {
        if (!history.trips.empty() || history.error.empty()) __builtin_trap();
    }
    // The one-pass reading and the tree it falls back to: the same outcome, record for record.
    const auto tree = detail::readHistoryTree(body, environment());
    if (tree.ok != history.ok || tree.error != history.error ||
        tree.trips.size() != history.trips.size()) {
        __builtin_trap();
    }
    for (std::size_t i = 0; i < tree.trips.size(); ++i) {
        if (!sameRecord(*tree.trips[i], *history.trips[i])) __builtin_trap();
    }
    if (!parsed) return 0;
    // The same text as the call layer would hand it to the route and summary handlers.
    const UserInfo info = Object{{"Data", *parsed.value}};
    if (auto route = detail::readRouteReply(info)) {
        if (route->passedCoordinates.size() != route->fuelDefficiencies.size() ||
            route->faults.size() > route->passedCoordinates.size()) {
            __builtin_trap();
        }
    }
    auto summary = detail::readSummaryReply(info);
    if (!summary && summary.error.empty()) {
        __builtin_trap();
    }
    return 0;
}
