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

}  // namespace kestrelvue::detail

namespace kestrelvue {

double DrivingInsight::Impl::calculateScore() {
    // Settles the per-km totals into per-kilometre figures, as the record carries them.
    trip.score = detail::calculateScore(trip.totals, trip.odometer.totalTraveledDistance,
                                        birKilometreKacMetre);
    return trip.score;
}

}  // namespace kestrelvue
