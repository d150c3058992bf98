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

namespace {

// Registered before any default-priority static initialiser runs, a host's included, so that
// even those find the Linux environment.
struct Registrar {
    Registrar() { detail::setPlatformDefaultFactory(&defaultEnvironment); }
};
__attribute__((init_priority(101))) const Registrar registrar;

}  // namespace

}  // namespace kestrelvue::posix

// Nothing refers to this file but the registrar inside it, so a static link would leave it out.
// A static kestrelvue names this symbol to the linker as undefined (its link options and its
// pkg-config file), which keeps the file, and with it the registration, in every host.
extern "C" void kestrelvue_posix_default_environment() {}
