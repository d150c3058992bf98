// Location fixes: which one the engine keeps, and the distance and speed between two of them.

#include <kestrelvue/platform/MotionManager.h>

#include "engine/EngineImpl.h"

namespace kestrelvue {

void DrivingInsight::Impl::didUpdateLocations(const std::vector<platform::Location>& locations) {
    const platform::TimePoint now = env_.clock->now();
    bool askWeather = false;
    std::shared_ptr<platform::MotionManager> motion;
    {
        std::lock_guard lock(mutex_);
        if (!isDriving) return;
        motion = motionManager_;
        if (const platform::Location* best =
                trip.odometer.select(locations, now, settings.distanceFilter))
            trip.odometer.moveTo(*best, settings.distanceFilterForSpeed);
        askWeather = !trip.temperature.has_value();
    }
    if (motion) motion->locationsDidUpdate(locations);
    if (askWeather) requestWeather();
}

}  // namespace kestrelvue
