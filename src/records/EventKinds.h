#pragma once
// The kinds of risky driving that carry a count and penalties, named once for the engine, the
// reference service and the tool. Arrays over them are sized by kEventKindCount and switches over
// them have no default, so that a kind added here and forgotten elsewhere does not compile.

#include <array>
#include <cstddef>
#include <string_view>

namespace kestrelvue::detail {

/// In the order the score adds them up and the motion text gives their penalties. (Fuel
/// inefficiency has only a per-kilometre penalty and is kept beside them.)
enum class EventKind : std::size_t { cornering, speeding, braking, elevating, laneChanging };
inline constexpr std::size_t kEventKindCount = 5;
inline constexpr std::array<EventKind, kEventKindCount> kEventKinds = {
    EventKind::cornering, EventKind::speeding, EventKind::braking, EventKind::elevating,
    EventKind::laneChanging};

struct EventKindNames {
    std::string_view wire;    // the stem of "SharpBrakingCount", "BrakingPenaltyPerKM", ...Level
    std::string_view column;  // the stem of the service's columns: "braking_count"
    std::string_view tool;    // the tool's name: "braking"
};

constexpr EventKindNames namesOf(EventKind kind) {
    switch (kind) {
        case EventKind::cornering:
            return {"Cornering", "cornering", "cornering"};
        case EventKind::speeding:
            return {"Speeding", "speeding", "acceleration"};
        case EventKind::braking:
            return {"Braking", "braking", "braking"};
        case EventKind::elevating:
            return {"Elevating", "elevating", "elevating"};
        case EventKind::laneChanging:
            return {"LaneChanging", "lane_changing", "lane-change"};
    }
    return {};
}

constexpr bool kindsInOrder() {
    for (std::size_t i = 0; i < kEventKindCount; ++i)
        if (kEventKinds[i] != EventKind(i) || namesOf(kEventKinds[i]).wire.empty()) return false;
    return true;
}
static_assert(kindsInOrder(), "kEventKinds lists every kind once, in order");

}  // namespace kestrelvue::detail
