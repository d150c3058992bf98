#pragma once
// Plain value types of the location and map seams.

#include <kestrelvue/platform/Clock.h>

#include <memory>
#include <string>

namespace kestrelvue::platform {

struct Coordinate {
    double latitude = 0.0;   // degrees
    double longitude = 0.0;  // degrees
    bool operator==(const Coordinate&) const = default;
};

/// One location fix. A fix whose latitude is exactly 0.0 counts as having no position.
struct Location {
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
struct MapPin {
    Coordinate coordinate;
    std::string title;
    std::string subtitle;
};
using MapPinRef = std::shared_ptr<MapPin>;

/// Hour, minute and second components of an elapsed time.
struct DateComponents {
    long long hour = 0;
    long long minute = 0;
    long long second = 0;
    bool operator==(const DateComponents&) const = default;
};

}  // namespace kestrelvue::platform
