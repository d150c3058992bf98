// One sample through the engine: detectors in order, charging, counting, the record, the
// "showMotionData" payload and the upload trigger; then a scripted drive end to end.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "engine/Detectors.h"
#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

using namespace std::chrono_literals;
using test::EngineHarness;
using Access = DrivingInsightTestAccess;

constexpr int kFaceUp = 5;

ThresholdList band(double start, double end, double impact, bool perKm) {
    return {std::make_shared<const Threshold>(start, end, impact, perKm)};
}

class Evaluation : public ::testing::Test {
protected:
    EngineHarness h;
    std::unique_ptr<DrivingInsight> engine = h.makeEngine();
    std::int64_t motionId = 0;

    void SetUp() override {
        engine->setCurrentLocation(h.fix(41.0082, 28.9784, 5));
        Access::change(*engine, [](auto& s) { s.evaluator.deviceOrientation = kFaceUp; });
    }

    void sample(const Vector3& userAcceleration, const Vector3& rotation = {}) {
        engine->evaluateActionForDrivingScore(++motionId, {0.1, 0.2, 0.3}, rotation,
                                              userAcceleration, {0, 0, -1});
    }
};

TEST_F(Evaluation, ShowMotionDataCarriesTheTenEntries) {
    std::vector<Notification> seen;
    auto token =
        h.center->addObserver("showMotionData", [&](const Notification& n) { seen.push_back(n); });
    Access::change(*engine, [](auto& s) {
        s.settings.level(detail::EventKind::cornering) = band(0.3, 0.6, 5, false);
    });
    auto fix = h.fix(41, 29, 5);
    fix.speed = 13.5;
    engine->setCurrentLocation(fix);
    engine->setCurrentSpeed(47.25);
    engine->setTotalTraveledDistance(1234.5);
    engine->setTimeElapsedSinceStart(platform::DateComponents{1, 0, 7});
    sample({-0.4, 0.2, 0}, {0.3, 0, 0});
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].object, engine.get());
    EXPECT_EQ(*seen[0].userInfo, (Object{{"corneringRate", 0.4},
                                         {"speedingRate", 0.0},
                                         {"brakingRate", 0.2},
                                         {"elevatingRate", 0.3},
                                         {"calculatedSpeed", 47.25},
                                         {"locationSpeed", 13.5 * 3600.0 / 1000.0},
                                         {"totalDistance", 1.2345},
                                         {"timeElapsedSinceStart", "1 saat 7 sn"},
                                         {"orientation", kFaceUp},
                                         {"motionID", "1"}}));
}

TEST_F(Evaluation, EachPostCarriesItsOwnSampleAlsoWhenAHandlerEvaluatesOne) {
    // The notification is reused between samples; a handler that evaluates a sample during its
    // own call must neither see nor spoil the outer sample's values.
    std::vector<std::string> ids;
    bool nested = false;
    auto token = h.center->addObserver("showMotionData", [&](const Notification& n) {
        ids.push_back(*n.userInfo->at("motionID").asString());
        if (!nested) {
            nested = true;
            engine->evaluateActionForDrivingScore(99, {}, {}, {}, {});
            ids.push_back("after:" + *n.userInfo->at("motionID").asString());
        }
    });
    sample({});
    sample({});
    EXPECT_EQ(ids, (std::vector<std::string>{"1", "99", "after:1", "2"}));
}

TEST_F(Evaluation, FullBufferStartsOneUploadAndOneWeatherRequest) {
    engine->setUserID(77);
    engine->setBulkMotionDataSize(3);
    auto syncing = [&](bool value) {
        Access::change(*engine, [&](auto& s) { s.uploader.buffer.isSyncingToServer = value; });
    };
    syncing(true);  // an upload is already running
    const std::string weather =
        engine->getWeatherInfoURL() + "/77?latitude=41.0082&longitude=28.9784";
    const auto weatherRequests = [&] {
        return std::ranges::count(h.http->requests(), weather, &platform::HttpRequest::url);
    };
    for (int i = 0; i < 4; ++i) sample({});
    EXPECT_EQ(weatherRequests(), 0);
    EXPECT_TRUE(
        Access::read(*engine, [](const auto& s) { return s.uploader.buffer.isSyncingToServer; }));
    syncing(false);
    sample({});
    EXPECT_EQ(weatherRequests(), 1);
}

