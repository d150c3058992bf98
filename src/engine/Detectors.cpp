#include "engine/Detectors.h"

#include <cmath>

namespace kestrelvue::detail {

namespace {

// Looks `rate` up and reports `onHit` when a band with a positive impact holds it.
Finding judge(double rate, const ThresholdList& levels, FaultTypes onHit) {
    const BandImpact band = lookUpBand(rate, levels);
    Finding result{FaultTypes::none, rate, band.impact, band.isPerKilometer};
    if (band.impact > 0) result.finding = onHit;
    return result;
}

}  // namespace

Finding checkSharpCornering(int orientation, const Vector3& userAcceleration,
                            const ThresholdList& levels) {
    const double ax = userAcceleration.x;
    if (orientation == kFaceUp && ax < 0)
        return judge(std::fabs(ax), levels, FaultTypes::sharpCorneringRight);
    if (orientation == kFaceDown && ax > 0)
        return judge(ax, levels, FaultTypes::sharpCorneringRight);
    if (orientation == kFaceUp && ax > 0) return judge(ax, levels, FaultTypes::sharpCorneringLeft);
    if (orientation == kFaceDown && ax < 0)
        return judge(std::fabs(ax), levels, FaultTypes::sharpCorneringLeft);
    return {};
}

Finding checkSharpElevating(int orientation, const Vector3& rotation,
                            const Vector3& userAcceleration, const ThresholdList& levels) {
    if (orientation != kFaceUp) return {};
    const double rx = rotation.x;
    Finding result;
    if (rx > 0)
        result = judge(std::fabs(rx), levels, FaultTypes::sharpElevatingUp);
    else if (rx < 0)
        result = judge(std::fabs(rx), levels, FaultTypes::sharpElevatingDown);
    else
        return {};
    // Pitching while the car neither accelerates nor turns is the phone moving, not the road.
    const bool gate = std::fabs(userAcceleration.y) >= 0.015 && std::fabs(rotation.y) < 0.2 &&
                      std::fabs(rotation.z) < 0.2;
    if (result.finding != FaultTypes::none && !gate) {
        result.finding = FaultTypes::none;
        result.rate = 0.0;
    }
    return result;
}

SpeedingFinding checkSharpSpeeding(int orientation, const Vector3& userAcceleration,
                                   const ThresholdList& speedingLevels,
                                   const ThresholdList& brakingLevels) {
    SpeedingFinding result;
    if (orientation != kFaceUp) return result;
    const double ay = userAcceleration.y;
    if (ay < 0) {
        result.speedingRate = std::fabs(ay);
        const BandImpact band = lookUpBand(result.speedingRate, speedingLevels);
        result.impact = band.impact;
        result.isPerKM = band.isPerKilometer;
        if (band.impact > 0) result.finding = FaultTypes::sharpSpeeding;
    } else if (ay > 0) {
        result.brakingRate = ay;
        const BandImpact band = lookUpBand(result.brakingRate, brakingLevels);
        result.impact = band.impact;
        result.isPerKM = band.isPerKilometer;
        if (band.impact > 0) result.finding = FaultTypes::sharpBraking;
    }
    return result;
}

}  // namespace kestrelvue::detail
