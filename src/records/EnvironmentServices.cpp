#include "records/EnvironmentServices.h"

#include <algorithm>

#include "net/Outbox.h"

namespace kestrelvue {

Environment::ServicesSlot::ServicesSlot() = default;
Environment::ServicesSlot::~ServicesSlot() = default;

detail::EnvironmentServices& Environment::services() const {
    std::lock_guard lock(services_.mutex_);
    if (!services_.services_)
        services_.services_ = std::make_unique<detail::EnvironmentServices>(*this);
    return *services_.services_;
}

namespace detail {

std::shared_ptr<Outbox> EnvironmentServices::outbox() {
    const std::string directory = env_.outboxPath();
    if (directory.empty() || !env_.makeOutboxStore) return nullptr;
    std::lock_guard lock(outboxMutex_);
    if (auto open = outbox_.lock()) return open;
    auto made = std::make_shared<Outbox>(env_, env_.makeOutboxStore(directory));
    outbox_ = made;
    return made;
}

std::shared_ptr<Outbox> EnvironmentServices::openOutbox() {
    std::lock_guard lock(outboxMutex_);
    return outbox_.lock();
}

void EnvironmentServices::registerTripReporter(const void* owner, DelegateSource source) {
    std::lock_guard lock(reporterMutex_);
    reporters_.emplace_back(owner, std::move(source));
}

void EnvironmentServices::unregisterTripReporter(const void* owner) {
    std::lock_guard lock(reporterMutex_);
    auto it = std::find_if(reporters_.begin(), reporters_.end(),
                           [owner](const auto& r) { return r.first == owner; });
    if (it != reporters_.end()) reporters_.erase(it);
}

std::shared_ptr<DrivingInsightDelegate> EnvironmentServices::tripReporter() {
    // Called under the lock: the engine's unregistering waits for it, so it is still alive.
    std::lock_guard lock(reporterMutex_);
    return reporters_.empty() ? nullptr : reporters_.front().second();
}

const std::string& EnvironmentServices::address(std::string_view path) {
    const std::string address = env_.serviceURL(path);
    std::lock_guard lock(addressMutex_);
    return *addresses_.insert(address).first;
}

}  // namespace detail
}  // namespace kestrelvue
