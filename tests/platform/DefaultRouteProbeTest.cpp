// The route probe against fake routing tables.

#include <gtest/gtest.h>
#include <kestrelvue/posix/DefaultRouteProbe.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

using namespace kestrelvue;

namespace {

// A fake /proc and /sys for one probe.
class RouteFiles {
public:
    RouteFiles() { std::filesystem::create_directories(dir_ / "net"); }
    ~RouteFiles() {
        std::error_code ignored;  // a destructor must not throw
        std::filesystem::remove_all(dir_, ignored);
    }
    void write(const std::string& name, const std::string& text) {
        std::filesystem::create_directories((dir_ / name).parent_path());
        std::ofstream(dir_ / name) << text;
    }
    std::optional<std::uint32_t> probe() const {
        return posix::DefaultRouteProbe({(dir_ / "route").string(), (dir_ / "ipv6_route").string(),
                                         (dir_ / "net").string()})
            .defaultRouteFlags();
    }

private:
    inline static int counter = 0;
    std::filesystem::path dir_ =
        std::filesystem::temp_directory_path() /
        ("kestrelvue-routes-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
};

const std::string kV4Header =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
std::string defaultV4(const char* iface, const char* gateway, const char* flags) {
    return std::string(iface) + "\t00000000\t" + gateway + "\t" + flags +
           "\t0\t0\t0\t00000000\t0\t0\t0\n";
}
const std::string kV4Default = defaultV4("eth0", "010200C0", "0003");
const std::string kV4Subnet = "eth0\t000200C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
const std::string kV6Default =
    "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
    "fd000000000000000000000000000001 00000400 00000002 00000000 00000003     eth0\n";
const std::string kV6LoopbackReject =
    "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
    "00000000000000000000000000000000 ffffffff 00000001 00000000 00200200       lo\n";
const std::string kV6Subnet =
    "fd000000000000000000000000000000 40 00000000000000000000000000000000 00 "
    "00000000000000000000000000000000 00000100 00000001 00000000 00000001     eth0\n";

}  // namespace

TEST(DefaultRouteProbe, AnswersFromTheRoutingTables) {
    const std::uint32_t up = platform::kReachabilityFlagsReachable;
    struct Case {
        const char* label;
        std::optional<std::string> v4, v6;
        std::string ethState;  // empty: no operstate file
        std::optional<std::uint32_t> expected;
    };
    const Case cases[] = {
        {"IPv4 default route", kV4Default + kV4Subnet, kV6LoopbackReject, "up", up},
        {"IPv6 default route only", kV4Subnet, kV6Subnet + kV6Default, "up", up},
        {"IPv6 table unreadable", kV4Default, std::nullopt, "up", up},
        {"tunnel reports unknown", kV4Default, "", "unknown", up},
        {"only subnet routes", kV4Subnet, kV6Subnet, "up", 0u},
        {"only the loopback reject route", "", kV6LoopbackReject, "up", 0u},
        {"device down", kV4Default, kV6Default, "down", 0u},
        {"route not up", defaultV4("eth0", "010200C0", "0002"), "", "up", 0u},
        {"reject route", defaultV4("eth0", "00000000", "0201"), "", "up", 0u},
        {"default through loopback", defaultV4("lo", "00000000", "0001"), "", "up", 0u},
        {"garbage lines are skipped", "eth0 zz\n\n\t\t\neth0\t0000\tx\tq\n" + kV4Default, "", "up",
         up},
        {"empty tables", "", "", "up", 0u},
        {"neither table readable", std::nullopt, std::nullopt, "up", std::nullopt},
    };
    for (const Case& c : cases) {
        RouteFiles files;
        if (c.v4) files.write("route", kV4Header + *c.v4);
        if (c.v6) files.write("ipv6_route", *c.v6);
        if (!c.ethState.empty()) files.write("net/eth0/operstate", c.ethState + "\n");
        EXPECT_EQ(files.probe(), c.expected) << c.label;
    }
}
