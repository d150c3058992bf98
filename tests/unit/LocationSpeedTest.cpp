// Which fix the engine keeps, and the distance and speed between fixes.

#include <gtest/gtest.h>

#include <cmath>

#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

using namespace std::chrono_literals;
using test::EngineHarness;

TEST(GeodesicDistance, MatchesTheEllipsoid) {
    // Reference values of the WGS-84 geodesic (not a sphere: a degree of latitude and of
    // longitude differ at the equator).
    struct Case {
        platform::Coordinate a, b;
        double metres;
    };
    const Case cases[] = {
        {{0, 0}, {0, 1}, 111319.490793},
        {{0, 0}, {1, 0}, 110574.388556},
        {{41.0, 29.0}, {41.0, 29.0}, 0.0},
        {{0, 0}, {0, 180}, 20003931.458625},  // antipodes on the equator
    };
    for (const Case& c : cases) {
        platform::Location a, b;
        a.coordinate = c.a;
        b.coordinate = c.b;
        EXPECT_NEAR(a.distance(b), c.metres, 1e-3);
        EXPECT_NEAR(b.distance(a), c.metres, 1e-3);
    }
}

class LocationUpdates : public ::testing::Test {
protected:
    EngineHarness h;
    std::unique_ptr<DrivingInsight> engine = h.makeEngine();
    void SetUp() override { ASSERT_TRUE(engine->startTrip()); }
};

TEST_F(LocationUpdates, AcceptKeepAndBestRules) {
    using platform::Location;
    struct Case {
        const char* name;
        std::vector<std::tuple<double, double, std::chrono::milliseconds>> fixes;  // lat, acc, age
        double expectedLatitude;  // 0.0: nothing accepted
    };
    const Case cases[] = {
        {"accuracy 60 refused, 49 accepted", {{41.1, 60, 0ms}, {41.2, 49, 0ms}}, 41.2},
        {"accuracy 50 is refused", {{41.1, 50, 0ms}}, 0.0},
        {"the more accurate of two fresh fixes", {{41.1, 20, 0ms}, {41.2, 10, 0ms}}, 41.2},
        {"ties keep the earlier fix", {{41.1, 10, 0ms}, {41.2, 10, 0ms}}, 41.1},
        {"two seconds old is dropped", {{41.1, 5, -2000ms}}, 0.0},
        {"exactly one second old is kept", {{41.1, 5, -1000ms}}, 41.1},
        {"NaN accuracy is refused", {{41.1, NAN, 0ms}}, 0.0},
        {"a latitude off the earth is refused",
         {{91.0, 5, 0ms}, {NAN, 4, 0ms}, {41.2, 6, 0ms}},
         41.2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EngineHarness h2;
        auto e = h2.makeEngine();
        ASSERT_TRUE(e->startTrip());
        h2.clock->advance(1500ms);
        std::vector<Location> batch;
        for (auto [lat, acc, age] : c.fixes) batch.push_back(h2.fix(lat, 29.0, acc, age));
        e->didUpdateLocations(batch);
        EXPECT_EQ(e->CurrentLocation()->coordinate.latitude, c.expectedLatitude);
    }
}

TEST_F(LocationUpdates, OlderFixNeverReplacesAndSameTimeNeedsStrictlyBetterAccuracy) {
    h.clock->advance(2s);
    engine->didUpdateLocations({h.fix(41.0, 29.0, 20)});
    engine->didUpdateLocations({h.fix(41.5, 29.0, 1, -500ms)});
    EXPECT_EQ(engine->CurrentLocation()->coordinate.latitude, 41.0);
    auto first = h.fix(41.0, 29.0, 10);
    engine->didUpdateLocations({first});
    auto same = first;
    same.coordinate.latitude = 41.5;
    engine->didUpdateLocations({same});
    EXPECT_EQ(engine->CurrentLocation()->coordinate.latitude, 41.0);
    same.horizontalAccuracy = 9.5;
    engine->didUpdateLocations({same});
    EXPECT_EQ(engine->CurrentLocation()->coordinate.latitude, 41.5);
}

TEST(SpeedComputation, Cases) {
    struct Case {
        const char* name;
        double oldLat, oldAcc, newLat, newAcc;
        std::chrono::milliseconds apart;
        bool moves;            // distance and time are recorded
        double expectedSpeed;  // < 0: (d/1000)/(t/3600); otherwise exactly this
    };
    const Case cases[] = {
        {"100 m in 10 s", 41.0, 5, 41.0009, 5, 10000ms, true, -1},
        {"1000 m in 10 s is capped at 300", 41.0, 5, 41.009, 5, 10000ms, true, 300.0},
        {"old accuracy 35: no update", 41.0, 35, 41.0009, 5, 10000ms, false, 7.0},
        {"new accuracy 30: no update", 41.0, 5, 41.0009, 30, 10000ms, false, 7.0},
        {"placeholder latitude 0: no update", 0.0, 5, 41.0009, 5, 10000ms, false, 7.0},
        {"same instant: distance but speed unchanged", 41.0, 5, 41.0009, 5, 0ms, true, 7.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EngineHarness h;
        auto e = h.makeEngine();
        e->setCurrentSpeed(7.0);
        const auto from = h.fix(c.oldLat, 29.0, c.oldAcc);
        const auto to = h.fix(c.newLat, 29.0, c.newAcc, c.apart);
        DrivingInsightTestAccess::calculateSpeedWhenLocationChanged(*e, from, to);
        const double d = from.distance(to);
        if (c.moves) {
            EXPECT_DOUBLE_EQ(e->TotalTraveledDistance(), d);
            EXPECT_DOUBLE_EQ(e->HoursElapsedSinceLastLocation(), c.apart.count() / 3.6e6);
        } else {
            EXPECT_EQ(e->TotalTraveledDistance(), 0.0);
        }
        const double expected =
            c.expectedSpeed < 0 ? (d / 1000.0) / (c.apart.count() / 3.6e6) : c.expectedSpeed;
        EXPECT_DOUBLE_EQ(e->CurrentSpeed(), expected);
    }
}

}  // namespace
}  // namespace kestrelvue
