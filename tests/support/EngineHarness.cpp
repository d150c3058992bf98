#include "support/EngineHarness.h"

namespace kestrelvue::test {

platform::AsyncRequest ScriptedHttpClient::send(platform::HttpRequest request,
                                                platform::HttpCompletion completion) {
    auto [handle, guarded] = platform::AsyncRequest::guard(std::move(completion));
    {
        std::lock_guard lock(mutex_);
        sent_.push_back(request);
        pending_.emplace_back(std::move(request), std::move(guarded));
    }
    if (atOnce_) deliverAll();
    return std::move(handle);
}

void ScriptedHttpClient::setResponder(Responder responder) {
    std::lock_guard lock(mutex_);
    responder_ = std::move(responder);
}

std::size_t ScriptedHttpClient::deliverAll() {
    std::size_t delivered = 0;
    for (;;) {
        std::pair<platform::HttpRequest, platform::HttpCompletion> next;
        Responder responder;
        {
            std::lock_guard lock(mutex_);
            if (pending_.empty()) return delivered;
            next = std::move(pending_.front());
            pending_.erase(pending_.begin());
            responder = responder_;
        }
        platform::HttpResult result = responder ? responder(next.first) : reply(200, "[]");
        if (next.second) next.second(std::move(result));
        ++delivered;
    }
}

std::vector<platform::HttpRequest> ScriptedHttpClient::requests() const {
    std::lock_guard lock(mutex_);
    return sent_;
}

platform::HttpResult ScriptedHttpClient::reply(long status, std::string body) {
    platform::HttpResult r;
    r.response = platform::HttpResponse{status, {}};
    r.body = std::move(body);
    return r;
}

EngineHarness::EngineHarness() {
    installInto(env);
    env.http = http;
    env.reachability =
        std::make_shared<platform::FixedReachabilityProbe>(platform::kReachabilityFlagsReachable);
    env.notifications = center;
    env.applicationInfo = Object{{std::string(kBaseURLKey), Value("http://service.test")}};
}

std::unique_ptr<DrivingInsight> EngineHarness::makeEngine() {
    auto engine = DrivingInsight::makeDetached(env);
    engine->setDrivingInsightDelegate(delegate);
    return engine;
}

platform::Location EngineHarness::fix(double latitude, double longitude, double accuracy,
                                      std::chrono::nanoseconds age) const {
    platform::Location l;
    l.coordinate = {latitude, longitude};
    l.horizontalAccuracy = accuracy;
    l.verticalAccuracy = accuracy;
    l.timestamp = clock->now() + std::chrono::duration_cast<platform::TimePoint::duration>(age);
    l.speed = 10.0;
    l.course = 90.0;
    return l;
}

platform::DeviceMotion EngineHarness::flatSample() {
    platform::DeviceMotion m;
    m.attitude = {0.1, 0.0, 0.0};
    m.gravity = {0.0, 0.0, -1.0};
    return m;
}

}  // namespace kestrelvue::test
