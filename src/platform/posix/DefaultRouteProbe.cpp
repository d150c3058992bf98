#include <kestrelvue/posix/DefaultRouteProbe.h>

#include <fstream>
#include <sstream>
#include <string>

namespace kestrelvue::posix {
namespace {

constexpr unsigned long kRouteUp = 0x0001;      // RTF_UP
constexpr unsigned long kRouteReject = 0x0200;  // RTF_REJECT (unreachable, prohibit, blackhole)

bool parseHex(const std::string& text, unsigned long& out) {
    if (text.empty()) return false;
    std::size_t used = 0;
    try {
        out = std::stoul(text, &used, 16);
    } catch (...) {
        return false;
    }
    return used == text.size();
}

bool allZeroHex(const std::string& text) {
    return !text.empty() && text.find_first_not_of('0') == std::string::npos;
}

// A device whose link the kernel reports down cannot carry traffic, whatever its routes say.
// "unknown" is what tunnels and point-to-point links report: those count as usable.
bool deviceUsable(const std::string& devices, const std::string& name) {
    if (name.empty() || name == "lo") return false;
    std::ifstream in(devices + "/" + name + "/operstate");
    std::string state;
    if (!in || !(in >> state)) return true;
    return state != "down" && state != "lowerlayerdown" && state != "dormant" &&
           state != "notpresent";
}

// /proc/net/route: Iface Destination Gateway Flags RefCnt Use Metric Mask MTU Window IRTT
std::optional<bool> ipv4DefaultRoute(const DefaultRouteProbe::Paths& paths) {
    std::ifstream in(paths.ipv4Routes);
    if (!in) return std::nullopt;
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string iface, destination, gateway, flags, refcnt, use, metric, mask;
        if (!(fields >> iface >> destination >> gateway >> flags >> refcnt >> use >> metric >>
              mask))
            continue;
        unsigned long f = 0;
        if (!allZeroHex(destination) || !allZeroHex(mask) || !parseHex(flags, f)) continue;
        if ((f & kRouteUp) == 0 || (f & kRouteReject) != 0) continue;
        if (deviceUsable(paths.netDevices, iface)) return true;
    }
    return false;
}

// /proc/net/ipv6_route: dest destPrefixLen src srcPrefixLen nextHop metric refcnt use flags dev
std::optional<bool> ipv6DefaultRoute(const DefaultRouteProbe::Paths& paths) {
    std::ifstream in(paths.ipv6Routes);
    if (!in) return std::nullopt;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string destination, prefix, source, sourcePrefix, nextHop, metric, refcnt, use, flags,
            iface;
        if (!(fields >> destination >> prefix >> source >> sourcePrefix >> nextHop >> metric >>
              refcnt >> use >> flags >> iface))
            continue;
        unsigned long f = 0;
        if (!allZeroHex(destination) || !allZeroHex(prefix) || !parseHex(flags, f)) continue;
        if ((f & kRouteUp) == 0 || (f & kRouteReject) != 0) continue;
        if (deviceUsable(paths.netDevices, iface)) return true;
    }
    return false;
}

}  // namespace

std::optional<std::uint32_t> DefaultRouteProbe::defaultRouteFlags() {
    auto v4 = ipv4DefaultRoute(paths_);
    if (v4 && *v4) return platform::kReachabilityFlagsReachable;
    auto v6 = ipv6DefaultRoute(paths_);
    if (v6 && *v6) return platform::kReachabilityFlagsReachable;
    if (!v4 && !v6) return std::nullopt;
    return 0u;
}

}  // namespace kestrelvue::posix
