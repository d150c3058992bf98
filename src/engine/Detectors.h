#pragma once
// The event detectors as pure functions of a sample, the device orientation, the bands and (for
// the lane change) the detector's own state. The engine calls them under its lock and records
// their findings; keeping them free of the engine lets tests drive them case by case.

#include <kestrelvue/FaultItem.h>
#include <kestrelvue/LaneChangingData.h>
#include <kestrelvue/MotionDataItem.h>
#include <kestrelvue/Threshold.h>
#include <kestrelvue/platform/Location.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kestrelvue::detail {

inline constexpr int kFaceUp = 5;
inline constexpr int kFaceDown = 6;

/// What a detector reports for one sample. A value that was not looked at leaves rate 0,
/// impact 0 and the flag true; a value looked up in vain keeps its rate with impact 0, flag false.
struct Finding {
    FaultTypes finding = FaultTypes::none;
    double rate = 0.0;
    double impact = 0.0;
    bool isPerKM = true;
    bool operator==(const Finding&) const = default;
};

struct SpeedingFinding {
    FaultTypes finding = FaultTypes::none;
    double speedingRate = 0.0;
    double brakingRate = 0.0;
    double impact = 0.0;
    bool isPerKM = true;
    bool operator==(const SpeedingFinding&) const = default;
};

/// Sideways acceleration, face up or face down.
Finding checkSharpCornering(int orientation, const Vector3& userAcceleration,
                            const ThresholdList& levels);
/// Rotation about x, face up only, gated by forward acceleration and the other two rotations.
Finding checkSharpElevating(int orientation, const Vector3& rotation,
                            const Vector3& userAcceleration, const ThresholdList& levels);
/// Forward (speeding) or backward (braking) acceleration, face up only.
SpeedingFinding checkSharpSpeeding(int orientation, const Vector3& userAcceleration,
                                   const ThresholdList& speedingLevels,
                                   const ThresholdList& brakingLevels);
/// The forward acceleration when a fuel band with a positive impact holds it, else 0.
double checkFuelEfficiency(int orientation, const Vector3& userAcceleration,
                           const ThresholdList& levels);

struct LaneChangeSettings {
    std::int64_t duration1 = 3;   // shortest first swing, s
    std::int64_t duration2 = 10;  // longest first swing, s
    std::int64_t duration3 = 4;   // shortest manoeuvre, s
    std::int64_t duration4 = 15;  // longest manoeuvre, s
    double updateInterval = 0.5;  // seconds per sample
};

/// One sample's step of the lane-change state machine over the yaw rate `rotationZ`.
Finding checkSharpLaneChanging(LaneChangingData& state, int orientation, double rotationZ,
                               const LaneChangeSettings& settings, const ThresholdList& levels);

/// The elapsed trip time as the host shows it: "1 saat 5 dk 3 sn", each part only when it is
/// not zero; empty when the time is unknown.
std::string elapsedWordsText(const std::optional<platform::DateComponents>& elapsed);

}  // namespace kestrelvue::detail
