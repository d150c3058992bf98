#pragma once

#include <kestrelvue/Export.h>
#include <kestrelvue/FaultItem.h>
#include <kestrelvue/platform/Clock.h>
#include <kestrelvue/platform/Location.h>
#include <kestrelvue/platform/Vector3.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kestrelvue {

/// One evaluated motion sample as it is kept in the buffer and sent to the service. A plain value
/// (trivially copyable), so appending one to the buffer never allocates beyond the buffer itself.
struct KESTRELVUE_EXPORT MotionDataItem {
    std::int64_t ItemId = 0;
    Vector3 Acceleration;  // user acceleration, g
    Vector3 Rotation;      // rotation rate, rad/s
    Vector3 Attitude;      // pitch, roll, yaw, rad
    Vector3 Gravity;       // g
    platform::Location Location;
    FaultItem Fault;
    platform::TimePoint DateTime{};
    int OrientationGiven = 0;   // device orientation code reported by the platform
    int Orientation = 0;        // device orientation code derived from the attitude
    double CurrentSpeed = 0.0;  // km/h

    static constexpr double _birSaatKacSaniye = 3600.0;
    static constexpr double _birKilometreKacMetre = 1000.0;

    /// The longest text toString() can produce (every number at the double's extreme).
    static constexpr std::size_t kMaxTextLength = 10240;

    /// Defaults, with DateTime at the clock's epoch (for containers and later assignment).
    MotionDataItem() = default;
    /// Defaults, with DateTime the clock's present time.
    explicit MotionDataItem(const platform::Clock& clock) : DateTime(clock.now()) {}
    MotionDataItem(std::int64_t itemId, const Vector3& acceleration, const Vector3& rotation,
                   const Vector3& attitude, const Vector3& gravity,
                   const platform::Location& location, const FaultItem& fault,
                   platform::TimePoint dateTime, int orientationGiven, int orientation,
                   double currentSpeed)
        : ItemId(itemId),
          Acceleration(acceleration),
          Rotation(rotation),
          Attitude(attitude),
          Gravity(gravity),
          Location(location),
          Fault(fault),
          DateTime(dateTime),
          OrientationGiven(orientationGiven),
          Orientation(orientation),
          CurrentSpeed(currentSpeed) {}

    /// The record's line of the service's motion text: 39 comma-terminated fields, numbers as
    /// POSIX printf writes them in the C locale, times as "yyyy-MM-dd HH:mm:ss:SSS" local time.
    std::string toString() const;

    /// Writes the same text to `out`, which must have room for kMaxTextLength characters, and
    /// returns the end of what was written. No allocation.
    char* writeTo(char* out) const;
};

/// The two-letter text of a device orientation code; unknown codes read as face up ("FU").
KESTRELVUE_EXPORT const char* orientationText(int code);

}  // namespace kestrelvue
