// Location fixes: which one the engine keeps, and the distance and speed between two of them.

#include <chrono>
#include <cmath>

#include "engine/EngineImpl.h"

namespace kestrelvue {

namespace {
constexpr double kSpeedCapKmh = 300.0;

/// A fix whose coordinate is not a place on the earth would poison every distance after it.
bool isOnEarth(const platform::Coordinate& c) {
    return std::isfinite(c.latitude) && std::isfinite(c.longitude) && std::abs(c.latitude) <= 90 &&
           std::abs(c.longitude) <= 180;
}
}  // namespace

void DrivingInsight::Impl::didUpdateLocations(const std::vector<platform::Location>& locations) {
    const platform::TimePoint now = env_.clock->now();
    bool askWeather = false;
    {
        std::lock_guard lock(mutex_);
        if (!isDriving) return;

        const platform::Location* best = nullptr;
        for (const platform::Location& fix : locations) {
            if (!(fix.horizontalAccuracy < distanceFilter) || !isOnEarth(fix.coordinate)) continue;
            // A trip always has a current fix (the placeholder until one is accepted); without
            // one, every candidate counts as newer.
            if (currentLocation) {
                const bool newer = fix.timestamp > currentLocation->timestamp;
                const bool sameButBetter =
                    fix.timestamp == currentLocation->timestamp &&
                    fix.horizontalAccuracy < currentLocation->horizontalAccuracy;
                if (!newer && !sameButBetter) continue;
            }
            if (fix.timestamp < now - std::chrono::seconds(1)) continue;
            if (!best || fix.horizontalAccuracy < best->horizontalAccuracy) best = &fix;
        }
        if (best) setCurrentLocationLocked(*best);
        askWeather = !temperature.has_value();
    }
    if (askWeather) requestWeather();
}

void DrivingInsight::Impl::setCurrentLocationLocked(std::optional<platform::Location> value) {
    if (currentLocation && value) calculateSpeedWhenLocationChanged(*currentLocation, *value);
    currentLocation = value;
}

void DrivingInsight::Impl::setTraveledDistanceSinceLastLocationLocked(double value) {
    traveledDistanceSinceLastLocation = value;
    totalTraveledDistance += value;
}

void DrivingInsight::Impl::setCurrentSpeedLocked(double value) {
    previousSpeed = currentSpeed;
    currentSpeed = value;
}

void DrivingInsight::Impl::calculateSpeedWhenLocationChanged(const platform::Location& from,
                                                             const platform::Location& to) {
    // Latitude 0.0 is the placeholder of a trip that has no position yet.
    if (from.coordinate.latitude == 0.0) return;
    if (!(from.horizontalAccuracy < distanceFilterForSpeed) ||
        !(to.horizontalAccuracy < distanceFilterForSpeed))
        return;

    setTraveledDistanceSinceLastLocationLocked(from.distance(to));
    timeElapsedSinceLastLocation =
        platform::DateComponents::nanosecondOnly(from.timestamp, to.timestamp);
    hoursElapsedSinceLastLocation = static_cast<double>(timeElapsedSinceLastLocation->nanosecond) /
                                    (birSaatKacSaniye * birSaniyeKacNanoSaniye);
    if (hoursElapsedSinceLastLocation == 0) return;

    const double speed =
        (traveledDistanceSinceLastLocation / birKilometreKacMetre) / hoursElapsedSinceLastLocation;
    setCurrentSpeedLocked(speed <= kSpeedCapKmh ? speed : kSpeedCapKmh);
}

}  // namespace kestrelvue
