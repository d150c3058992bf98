#pragma once
// What the engines, trip records and uploads made over one environment share, owned by that
// environment (Environment::services()): the durable outbox, the engine a trip upload reports to,
// and the service addresses trip records hold. Records do not know the engine: an engine
// registers the way to reach its delegate when it starts and removes it when it ends; an upload
// asks for it when its reply arrives. No engine over the environment, no report (and no engine
// is made for one).

#include <kestrelvue/Delegates.h>
#include <kestrelvue/Environment.h>

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrelvue::detail {

class Outbox;
using DelegateSource = std::function<std::shared_ptr<DrivingInsightDelegate>()>;

class EnvironmentServices {
public:
    explicit EnvironmentServices(const Environment& environment) : env_(environment) {}
    EnvironmentServices(const EnvironmentServices&) = delete;
    EnvironmentServices& operator=(const EnvironmentServices&) = delete;

    /// The outbox over the environment's directory, shared by every engine made over it and
    /// open while one holds it; nullptr when the host set no directory or no store factory.
    std::shared_ptr<Outbox> outbox();
    /// The outbox an engine holds open, if any.
    std::shared_ptr<Outbox> openOutbox();

    /// Called by an engine when it starts and ends; the source is called only between the two.
    void registerTripReporter(const void* owner, DelegateSource source);
    void unregisterTripReporter(const void* owner);
    /// The delegate of the first engine registered, copied while that engine cannot end; null
    /// without one. Called on HTTP worker threads while engines come and go on the host's.
    std::shared_ptr<DrivingInsightDelegate> tripReporter();

    /// serviceURL(path), one text for the life of the environment: a history of thousands of
    /// trips shares two.
    const std::string& address(std::string_view path);

private:
    const Environment& env_;
    std::mutex outboxMutex_;
    std::weak_ptr<Outbox> outbox_;
    std::mutex reporterMutex_;
    std::vector<std::pair<const void*, DelegateSource>> reporters_;
    std::mutex addressMutex_;
    std::set<std::string, std::less<>> addresses_;
};

}  // namespace kestrelvue::detail
