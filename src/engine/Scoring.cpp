#include <cmath>

#include "engine/Detectors.h"
#include "engine/EngineImpl.h"

namespace kestrelvue::detail {

double checkFuelEfficiency(int orientation, const Vector3& userAcceleration,
                           const ThresholdList& levels) {
    const double ay = userAcceleration.y;
    const double v = orientation == kFaceUp && ay < 0 ? std::fabs(ay) : 0.0;
    // The band only gates: its impact and flag are not passed on.
    return thresholdImpactFor(v, levels).impact > 0 ? v : 0.0;
}

double calculateScore(PenaltyTotals& t, double totalTraveledDistance, double metresPerKilometre) {
    // Short trips count as one kilometre, so a few metres cannot blow the per-km totals up.
    if (totalTraveledDistance > 1000.0) {
        const double kilometres = totalTraveledDistance / metresPerKilometre;
        t.sharpCorneringPenaltyPerKM = t.sharpCorneringPenaltyPerKM / kilometres;
        t.sharpSpeedingPenaltyPerKM = t.sharpSpeedingPenaltyPerKM / kilometres;
        t.sharpBrakingPenaltyPerKM = t.sharpBrakingPenaltyPerKM / kilometres;
        t.sharpElevatingPenaltyPerKM = t.sharpElevatingPenaltyPerKM / kilometres;
        t.sharpLaneChangingPenaltyPerKM = t.sharpLaneChangingPenaltyPerKM / kilometres;
        t.fuelEfficiencyPenaltyPerKM = t.fuelEfficiencyPenaltyPerKM / kilometres;
    }
    const double sum =
        t.sharpCorneringPenalty + t.sharpCorneringPenaltyPerKM + t.sharpSpeedingPenalty +
        t.sharpSpeedingPenaltyPerKM + t.sharpBrakingPenalty + t.sharpBrakingPenaltyPerKM +
        t.sharpElevatingPenalty + t.sharpElevatingPenaltyPerKM + t.sharpLaneChangingPenalty +
        t.sharpLaneChangingPenaltyPerKM + t.fuelEfficiencyPenaltyPerKM;
    double score = 100.0 - sum;
    if (score < 0.0) score = 0.0;
    return score;
}

}  // namespace kestrelvue::detail

namespace kestrelvue {

double DrivingInsight::Impl::calculateScore() {
    detail::PenaltyTotals totals{
        sharpCorneringPenalty,         sharpCorneringPenaltyPerKM, sharpSpeedingPenalty,
        sharpSpeedingPenaltyPerKM,     sharpBrakingPenalty,        sharpBrakingPenaltyPerKM,
        sharpElevatingPenalty,         sharpElevatingPenaltyPerKM, sharpLaneChangingPenalty,
        sharpLaneChangingPenaltyPerKM, fuelEfficiencyPenaltyPerKM};
    score = detail::calculateScore(totals, totalTraveledDistance, birKilometreKacMetre);
    sharpCorneringPenaltyPerKM = totals.sharpCorneringPenaltyPerKM;
    sharpSpeedingPenaltyPerKM = totals.sharpSpeedingPenaltyPerKM;
    sharpBrakingPenaltyPerKM = totals.sharpBrakingPenaltyPerKM;
    sharpElevatingPenaltyPerKM = totals.sharpElevatingPenaltyPerKM;
    sharpLaneChangingPenaltyPerKM = totals.sharpLaneChangingPenaltyPerKM;
    fuelEfficiencyPenaltyPerKM = totals.fuelEfficiencyPenaltyPerKM;
    return score;
}

}  // namespace kestrelvue
