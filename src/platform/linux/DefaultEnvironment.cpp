#include <kestrelvue/Environment.h>
#include <kestrelvue/posix/CurlHttpClient.h>
#include <kestrelvue/posix/DefaultRouteProbe.h>

namespace kestrelvue {

Environment Environment::makeDefault() {
    Environment env;
    env.clock = std::make_shared<platform::SystemClock>();
    env.ids = std::make_shared<platform::RandomIdGenerator>();
    env.http = std::make_shared<posix::CurlHttpClient>();
    env.reachability = std::make_shared<posix::DefaultRouteProbe>();
    env.notifications = std::shared_ptr<NotificationCenter>(&NotificationCenter::defaultCenter(),
                                                            [](NotificationCenter*) {});
    return env;
}

}  // namespace kestrelvue
