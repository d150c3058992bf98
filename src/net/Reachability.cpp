#include <kestrelvue/Environment.h>
#include <kestrelvue/Reachability.h>

namespace kestrelvue {

Reachability::Reachability() : probe_(Environment::current().reachability) {}

Reachability::Reachability(std::shared_ptr<platform::ReachabilityProbe> probe)
    : probe_(std::move(probe)) {}

bool Reachability::isUsable(std::uint32_t flags) {
    return (flags & platform::kReachabilityFlagsReachable) != 0 &&
           (flags & platform::kReachabilityFlagsConnectionRequired) == 0;
}

bool Reachability::isInternetAvailable() const {
    // No probe, or a probe that cannot tell, counts as offline.
    if (!probe_) return false;
    std::optional<std::uint32_t> flags = probe_->defaultRouteFlags();
    return flags && isUsable(*flags);
}

}  // namespace kestrelvue
