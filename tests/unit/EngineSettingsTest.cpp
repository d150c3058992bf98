// The engine object: start values, application information, accessors, handler registration.

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <set>
#include <thread>

#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

using test::EngineHarness;

TEST(EngineSettings, StartValues) {
    EngineHarness h;
    auto engine = h.makeEngine();
    EXPECT_FALSE(engine->IsDriving());
    EXPECT_EQ(engine->getThresholdsURL, "http://service.test/api/Driving/getThresholds");
    EXPECT_EQ(engine->getWeatherInfoURL, "http://service.test/api/General/getWeatherDataByLatLon");
    EXPECT_EQ(engine->StartDateTime(), h.clock->now());
    EXPECT_EQ(engine->TimeElapsedSinceStart(), platform::DateComponents{});
    EXPECT_FALSE(engine->Temperature().has_value());
    EXPECT_FALSE(engine->CurrentLocation().has_value());
    ASSERT_NE(engine->LastTrip(), nullptr);
    EXPECT_NE(engine->StartAnnotation(), engine->EndAnnotation());

    auto s = DrivingInsightTestAccess::settings(*engine);
    EXPECT_EQ(s.updateInterval, 0.5);
    EXPECT_EQ(s.distanceFilter, 50.0);
    EXPECT_EQ(s.distanceFilterForSpeed, 30.0);
    EXPECT_EQ(std::vector<std::int64_t>(s.durations, s.durations + 4),
              (std::vector<std::int64_t>{3, 10, 4, 15}));
    EXPECT_TRUE(s.cornering.empty() && s.speeding.empty() && s.braking.empty() &&
                s.elevating.empty() && s.laneChanging.empty() && s.fuel.empty());
}

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
        {"no list", std::nullopt, 1000, "Kestrelvue"},
        {"keys missing", Object{}, 1000, "Kestrelvue"},
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

TEST(EngineSettings, SettersWithSideEffects) {
    EngineHarness h;
    auto engine = h.makeEngine();
    engine->setCurrentSpeed(40);
    engine->setCurrentSpeed(55);
    EXPECT_EQ(DrivingInsightTestAccess::previousSpeed(*engine), 40.0);
    EXPECT_EQ(engine->CurrentSpeed(), 55.0);

    engine->setTotalTraveledDistance(1000);
    engine->setTraveledDistanceSinceLastLocation(120);
    engine->setTraveledDistanceSinceLastLocation(80);
    EXPECT_EQ(engine->TraveledDistanceSinceLastLocation(), 80.0);
    EXPECT_EQ(engine->TotalTraveledDistance(), 1200.0);

    // Setting the current fix runs the speed computation from the stored fix.
    engine->setCurrentLocation(h.fix(41.0, 29.0, 5));
    h.clock->advance(std::chrono::seconds(10));
    auto next = h.fix(41.0009, 29.0, 5);
    engine->setCurrentLocation(next);
    EXPECT_EQ(engine->CurrentLocation()->coordinate, next.coordinate);
    EXPECT_GT(engine->CurrentSpeed(), 30.0);
}

TEST(EngineSettings, RegistersFiveHandlersAndRemovesThemWhenDestroyed) {
    EngineHarness h;
    const char* names[] = {"motionDataSynced", "motionDataSyncFailed", "getThresholds",
                           "tripStoppedEndAnnotationSetted", "tripEndedSuccessfully"};
    {
        auto engine = h.makeEngine();
        for (const char* name : names) EXPECT_EQ(h.center->observerCount(name), 1u) << name;
    }
    for (const char* name : names) EXPECT_EQ(h.center->observerCount(name), 0u) << name;
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

TEST(EngineSettings, SharedInstanceIsCreatedOnceUnderRacingThreads) {
    std::vector<std::thread> threads;
    std::vector<DrivingInsight*> seen(8, nullptr);
    std::atomic<bool> go{false};
    for (std::size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&, i] {
            while (!go.load()) std::this_thread::yield();
            seen[i] = &DrivingInsight::sharedInstance();
        });
    }
    go = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(std::set<DrivingInsight*>(seen.begin(), seen.end()).size(), 1u);
    EXPECT_TRUE(std::regex_match(seen[0]->DrivingID(),
                                 std::regex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-"
                                            "[0-9A-F]{12}")));
}

}  // namespace
}  // namespace kestrelvue
