#pragma once
// Turns the service's history reply into Trip records.
//
// A history reply can hold years of trips (6 MB for 10,000), so the common reply is read
// straight from its text into the records in one pass, and only an unusual or damaged one goes
// through a parsed tree (never through the generic Value tree). The reply is taken
// whole or not at all: the first problem (text that is not JSON, a root that is not a list, an
// element that is not an object, a member of the wrong type, a date not in the service's form)
// rejects it, and no record of it reaches the engine.

#include <kestrelvue/Trip.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "records/ServiceDate.h"

namespace kestrelvue {
struct Environment;
}

namespace kestrelvue::detail {

/// The members a history element may carry, in the order in which they are applied.
enum HistoryMember : int {
    kUserId,
    kDrivingGuid,
    kStartDateTime,
    kStartLocation,
    kStartLocationLatitude,
    kStartLocationLongitude,
    kEndDateTime,
    kEndLocation,
    kEndLocationLatitude,
    kEndLocationLongitude,
    kScore,
    kSharpCorneringCount,
    kSharpSpeedingCount,
    kSharpBrakingCount,
    kSharpElevatingCount,
    kSharpLaneChangingCount,
    kSharpCorneringPenalty,
    kSharpSpeedingPenalty,
    kSharpBrakingPenalty,
    kSharpElevatingPenalty,
    kSharpLaneChangingPenalty,
    kFuelEfficiencyPenalty,
    kTimeElapsed,
    kTotalDistance,
    kHistoryMemberCount
};

enum class HistoryKind { integer, number, text, date };

/// The JSON key and kind of `member`.
std::string_view historyKey(HistoryMember member);
HistoryKind historyKind(HistoryMember member);
/// The member that `key` names, or nullopt for a key the library does not read.
std::optional<HistoryMember> findHistoryMember(std::string_view key);

/// One element as read. A member that was absent or null stays unset. Texts point into the
/// reader's buffers and must be applied before the reader moves on.
struct HistoryElement {
    std::array<bool, kHistoryMemberCount> present{};
    std::array<std::int64_t, kHistoryMemberCount> integer{};
    std::array<double, kHistoryMemberCount> number{};
    std::array<std::string_view, kHistoryMemberCount> text{};
    std::array<LocalDateTime, kHistoryMemberCount> date{};
};

/// Fills a fresh record from `element` member by member in the order above, then the pins.
void applyHistoryElement(Trip& trip, const HistoryElement& element, LocalTimeConverter& times);

/// Checks one member's value and stores it, or returns what is wrong with it. Shared by every
/// reader so that they judge values alike. A double for an integer member must be whole and in
/// range; every number must be finite; a date must be in the service's form.
std::optional<std::string> storeInteger(HistoryElement& element, HistoryMember member,
                                        double value);
std::optional<std::string> storeNumber(HistoryElement& element, HistoryMember member, double value);
std::optional<std::string> storeText(HistoryElement& element, HistoryMember member,
                                     std::string_view value);

struct HistoryReply {
    bool ok = false;
    std::vector<std::shared_ptr<Trip>> trips;  // in reply order; empty unless ok
    std::string error;                         // what was wrong, when not ok
};

/// Reads a whole reply body. Records are made over `environment` (clock, addresses).
HistoryReply readHistoryReply(std::string_view body, const Environment& environment);
/// The same through a parsed tree of the whole text: what readHistoryReply falls back to for a
/// reply its one-pass reading does not take, with the same outcome for every text within the
/// size limit (which it does not check).
HistoryReply readHistoryTree(std::string_view body, const Environment& environment);

/// "[3].Score: expected a number": the place and nature of a shape problem.
std::string historyProblem(std::size_t index, HistoryMember member, std::string_view what);

}  // namespace kestrelvue::detail
