#pragma once
// Plain value types of the location and map seams.

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/Clock.h>

#include <memory>
#include <string>

namespace kestrelvue::platform {

struct KESTRELVUE_EXPORT Coordinate {
    double latitude = 0.0;   // degrees
    double longitude = 0.0;  // degrees
    bool operator==(const Coordinate&) const = default;
};

/// One location fix. A fix whose latitude is exactly 0.0 counts as having no position.
struct KESTRELVUE_EXPORT Location {
    Coordinate coordinate;
    double altitude = 0.0;            // metres
    double horizontalAccuracy = 0.0;  // metres; negative means invalid
    double verticalAccuracy = 0.0;    // metres
    TimePoint timestamp{};
    double speed = -1.0;   // metres per second; negative means invalid
    double course = -1.0;  // degrees; negative means invalid

    /// Distance along the earth's surface (geodesic on the WGS-84 ellipsoid), in metres.
    double distance(const Location& other) const;
};

/// A map pin; shared by reference between the engine and trip records.
struct KESTRELVUE_EXPORT MapPin {
    Coordinate coordinate;
    std::string title;
    std::string subtitle;
};
using MapPinRef = std::shared_ptr<MapPin>;

/// Hour, minute and second components of an elapsed time, or the whole interval in nanoseconds
/// alone (hour, minute and second zero) when asked for that component only.
struct KESTRELVUE_EXPORT DateComponents {
    long long hour = 0;
    long long minute = 0;
    long long second = 0;
    long long nanosecond = 0;
    bool operator==(const DateComponents&) const = default;

    /// Hours, minutes and whole seconds from `from` to `to` (negative when `to` is earlier);
    /// the fraction of a second is dropped, as a calendar does.
    static DateComponents hourMinuteSecond(TimePoint from, TimePoint to);
    /// Whole seconds alone.
    static DateComponents secondOnly(TimePoint from, TimePoint to);
    /// The whole interval in nanoseconds alone.
    static DateComponents nanosecondOnly(TimePoint from, TimePoint to);
};

/// The shortest decimal text that reads back to `value`, with at least one digit after the point
/// ("41.0", "29.00123"); never in exponent form and independent of the locale.
KESTRELVUE_EXPORT std::string shortestDecimalText(double value);

}  // namespace kestrelvue::platform
