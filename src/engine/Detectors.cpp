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

double checkFuelEfficiency(int orientation, const Vector3& userAcceleration,
                           const ThresholdList& levels) {
    const double ay = userAcceleration.y;
    const double v = orientation == kFaceUp && ay < 0 ? std::fabs(ay) : 0.0;
    // The band only gates: its impact and flag are not passed on.
    return thresholdImpactFor(v, levels).impact > 0 ? v : 0.0;
}

}  // namespace kestrelvue::detail

// ---- Lane change
// ---------------------------------------------------------------------------------

namespace kestrelvue::detail {

namespace {

bool sameSign(double a, double b) {
    return (a > 0 && b > 0) || (a < 0 && b < 0);
}
bool oppositeSigns(double a, double b) {
    return (a > 0 && b < 0) || (a < 0 && b > 0);
}

}  // namespace

Finding checkSharpLaneChanging(LaneChangingData& state, int orientation, double r,
                               const LaneChangeSettings& settings, const ThresholdList& levels) {
    Finding result;
    bool add = false;
    bool finish = false;
    const double ui = settings.updateInterval;
    const auto d1 = static_cast<double>(settings.duration1);
    const auto d2 = static_cast<double>(settings.duration2);
    const auto d3 = static_cast<double>(settings.duration3);
    const auto d4 = static_cast<double>(settings.duration4);

    if (state.index == 0) {
        // A manoeuvre starts with a clear yaw while the phone lies flat; lying face down mirrors
        // the sign.
        if ((orientation == kFaceUp && r > 1.0) || (orientation == kFaceDown && r < -1.0)) {
            state.direction = 'L';
            add = true;
        } else if ((orientation == kFaceUp && r < -1.0) || (orientation == kFaceDown && r > 1.0)) {
            state.direction = 'R';
            add = true;
        }
    } else {
        const double p = state.rotZItems.empty() ? 0.0 : state.rotZItems.back();
        const std::int64_t s = state.indexWhenSignChanged;
        if (s == 0 && sameSign(p, r)) {
            add = true;
        } else if (s == 0 && oppositeSigns(p, r)) {
            state.indexWhenSignChanged = state.index + 1;
            add = true;
        } else if (s > 0 && sameSign(p, r)) {
            add = true;
            if (std::fabs(r) < std::fabs(p) && std::fabs(r) < 1.0) finish = true;  // dying away
        } else if (s > 0 && oppositeSigns(p, r)) {
            finish = true;  // a third swing ends the manoeuvre without joining it
        }
    }

    if (add) {
        state.rotZItems.push_back(r);
        ++state.index;
        if (r > state.maxRotZ)
            state.maxRotZ = r;
        else if (r < state.minRotZ)
            state.minRotZ = r;
        const double elapsed = static_cast<double>(state.index) * ui;
        if (state.indexWhenSignChanged == 0 && d4 < elapsed) {
            state.reset();  // a first swing that long is a bend in the road, not a lane change
        } else if (state.indexWhenSignChanged > 0 && d4 - 1.0 <= elapsed) {
            finish = true;
        }
    }

    if (finish) {
        const double whole = static_cast<double>(state.index) * ui;
        const double firstSwing = static_cast<double>(state.indexWhenSignChanged) * ui;
        const double peakLeft = state.maxRotZ;
        const double peakRight = std::fabs(state.minRotZ);
        const bool counts =
            d3 <= whole && whole <= d4 && d1 <= firstSwing && firstSwing <= d2 &&
            state.indexWhenSignChanged < state.index &&
            (exceedsThresholds(peakLeft, levels) || exceedsThresholds(peakRight, levels));
        if (counts) {
            result.rate = peakLeft > peakRight ? peakLeft : peakRight;
            const ThresholdImpact first = thresholdImpactFor(peakLeft, levels);
            const ThresholdImpact second = thresholdImpactFor(peakRight, levels);
            result.impact = second.impact >= first.impact ? second.impact : first.impact;
            result.isPerKM = second.isPerKilometer;  // the second lookup's flag is the one kept
            result.finding = state.direction == 'R' ? FaultTypes::sharpLaneChangingRight
                                                    : FaultTypes::sharpLaneChangingLeft;
        }
        state.reset();
    }
    return result;
}

}  // namespace kestrelvue::detail
