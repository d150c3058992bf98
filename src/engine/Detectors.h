#pragma once
// The event detectors as pure functions of a sample, the device orientation, the bands and (for
// the lane change) the detector's own state. The engine calls them under its lock and records
// their findings; keeping them free of the engine lets tests drive them case by case. The four
// that look at one sample alone are defined here, so that they are inlined into the engine's
// per-sample path: as calls, each returned its finding through memory, and a sample's evaluation
// took an eighth longer. Each computes scalars and returns one braced result.

#include <kestrelvue/FaultItem.h>
#include <kestrelvue/LaneChangingData.h>
#include <kestrelvue/MotionDataItem.h>
#include <kestrelvue/Threshold.h>
#include <kestrelvue/platform/Location.h>

#include <cmath>
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
inline Finding checkSharpCornering(int orientation, const Vector3& userAcceleration,
                                   const ThresholdList& levels) {
    const double ax = userAcceleration.x;
    const bool faceUp = orientation == kFaceUp;
    if ((!faceUp && orientation != kFaceDown) || !(ax < 0 || ax > 0)) return {};
    // Face up, a push to the left side (negative x) is a right turn; face down mirrors it.
    const bool right = faceUp ? ax < 0 : ax > 0;
    const double rate = std::fabs(ax);
    const ThresholdImpact band = thresholdImpactFor(rate, levels);
    const FaultTypes finding =
        band.impact > 0 ? (right ? FaultTypes::sharpCorneringRight : FaultTypes::sharpCorneringLeft)
                        : FaultTypes::none;
    return {finding, rate, band.impact, band.isPerKilometer};
}
/// Rotation about x, face up only, gated by forward acceleration and the other two rotations.
inline Finding checkSharpElevating(int orientation, const Vector3& rotation,
                                   const Vector3& userAcceleration, const ThresholdList& levels) {
    const double rx = rotation.x;
    if (orientation != kFaceUp || !(rx < 0 || rx > 0)) return {};
    double rate = std::fabs(rx);
    const ThresholdImpact band = thresholdImpactFor(rate, levels);
    FaultTypes finding = FaultTypes::none;
    if (band.impact > 0) {
        // Pitching while the car neither accelerates nor turns is the phone moving, not the road.
        const bool gate = std::fabs(userAcceleration.y) >= 0.015 && std::fabs(rotation.y) < 0.2 &&
                          std::fabs(rotation.z) < 0.2;
        if (gate)
            finding = rx > 0 ? FaultTypes::sharpElevatingUp : FaultTypes::sharpElevatingDown;
        else
            rate = 0.0;
    }
    return {finding, rate, band.impact, band.isPerKilometer};
}
/// Forward (speeding) or backward (braking) acceleration, face up only.
inline SpeedingFinding checkSharpSpeeding(int orientation, const Vector3& userAcceleration,
                                          const ThresholdList& speedingLevels,
                                          const ThresholdList& brakingLevels) {
    const double ay = userAcceleration.y;
    if (orientation != kFaceUp || !(ay < 0 || ay > 0)) return {};
    const bool speeding = ay < 0;  // the phone's y axis points backwards, as the car goes
    const double rate = std::fabs(ay);
    const ThresholdImpact band =
        thresholdImpactFor(rate, speeding ? speedingLevels : brakingLevels);
    FaultTypes finding = FaultTypes::none;
    if (band.impact > 0) finding = speeding ? FaultTypes::sharpSpeeding : FaultTypes::sharpBraking;
    return {finding, speeding ? rate : 0.0, speeding ? 0.0 : rate, band.impact,
            band.isPerKilometer};
}
/// The forward acceleration when a fuel band with a positive impact holds it, else 0.
inline double checkFuelEfficiency(int orientation, const Vector3& userAcceleration,
                                  const ThresholdList& levels) {
    const double ay = userAcceleration.y;
    const double v = orientation == kFaceUp && ay < 0 ? std::fabs(ay) : 0.0;
    if (v == 0) return 0.0;  // what any band gives it: not looked up (half the samples)
    // The band only gates: its impact and flag are not passed on.
    return thresholdImpactFor(v, levels).impact > 0 ? v : 0.0;
}

struct LaneChangeSettings {
    std::int64_t duration1 = 3;   // shortest first swing, s
    std::int64_t duration2 = 10;  // longest first swing, s
    std::int64_t duration3 = 4;   // shortest manoeuvre, s
    std::int64_t duration4 = 15;  // longest manoeuvre, s
    double updateInterval = 0.5;  // seconds per sample
};

/// The lane-change state machine's step for a sample that moves it: a manoeuvre under way, or
/// a clear yaw while lying flat that may start one.
Finding laneChangeStep(LaneChangingData& state, int orientation, double rotationZ,
                       const LaneChangeSettings& settings, const ThresholdList& levels);

/// One sample's step of the lane-change state machine over the yaw rate `rotationZ`. Idle
/// without a clear yaw while lying flat, as most samples are, nothing moves: that test is inlined
/// into the caller, the step itself is not.
inline Finding checkSharpLaneChanging(LaneChangingData& state, int orientation, double rotationZ,
                                      const LaneChangeSettings& settings,
                                      const ThresholdList& levels) {
    const bool flat = orientation == kFaceUp || orientation == kFaceDown;
    if (state.index == 0 && !(flat && (rotationZ > 1.0 || rotationZ < -1.0))) return {};
    return laneChangeStep(state, orientation, rotationZ, settings, levels);
}

/// The elapsed trip time as the host shows it: "1 saat 5 dk 3 sn", each part only when it is
/// not zero; empty when the time is unknown.
std::string elapsedWordsText(const std::optional<platform::DateComponents>& elapsed);

}  // namespace kestrelvue::detail
