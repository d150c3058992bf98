#include <kestrelvue/Environment.h>
#include <kestrelvue/posix/CurlHttpClient.h>
#include <kestrelvue/posix/DefaultRouteProbe.h>
#include <kestrelvue/posix/SqliteOutboxStore.h>

#include "platform/sim/Sim.h"

namespace kestrelvue {

Environment Environment::makeDefault() {
    Environment env;
    env.clock = std::make_shared<platform::SystemClock>();
    env.ids = std::make_shared<platform::RandomIdGenerator>();
    env.http = std::make_shared<posix::CurlHttpClient>();
    env.reachability = std::make_shared<posix::DefaultRouteProbe>();
    env.notifications = std::shared_ptr<NotificationCenter>(&NotificationCenter::defaultCenter(),
                                                            [](NotificationCenter*) {});

    // Linux has no motion or location backend yet: the scriptable ones stand in, delivering
    // nothing until a host (a replay, say) drives them, on a main queue the host drains.
    auto mainQueue = std::make_shared<sim::MainQueue>();
    env.mainQueue = mainQueue;
    env.makeMotionManager = [] { return std::make_shared<sim::MotionSource>(); };
    env.makeLocationManager = [] { return std::make_shared<sim::LocationManager>(); };
    env.geocoder = std::make_shared<sim::Geocoder>(mainQueue);
    env.application = std::make_shared<sim::Application>();
    env.device = std::make_shared<sim::Device>();
    env.makeOutboxStore = [](const std::string& directory) {
        return std::make_unique<posix::SqliteOutboxStore>(directory);
    };
    return env;
}

}  // namespace kestrelvue
