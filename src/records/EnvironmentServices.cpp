#include "records/EnvironmentServices.h"

#include <algorithm>
#include <array>
#include <cstring>

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
    // Every record asks twice, and a history makes thousands: the address is put together on the
    // stack and found without a string made, as serviceURL(path) would make it.
    std::string_view base = defaultBaseURL();
    if (env_.applicationInfo) {
        auto it = env_.applicationInfo->find(kBaseURLKey);
        if (it != env_.applicationInfo->end()) {
            if (const std::string* s = it->second.asString(); s && !s->empty()) {
                base = *s;
                while (!base.empty() && base.back() == '/') base.remove_suffix(1);
            }
        }
    }
    std::array<char, 512> text;
    if (base.size() + path.size() > text.size()) {
        const std::string url = env_.serviceURL(path);
        std::lock_guard lock(addressMutex_);
        return *addresses_.insert(url).first;
    }
    std::memcpy(text.data(), base.data(), base.size());
    std::memcpy(text.data() + base.size(), path.data(), path.size());
    const std::string_view address(text.data(), base.size() + path.size());
    std::lock_guard lock(addressMutex_);
    auto found = addresses_.find(address);
    if (found == addresses_.end()) found = addresses_.emplace(address).first;
    return *found;
}

}  // namespace detail
}  // namespace kestrelvue