// A short scripted drive through the real lifecycle: samples from the simulated motion source,
// orientation from the attitude, then stop, end address, upload and score.
TEST(ScriptedDrive, CountsPenaltiesScoreAndBuffer) {
    EngineHarness h;
    auto engine = h.makeEngine();
    Access::change(*engine, [](auto& s) {
        s.settings.level(detail::EventKind::cornering) = band(0.3, 0.6, 2, false);
        s.settings.level(detail::EventKind::braking) = band(0.3, 1, 4, true);
        s.settings.level(detail::EventKind::laneChanging) = band(1.2, 9, 3, false);
    });
    engine->setFuelEfficiencyLevel(band(0.25, 1, 4, false));  // fuel ignores the impact
    ASSERT_TRUE(engine->startTrip());
    engine->didUpdateLocations({h.fix(41.0, 29.0, 5)});

    struct Step {
        Vector3 userAcceleration, rotation;
        double pitch = 0.1;  // flat: face up
    };
    std::vector<Step> steps = {
        {},                        // 1 quiet
        {{-0.45, 0, 0}, {}},       // 2 cornering right: 0.45 * 2 * 0.5
        {{0, 0.5, 0}, {}},         // 3 braking: 0.5 * 4 * 0.5 per km
        {{0, -0.3, 0}, {}},        // 4 no speeding band; fuel 0.3 * 0.5 per km
        {{-0.45, 0, 0}, {}, 1.0},  // 5 held upright: nothing judged
    };
    for (int i = 0; i < 8; ++i) steps.push_back({{}, {0, 0, 1.5}});
    for (double r : {-1.4, -1.3, -1.1, -0.9}) steps.push_back({{}, {0, 0, r}});  // lane change
    for (const Step& s : steps) {
        h.clock->advance(std::chrono::milliseconds(500));
        platform::DeviceMotion m = EngineHarness::flatSample();
        m.attitude.x = s.pitch;
        m.userAcceleration = s.userAcceleration;
        m.rotationRate = s.rotation;
        h.motion->push(m);
        h.queue->runUntilIdle();
    }

    const MotionData motion =
        Access::read(*engine, [](const auto& s) { return s.uploader.buffer; });
    ASSERT_EQ(motion.motionDataArray.size(), steps.size());
    std::string characters;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const MotionDataItem& item = motion.motionDataArray[i];
        EXPECT_EQ(item.ItemId, static_cast<std::int64_t>(i + 1));
        characters += {item.Fault.sharpCornering, item.Fault.sharpSpeeding,
                       item.Fault.sharpLaneChanging, '|'};
    }
    EXPECT_EQ(characters, "   |R  | B |   |   |   |   |   |   |   |   |   |   |   |   |   |  L|");
    EXPECT_EQ(motion.motionDataArray[4].Orientation, 0);

    engine->setTotalTraveledDistance(3000);  // three kilometres
    engine->stopTrip();
    while (h.queue->runUntilIdle() + h.http->deliverAll() > 0) {
    }
    const auto trip = engine->LastTrip();
    ASSERT_TRUE(trip);
    EXPECT_EQ(
        (std::vector<double>{double(trip->SharpCorneringCount), double(trip->SharpBrakingCount),
                             double(trip->SharpSpeedingCount), double(trip->SharpLaneChangingCount),
                             trip->SharpCorneringPenalty, trip->SharpLaneChangingPenalty,
                             trip->SharpBrakingPenaltyPerKM, trip->FuelEfficiencyPenaltyPerKM}),
        (std::vector<double>{1, 1, 0, 1, 0.45 * 2 * 0.5, 1.5 * 3 * 0.5, 0.5 * 4 * 0.5 / 3.0,
                             0.3 * 0.5 / 3.0}));
    EXPECT_EQ(trip->Score,
              100.0 - (trip->SharpCorneringPenalty + trip->SharpBrakingPenaltyPerKM +
                       trip->SharpLaneChangingPenalty + trip->FuelEfficiencyPenaltyPerKM));
    EXPECT_EQ(engine->Score(), trip->Score);
    EXPECT_EQ(Access::read(*engine, [](const auto& s) { return s.evaluator.eventCount; }), 3);
}

}  // namespace
}  // namespace kestrelvue
