#include "support/TestEnvironment.h"

namespace kestrelvue::test {

Environment makeTestEnvironment(const TestServer& server, posix::CurlHttpClient::Options http) {
    return makeTestEnvironment(server.baseURL(), http);
}

Environment makeTestEnvironment(const std::string& baseURL, posix::CurlHttpClient::Options http) {
    Environment env;
    env.clock = std::make_shared<platform::SystemClock>();
    env.ids = std::make_shared<platform::RandomIdGenerator>();
    env.http = std::make_shared<posix::CurlHttpClient>(http);
    env.reachability = reachableProbe();
    env.mainQueue = std::make_shared<sim::MainQueue>();
    env.notifications = NotificationCenter::make();
    env.applicationInfo = Object{{std::string(kBaseURLKey), Value(baseURL)}};
    return env;
}

std::shared_ptr<platform::ReachabilityProbe> reachableProbe() {
    return std::make_shared<platform::FixedReachabilityProbe>(
        platform::kReachabilityFlagsReachable);
}

std::shared_ptr<platform::ReachabilityProbe> offlineProbe() {
    return std::make_shared<platform::FixedReachabilityProbe>(0u);
}

std::unique_ptr<RestfulCall> makeRestfulCall(const Environment& env) {
    return std::make_unique<RestfulCall>(env.http, env.notifications,
                                         std::make_shared<Reachability>(env.reachability));
}

}  // namespace kestrelvue::test
