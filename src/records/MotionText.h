#pragma once
// The motion text the library uploads, read back: records of 39 comma-terminated fields, each
// closed by ";". The writer of the text is MotionDataItem::writeTo; this reader sits beside it so
// that the format lives in one place (the reference service and the replay tool read bulks with
// it). appendMotionText writes a read record back the way the library writes it.

#include <kestrelvue/Result.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "records/EventKinds.h"

namespace kestrelvue::detail {

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
    std::array<double, kEventKindCount> penalty{};  // by EventKind
    std::array<double, kEventKindCount> penaltyPerKM{};
    double fuelPerKM = 0;
    double course = 0, horizontalAccuracy = 0, locationSpeed = 0;  // degrees, metres, m/s
    std::array<char, 2> orientation = {'U', 'N'};

    bool hasFault() const;
    std::string_view recordTimeText() const { return {recordTime.data(), recordTime.size()}; }
    bool operator==(const MotionRecord&) const = default;
};

/// Reads the records of a motion text one by one, handing each to `take`: their number, or why
/// the text is refused, as parseMotionText. A reader that keeps only some records (the first and
/// the last, say) holds no more memory for a long text than for a short one.
Result<std::size_t> readMotionText(std::string_view text, bool checkValues,
                                   const std::function<void(const MotionRecord&)>& take);

/// The records of a motion text. A record that is malformed or holds what cannot be true (a
/// latitude beyond ±90, a record time that is no date, a penalty that is not finite) refuses the
/// whole text, named by its number and field. Without `checkValues` only the form is checked:
/// records stored before values were checked are read as they are.
Result<std::vector<MotionRecord>> parseMotionText(std::string_view text, bool checkValues = true);

/// Appends `record` as the library writes it, ";" included.
void appendMotionText(std::string& out, const MotionRecord& record);

/// The largest penalty, trip distance or score that any real trip could have: beyond it a value
/// is refused, so that no sum or average over a user's trips can overflow.
inline constexpr double kMaxPenalty = 1e9, kMaxScore = 1e6, kMaxDistanceMetres = 1e9;

}  // namespace kestrelvue::detail
