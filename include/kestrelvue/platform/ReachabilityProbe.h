#pragma once

#include <kestrelvue/Export.h>

#include <cstdint>
#include <optional>

namespace kestrelvue::platform {

/// Reachability flags of the default route.
enum ReachabilityFlags : std::uint32_t {
    kReachabilityFlagsTransientConnection = 1u << 0,
    kReachabilityFlagsReachable = 1u << 1,
    kReachabilityFlagsConnectionRequired = 1u << 2,
};

/// Answers the flags of the default route, or nullopt when the platform cannot tell.
/// Threading contract: any thread; synchronous; sends no packet.
class KESTRELVUE_EXPORT ReachabilityProbe {
public:
    virtual ~ReachabilityProbe() = default;
    virtual std::optional<std::uint32_t> defaultRouteFlags() = 0;
};

/// A probe with fixed flags (tests, replays, hosts that know better).
class KESTRELVUE_EXPORT FixedReachabilityProbe final : public ReachabilityProbe {
public:
    explicit FixedReachabilityProbe(std::optional<std::uint32_t> flags) : flags_(flags) {}
    std::optional<std::uint32_t> defaultRouteFlags() override { return flags_; }

private:
    std::optional<std::uint32_t> flags_;
};

}  // namespace kestrelvue::platform
