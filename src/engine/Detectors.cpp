#include "engine/Detectors.h"

#include <cmath>

// Each detector computes scalars and returns one braced result, which lands straight in the
// caller's slot: building the result piecewise made GCC reload it through the stack, stalling
// on store forwarding in the per-sample path.

namespace kestrelvue::detail {

Finding checkSharpCornering(int orientation, const Vector3& userAcceleration,
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

Finding checkSharpElevating(int orientation, const Vector3& rotation,
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

SpeedingFinding checkSharpSpeeding(int orientation, const Vector3& userAcceleration,
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

}  // namespace kestrelvue::detail
