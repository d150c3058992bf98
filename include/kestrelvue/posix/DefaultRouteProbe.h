#pragma once
// Linux reachability: is there a usable default route (IPv4 or IPv6)? Reads the kernel's routing
// tables from /proc and sends no packet.
//
// A route counts when it is a default route (destination and prefix length zero) that is up, is
// not a reject/blackhole route, does not leave through the loopback device, and whose device is
// not reported down (/sys/class/net/<dev>/operstate "down", "lowerlayerdown", "dormant" or
// "notpresent"). Linux has no dial-on-demand routes, so kReachabilityFlagsConnectionRequired is
// never reported. When neither routing table can be read the probe answers nullopt.
//
// Threading contract: any thread; keeps no state between calls.

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/ReachabilityProbe.h>

#include <string>

namespace kestrelvue::posix {

class KESTRELVUE_EXPORT DefaultRouteProbe final : public platform::ReachabilityProbe {
public:
    struct Paths {
        std::string ipv4Routes = "/proc/net/route";
        std::string ipv6Routes = "/proc/net/ipv6_route";
        std::string netDevices = "/sys/class/net";
    };

    DefaultRouteProbe() = default;
    /// Other files, for tests.
    explicit DefaultRouteProbe(Paths paths) : paths_(std::move(paths)) {}

    std::optional<std::uint32_t> defaultRouteFlags() override;

private:
    Paths paths_;
};

}  // namespace kestrelvue::posix
