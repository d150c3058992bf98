// The engine's application information, and its upload of a trip ended elsewhere.

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

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
    ASSERT_TRUE(uploads[0].body);
    EXPECT_NE(uploads[0].body->find(engine->DrivingID()), std::string::npos);
}

}  // namespace
}  // namespace kestrelvue
