#include "engine/Detectors.h"

#include <cmath>

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

Finding laneChangeStep(LaneChangingData& state, int orientation, double r,
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
