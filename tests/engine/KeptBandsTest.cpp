// The threshold reply kept beside the outbox for starts without network.

#include <gtest/gtest.h>

#include <filesystem>

#include "core/Json.h"
#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

namespace fs = std::filesystem;

const std::string kBand = R"({"_enmThresholdName":"SharpBrakingLevel","_limitStart":0.3,)"
                          R"("_limitEnd":0.5,"_impact":2,"_perKilometer":false})";

// One start of the host over the directory; the download gets `status` and `reply`.
struct HostRun {
    test::EngineHarness h;
    std::unique_ptr<DrivingInsight> engine;

    HostRun(const fs::path& dir, long status, const std::string& reply) {
        h.env.outboxDirectory = dir.string();
        h.http->setResponder([=](const platform::HttpRequest&) {
            return test::ScriptedHttpClient::reply(status, reply);
        });
        engine = h.makeEngine();
        h.http->deliverAll();
    }
    std::size_t bands() const {
        return DrivingInsightTestAccess::read(*engine, [](const auto& s) {
            return s.settings.level(detail::EventKind::braking).size();
        });
    }
};

// How a damaged kept reply is set aside, and what a trip without bands says, is the tool test's.
TEST(KeptBands, ServeAStartWithoutNetworkUntilADownloadReplacesThem) {
    const fs::path dir = fs::path(::testing::TempDir()) / "kv-kept-bands";
    { HostRun online(dir, 200, "[" + kBand + "," + kBand + "]"); }
    HostRun offline(dir, 500, "");
    EXPECT_EQ(offline.bands(), 2u);
    // A later download replaces the kept bands rather than adding to them.
    offline.h.center->post("getThresholds", nullptr,
                           Object{{"Data", *json::parse("[" + kBand + "]").value}});
    EXPECT_EQ(offline.bands(), 1u);
    fs::remove_all(dir);
}

}  // namespace
}  // namespace kestrelvue
