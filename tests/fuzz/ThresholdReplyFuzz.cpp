// Threshold replies from outside: any body the call layer could hand over must either apply
// whole or be refused whole, and always end in exactly one "thresholdsGot".
#include <kestrelvue/DrivingInsight.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "core/Json.h"
#include "platform/sim/Sim.h"

namespace {

using namespace kestrelvue;

// Requests go nowhere: the fuzzer posts the replies itself.
class NoHttp final : public platform::HttpClient {
public:
    platform::AsyncRequest send(platform::HttpRequest, platform::HttpCompletion) override {
        return {};
    }
};

const Environment& environment() {
    static const Environment* env = [] {
        auto* e = new Environment;
        auto queue = std::make_shared<sim::MainQueue>();
        e->clock = std::make_shared<sim::VirtualClock>();
        e->ids = std::make_shared<sim::SequentialIdGenerator>();
        e->http = std::make_shared<NoHttp>();
        e->reachability = std::make_shared<platform::FixedReachabilityProbe>(
            platform::kReachabilityFlagsReachable);
        e->mainQueue = queue;
        e->notifications = NotificationCenter::make();
        e->geocoder = std::make_shared<sim::Geocoder>(queue);
        e->applicationInfo = Object{{std::string(kBaseURLKey), Value("http://service.test")}};
        return e;
    }();
    return *env;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Environment& env = environment();
    auto parsed = json::parse(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!parsed) return 0;
    auto engine = DrivingInsight::makeDetached(env);
    int got = 0;
    auto token =
        env.notifications->addObserver("thresholdsGot", [&](const Notification&) { ++got; });
    env.notifications->post("getThresholds", nullptr, Object{{"Data", *parsed.value}});
    if (got != 1) __builtin_trap();
    return 0;
}
