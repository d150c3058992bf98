#include <kestrelvue/posix/CurlHttpClient.h>
#include <kestrelvue/posix/DefaultEnvironment.h>
#include <kestrelvue/posix/DefaultRouteProbe.h>
#include <kestrelvue/posix/SqliteOutboxStore.h>

#include <cstdlib>
#include <string_view>

#include "core/NullPlatform.h"
#include "platform/sim/Sim.h"

namespace kestrelvue::posix {

Environment defaultEnvironment() {
    Environment env;
    env.http = std::make_shared<CurlHttpClient>();
    env.reachability = std::make_shared<DefaultRouteProbe>();

    auto mainQueue = std::make_shared<sim::MainQueue>();
    env.mainQueue = mainQueue;
    env.makeMotionManager = [] { return std::make_shared<sim::MotionSource>(); };
    env.makeLocationManager = [] { return std::make_shared<sim::LocationManager>(); };
    env.geocoder = std::make_shared<sim::Geocoder>(mainQueue);
    env.application = std::make_shared<sim::Application>();
    env.device = std::make_shared<sim::Device>();
    env.makeOutboxStore = [](const std::string& directory) {
        return std::make_unique<SqliteOutboxStore>(directory);
    };
    const char* compress = std::getenv("KESTRELVUE_COMPRESS_UPLOADS");
    env.compressUploads = compress && std::string_view(compress) == "1";
    return env;
}

}  // namespace kestrelvue::posix

// The build links this file as the platform's default: no registration, nothing to keep alive.
kestrelvue::Environment kestrelvue::detail::platformDefaultEnvironment() {
    return posix::defaultEnvironment();
}
