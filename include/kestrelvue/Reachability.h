#pragma once

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/ReachabilityProbe.h>

#include <memory>

namespace kestrelvue {

/// Answers whether the default route is usable without first establishing a connection.
class KESTRELVUE_EXPORT Reachability {
public:
    /// Uses the environment's probe.
    Reachability();
    explicit Reachability(std::shared_ptr<platform::ReachabilityProbe> probe);

    /// True when the default route is reachable and no connection must be established first;
    /// false otherwise, and whenever the platform cannot answer. Sends no packet.
    bool isInternetAvailable() const;

    /// The flag rule on its own.
    static bool isUsable(std::uint32_t flags);

private:
    std::shared_ptr<platform::ReachabilityProbe> probe_;
};

}  // namespace kestrelvue
