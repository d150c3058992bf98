// The engine's application information, the threshold reply it keeps beside the outbox for starts
// without network, and its upload of a trip ended elsewhere.

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/Json.h"
#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

using test::EngineHarness;

TEST(EngineSettings, ApplicationInformation) {
    struct Case {
        const char* name;
        std::optional<Object> info;
        std::int64_t bulk;
        std::string displayName;
    };
    const Case cases[] = {
        {"both keys", Object{{"BulkMotionDataSize", 500}, {"CFBundleDisplayName", "Sürücü"}}, 500,
         "Sürücü"},
        {"mistyped", Object{{"BulkMotionDataSize", "500"}, {"CFBundleDisplayName", 7}}, 1000,
         "Kestrelvue"},
        {"fractional size", Object{{"BulkMotionDataSize", 2.5}}, 1000, "Kestrelvue"},
        {"negative size", Object{{"BulkMotionDataSize", -1}}, 1000, "Kestrelvue"},
        {"zero size", Object{{"BulkMotionDataSize", 0}}, 0, "Kestrelvue"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EngineHarness h;
        h.env.applicationInfo = c.info;
        auto engine = h.makeEngine();
        EXPECT_EQ(engine->bulkMotionDataSize(), c.bulk);
        EXPECT_EQ(engine->bundleDisplayName(), c.displayName);
    }
}

TEST(EngineSettings, TripEndedSuccessfullyFromAnySenderUploadsAFreshRecord) {
    EngineHarness h;
    auto engine = h.makeEngine();
    engine->setUserID(9);
    const int stranger = 0;
    h.center->post("tripEndedSuccessfully", &stranger);
    std::vector<platform::HttpRequest> uploads;
    for (const auto& r : h.http->requests())
        if (r.url == "http://service.test/api/Driving/addDrivingScore") uploads.push_back(r);
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].method, "POST");
    EXPECT_NE(uploads[0].body.value_or("").find(engine->DrivingID()), std::string::npos);
}

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
