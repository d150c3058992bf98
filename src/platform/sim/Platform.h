#pragma once
// Part of the scriptable platform (platform/sim/Sim.h): safe to call from any thread.

#include <kestrelvue/Environment.h>

#include <memory>

#include "platform/sim/Application.h"
#include "platform/sim/Device.h"
#include "platform/sim/Geocoder.h"
#include "platform/sim/LocationManager.h"
#include "platform/sim/MainQueue.h"
#include "platform/sim/MotionSource.h"
#include "platform/sim/SequentialIdGenerator.h"
#include "platform/sim/VirtualClock.h"

namespace kestrelvue::sim {

/// Every simulated part, made once and wired into an Environment in one place, so the tests and
/// the replay tool play the same host.
struct Platform {
    std::shared_ptr<VirtualClock> clock = std::make_shared<VirtualClock>();
    std::shared_ptr<SequentialIdGenerator> ids = std::make_shared<SequentialIdGenerator>();
    std::shared_ptr<MainQueue> queue = std::make_shared<MainQueue>();
    std::shared_ptr<MotionSource> motion = std::make_shared<MotionSource>();
    std::shared_ptr<LocationManager> location = std::make_shared<LocationManager>();
    std::shared_ptr<Geocoder> geocoder = std::make_shared<Geocoder>(queue);
    std::shared_ptr<Application> application = std::make_shared<Application>();
    std::shared_ptr<Device> device = std::make_shared<Device>();

    /// Points the environment's clock, identifiers, main queue, sensors, geocoder, application
    /// and device at these parts; HTTP, reachability, notifications and application information
    /// are the caller's.
    void installInto(Environment& env) const;
};

}  // namespace kestrelvue::sim
