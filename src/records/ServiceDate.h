#pragma once
// The service's date form ("yyyy-MM-dd'T'HH:mm:ss", local time without a zone) and its fast
// conversion to instants. The display texts of a record are Trip::formatDateTime and
// Trip::formatTimeElapsedTotalDistance, shared by every producer of records.

#include <kestrelvue/platform/Clock.h>

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace kestrelvue::detail {

/// A local (wall-clock) date and time to the second.
struct LocalDateTime {
    int year = 1970;
    int month = 1;  // 1..12
    int day = 1;    // 1..31
    int hour = 0;
    int minute = 0;
    int second = 0;
    bool operator==(const LocalDateTime&) const = default;
};

/// Reads the service's "yyyy-MM-dd'T'HH:mm:ss" strictly: exactly that form, no fraction, no
/// zone, a real calendar date (a 30 February fails) and a year from 1678 to 2261, the span a
/// record's time (nanoseconds since 1970) can hold.
std::optional<LocalDateTime> parseServiceDateTime(std::string_view text);

/// "dd.MM.yyyy HH:mm" of a wall-clock time with a year of four digits (Trip::formatDateTime).
std::string formatDisplayDate(const LocalDateTime& local);

/// Turns wall-clock times of the process's time zone into instants, as mktime does (a time in
/// a gap or an ambiguous one gets the zone's own choice). mktime costs up to several
/// microseconds, which a 10,000-trip history would pay twice a trip; most trips fall on days
/// whose offset does not change, so such a day's offset is found once and reused.
/// Not thread-safe: make one per reply (which also lets a later reply see a changed zone).
class LocalTimeConverter {
public:
    /// When `readsBack` is given, it is set when the instant is known to read back as `local`
    /// in this zone (every time of a day of one offset does): its display text can then be
    /// written from `local` without asking the zone again.
    platform::TimePoint fromLocal(const LocalDateTime& local, bool* readsBack = nullptr);

private:
    struct Slot {
        std::int64_t day =
            std::numeric_limits<std::int64_t>::min();  // days since 1970-01-01 of the local date
        bool steady = false;                           // one offset all day long
        std::int64_t offset = 0;                       // local minus universal time, seconds
    };
    Slot measureDay(std::int64_t day, const LocalDateTime& anyTimeOfDay);
    std::array<Slot, 64> slots_{};
    bool haveOffset_ = false;
    std::int64_t lastOffset_ = 0;
};

}  // namespace kestrelvue::detail
