#pragma once
// A simulated host for engine tests: the sim platform in virtual time, an HTTP client whose
// replies the test releases, and a delegate that records what the host heard.

#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/Environment.h>
#include <kestrelvue/platform/HttpClient.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/Locked.h"
#include "engine/EngineImpl.h"
#include "platform/sim/Sim.h"
#include "support/TestDoubles.h"

namespace kestrelvue::test {

/// Keeps every request until the test answers it with deliverAll() (on the test's thread,
/// standing in for a worker thread); or, after answerAtOnce(), answers inside send().
class ScriptedHttpClient final : public platform::HttpClient {
public:
    using Responder = std::function<platform::HttpResult(const platform::HttpRequest&)>;

    platform::AsyncRequest send(platform::HttpRequest request,
                                platform::HttpCompletion completion) override;

    void setResponder(Responder responder);
    void answerAtOnce() { atOnce_ = true; }
    /// Answers pending requests, and those sent meanwhile, until none is left.
    std::size_t deliverAll();
    std::vector<platform::HttpRequest> requests() const;

    static platform::HttpResult reply(long status, std::string body);

private:
    mutable std::mutex mutex_;
    Responder responder_;
    std::atomic<bool> atOnce_{false};
    std::vector<platform::HttpRequest> sent_;
    std::vector<std::pair<platform::HttpRequest, platform::HttpCompletion>> pending_;
};

struct EngineHarness : sim::Platform {
    EngineHarness();

    std::shared_ptr<ScriptedHttpClient> http = std::make_shared<ScriptedHttpClient>();
    std::shared_ptr<NotificationCenter> center = NotificationCenter::make();
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    Environment env;

    /// A detached engine over env, with the recording delegate installed.
    std::unique_ptr<DrivingInsight> makeEngine();

    /// A fix at the clock's present time (plus `age`, usually negative).
    platform::Location fix(double latitude, double longitude, double accuracy,
                           std::chrono::nanoseconds age = {}) const;
    /// A sample taken while the device lies flat (pitch 0.1).
    static platform::DeviceMotion flatSample();
};

}  // namespace kestrelvue::test

namespace kestrelvue {

/// Reaches the engine's state for tests: its parts, read or changed under the engine's lock.
struct DrivingInsightTestAccess {
    template <class Read>
    static auto read(const DrivingInsight& e, Read&& what) {
        const DrivingInsight::Impl& impl = *e.impl_;
        return detail::withLock(impl.mutex_, [&] { return what(impl); });
    }
    template <class Change>
    static void change(DrivingInsight& e, Change&& how) {
        detail::withLock(e.impl_->mutex_, [&] { how(*e.impl_); });
    }
};

}  // namespace kestrelvue
