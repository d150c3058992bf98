// The engine's state parts on their own: score, odometer, trip record, settings, motion uploader
// and the upload body it writes by hand.

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include "core/Json.h"
#include "engine/EngineState.h"
#include "support/EngineHarness.h"

namespace kestrelvue::detail {
namespace {

using namespace std::chrono_literals;
using K = EventKind;

TEST(Score, DividesPerKilometreOnLongTripsAndSumsInTheFixedOrder) {
    struct Case {
        const char* name;
        PenaltyTotals totals;
        double distance, score, brakingPerKmAfter;
    };
    PenaltyTotals absolute, braking6, huge, cancelling;
    absolute[K::cornering].penalty = 10;
    absolute[K::laneChanging].penalty = 2.5;
    braking6[K::braking].penaltyPerKM = 6.0;
    huge[K::speeding].penalty = 100;
    huge.fuelEfficiencyPenaltyPerKM = 30;
    // 1e16 + 1 + 1 - 1e16 gives 0 left to right but 2 in another order.
    cancelling[K::cornering] = {0, 1e16, 1};
    cancelling[K::speeding] = {0, 1, -1e16};
    const Case cases[] = {
        {"nothing", {}, 5000, 100.0, 0.0},
        {"absolute only", absolute, 25000, 87.5, 0.0},
        {"per km divided by 3 km", braking6, 3000, 98.0, 2.0},
        {"exactly 1000 m: no division", braking6, 1000, 94.0, 6.0},
        {"short trip: no division", braking6, 10, 94.0, 6.0},
        {"clamped at zero", huge, 500, 0.0, 0.0},
        {"left to right", cancelling, 0, 100.0, 0.0},
    };
    for (const Case& c : cases) {
        PenaltyTotals t = c.totals;
        EXPECT_EQ(calculateScore(t, c.distance, 1000.0), c.score) << c.name;
        EXPECT_EQ(t[K::braking].penaltyPerKM, c.brakingPerKmAfter) << c.name;
        EXPECT_EQ(t[K::cornering].penalty, c.totals[K::cornering].penalty) << c.name;
    }
    // Every per-km total, fuel included, is divided by the same kilometres.
    PenaltyTotals all;
    for (KindTotals& k : all.kinds) k.penaltyPerKM = 4.0;
    all.fuelEfficiencyPenaltyPerKM = 4.0;
    EXPECT_EQ(calculateScore(all, 2000, 1000.0), 88.0);
    for (const KindTotals& k : all.kinds) EXPECT_EQ(k.penaltyPerKM, 2.0);
    EXPECT_EQ(all.fuelEfficiencyPenaltyPerKM, 2.0);
}

TEST(TripState, RecordCarriesEachKindInItsOwnFields) {
    test::EngineHarness h;
    TripState trip = TripState::starting("ID", h.clock->now());
    for (K kind : kEventKinds) {
        const auto k = static_cast<double>(kind);
        trip.totals[kind] = {static_cast<std::int64_t>(k) + 1, k + 0.25, k + 0.5};
    }
    trip.totals.fuelEfficiencyPenaltyPerKM = 7;
    trip.timeElapsedSinceStart = platform::DateComponents{0, 25, 13, 0};
    trip.odometer.totalTraveledDistance = 12437;
    const auto r = trip.record(h.env, 42, h.clock->now());
    EXPECT_EQ(
        (std::vector<double>{
            double(r->SharpCorneringCount), r->SharpCorneringPenalty, r->SharpCorneringPenaltyPerKM,
            double(r->SharpSpeedingCount), r->SharpSpeedingPenalty, r->SharpSpeedingPenaltyPerKM,
            double(r->SharpBrakingCount), r->SharpBrakingPenalty, r->SharpBrakingPenaltyPerKM,
            double(r->SharpElevatingCount), r->SharpElevatingPenalty, r->SharpElevatingPenaltyPerKM,
            double(r->SharpLaneChangingCount), r->SharpLaneChangingPenalty,
            r->SharpLaneChangingPenaltyPerKM, r->FuelEfficiencyPenaltyPerKM}),
        (std::vector<double>{1, 0.25, 0.5, 2, 1.25, 1.5, 3, 2.25, 2.5, 4, 3.25, 3.5, 5, 4.25, 4.5,
                             7}));
    EXPECT_EQ(std::tuple(r->UserID, r->DrivingID, r->StartAnnotation, r->EndAnnotation),
              std::tuple(42, "ID", trip.startAnnotation, trip.endAnnotation));
    EXPECT_EQ(r->TimeElapsedTotalDistance_Formatted, "0:25:13 sn, 12.4 km");
}

TEST(Odometer, GeodesicDistanceMatchesTheEllipsoid) {
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

TEST(Odometer, SelectsTheBestAcceptableFix) {
    test::EngineHarness h;
    const auto start = h.clock->now();
    struct Fix {
        double latitude, accuracy;
        std::chrono::milliseconds at;  // after the current fix; the batch arrives at 3 s
    };
    struct Case {
        const char* name;
        std::vector<Fix> fixes;
        double chosen;  // latitude; 0: none
        std::chrono::milliseconds currentAt = {};
    };
    const Case cases[] = {
        {"accuracy 60 refused, 49 accepted", {{41.1, 60, 3s}, {41.2, 49, 3s}}, 41.2},
        {"accuracy 50 is refused", {{41.1, 50, 3s}}, 0.0},
        {"the more accurate of two", {{41.1, 20, 3s}, {41.2, 10, 3s}}, 41.2},
        {"ties keep the earlier fix", {{41.1, 10, 3s}, {41.2, 10, 3s}}, 41.1},
        {"more than a second old is dropped", {{41.1, 5, 1999ms}}, 0.0},
        {"exactly a second old is kept", {{41.1, 5, 2000ms}}, 41.1},
        {"older than the current fix is dropped", {{41.1, 5, -1ms}}, 0.0},
        {"as old needs strictly better accuracy", {{41.1, 10, 3s}, {41.2, 9.5, 3s}}, 41.2, 3s},
        {"NaN accuracy is refused", {{41.1, NAN, 3s}}, 0.0},
        {"off the earth is refused", {{91.0, 5, 3s}, {NAN, 4, 3s}, {41.2, 6, 3s}}, 41.2},
    };
    for (const Case& c : cases) {
        Odometer odometer;
        odometer.currentLocation = h.fix(41.0, 29.0, 10);
        odometer.currentLocation->timestamp = start + c.currentAt;
        std::vector<platform::Location> batch;
        for (const Fix& f : c.fixes) {
            batch.push_back(h.fix(f.latitude, 29.0, f.accuracy));
            batch.back().timestamp = start + f.at;
        }
        const platform::Location* chosen = odometer.select(batch, start + 3s, 50.0);
        EXPECT_EQ(chosen ? chosen->coordinate.latitude : 0.0, c.chosen) << c.name;
    }
}

TEST(Odometer, MeasuresDistanceAndSpeedBetweenAccurateFixes) {
    struct Case {
        const char* name;
        double fromLatitude, fromAccuracy, toLatitude, toAccuracy;
        std::chrono::milliseconds apart;
        bool moves;    // the leg is recorded
        double speed;  // < 0: (d/1000)/(t/3600); otherwise exactly this
    };
    const Case cases[] = {
        {"100 m in 10 s", 41.0, 5, 41.0009, 5, 10000ms, true, -1},
        {"1000 m in 10 s is capped at 300", 41.0, 5, 41.009, 5, 10000ms, true, 300.0},
        {"start accuracy 30: no leg", 41.0, 30, 41.0009, 5, 10000ms, false, 7.0},
        {"end accuracy 30: no leg", 41.0, 5, 41.0009, 30, 10000ms, false, 7.0},
        {"placeholder latitude 0: no leg", 0.0, 5, 41.0009, 5, 10000ms, false, 7.0},
        {"same instant: a leg but the speed stays", 41.0, 5, 41.0009, 5, 0ms, true, 7.0},
    };
    test::EngineHarness h;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Odometer odometer;
        odometer.setSpeed(7.0);
        const auto from = h.fix(c.fromLatitude, 29.0, c.fromAccuracy);
        const auto to = h.fix(c.toLatitude, 29.0, c.toAccuracy, c.apart);
        odometer.currentLocation = from;
        odometer.moveTo(to, 30.0);
        const double d = from.distance(to);
        EXPECT_EQ(odometer.currentLocation->coordinate.latitude, c.toLatitude);
        EXPECT_DOUBLE_EQ(odometer.totalTraveledDistance, c.moves ? d : 0.0);
        const double hours = std::chrono::duration<double>(c.apart).count() / 3600.0;
        if (c.moves) {
            EXPECT_DOUBLE_EQ(odometer.hoursElapsedSinceLastLocation, hours);
        }
        const double expected = c.speed < 0 ? (d / 1000.0) / hours : c.speed;
        EXPECT_DOUBLE_EQ(odometer.currentSpeed, expected);
        EXPECT_EQ(odometer.previousSpeed, c.moves && c.apart > 0ms ? 7.0 : 0.0);
    }
}

std::optional<Settings::Reply> readReply(const std::string& elements) {
    auto parsed = json::parse("[" + elements + "]");
    EXPECT_TRUE(parsed) << elements;
    return Settings::Reply::read(Object{{"Data", *parsed.value}});
}

TEST(Settings, EveryNameReachesItsSettingAndUnknownOnesAreIgnored) {
    const auto reply = readReply(R"(
      {"_enmThresholdName":"UpdateInterval","_limitStart":0.25,"_limitEnd":99,"_impact":99,"_perKilometer":true},
      {"_enmThresholdName":"DistanceFilter","_limitStart":25,"_limitEnd":75,"_impact":0,"_perKilometer":false},
      {"_enmThresholdName":"SharpLaneChangingDuration1","_limitStart":2.9,"_limitEnd":0,"_impact":0,"_perKilometer":false},
      {"_enmThresholdName":"SharpLaneChangingDuration2","_limitStart":-2.9,"_limitEnd":0,"_impact":0,"_perKilometer":false},
      {"_enmThresholdName":"SharpLaneChangingDuration3","_limitStart":6.7,"_limitEnd":0,"_impact":0,"_perKilometer":false},
      {"_enmThresholdName":"SharpLaneChangingDuration4","_limitStart":20,"_limitEnd":0,"_impact":0,"_perKilometer":false},
      {"_enmThresholdName":"SharpCorneringLevel","_limitStart":1,"_limitEnd":2,"_impact":3,"_perKilometer":true},
      {"_enmThresholdName":"SharpSpeedingLevel","_limitStart":1,"_limitEnd":2,"_impact":3,"_perKilometer":false},
      {"_enmThresholdName":"SharpBrakingLevel","_limitStart":1,"_limitEnd":2,"_impact":3,"_perKilometer":false},
      {"_enmThresholdName":"SharpElevatingLevel","_limitStart":1,"_limitEnd":2,"_impact":3,"_perKilometer":false},
      {"_enmThresholdName":"SharpLaneChangingLevel","_limitStart":1,"_limitEnd":2,"_impact":3,"_perKilometer":false},
      {"_enmThresholdName":"FuelEfficiency","_limitStart":1,"_limitEnd":2,"_impact":3,"_perKilometer":true},
      {"_enmThresholdName":"SharpBrakingLevel","_limitStart":2,"_limitEnd":9,"_impact":5,"_perKilometer":false},
      {"_enmThresholdName":"SomethingNew","_limitStart":"any","_perKilometer":7},
      {"_limitStart":1,"_limitEnd":2,"_impact":3,"_perKilometer":true})");
    ASSERT_TRUE(reply);
    Settings s;
    s.apply(*reply);
    const auto lane = s.laneChange();  // durations are whole seconds
    EXPECT_EQ((std::vector<double>{s.updateInterval, s.distanceFilterForSpeed, s.distanceFilter,
                                   double(lane.duration1), double(lane.duration2),
                                   double(lane.duration3), double(lane.duration4)}),
              (std::vector<double>{0.25, 25, 75, 2, -2, 6, 20}));
    EXPECT_TRUE(s.level(K::cornering).at(0)->IsPerKilometer);
    for (K kind : kEventKinds) EXPECT_EQ(s.level(kind).size(), kind == K::braking ? 2u : 1u);
    EXPECT_EQ(s.level(K::braking)[1]->Impact, 5.0);
    EXPECT_EQ(s.fuelEfficiencyLevel.size(), 1u);
    s.apply(*reply);  // a second reply adds its bands to the first's
    EXPECT_EQ(s.level(K::cornering).size(), 2u);
}

TEST(Settings, AMalformedReplyIsRefusedWhole) {
    const std::string good =
        R"({"_enmThresholdName":"SharpCorneringLevel","_limitStart":1,"_limitEnd":2,"_impact":3,"_perKilometer":true},)";
    const char* bad[] = {
        "7",
        R"({"_enmThresholdName":7})",
        R"({"_enmThresholdName":"SharpBrakingLevel","_limitStart":1,"_limitEnd":2,"_perKilometer":true})",
        R"({"_enmThresholdName":"SharpBrakingLevel","_limitStart":1,"_limitEnd":2,"_impact":3,"_perKilometer":1})",
        R"({"_enmThresholdName":"SharpLaneChangingDuration1","_limitStart":1e19,"_limitEnd":0,"_impact":0,"_perKilometer":false})",
        R"({"_enmThresholdName":"UpdateInterval","_limitStart":0,"_limitEnd":0,"_impact":0,"_perKilometer":false})",
    };
    for (const char* element : bad) EXPECT_FALSE(readReply(good + element)) << element;
    EXPECT_FALSE(Settings::Reply::read(Object{{"Data", Object{}}}));
    const Object notFinite{{"_enmThresholdName", "SharpBrakingLevel"},
                           {"_limitStart", NAN},
                           {"_limitEnd", 2.0},
                           {"_impact", 1.0},
                           {"_perKilometer", false}};
    EXPECT_FALSE(Settings::Reply::read(Object{{"Data", List{Value(notFinite)}}}));
    EXPECT_FALSE(Settings::Reply::read(std::nullopt));
}

TEST(MotionUploader, WhatFollowsAnUploadsOutcome) {
    using S = MotionUploader::AfterSuccess;
    using F = MotionUploader::AfterFailure;
    struct Case {
        const char* name;
        UploadPhase phase;
        std::size_t buffered, inFlight;
        std::int64_t tries;
        S success;
        std::size_t leftAfterSuccess;
        F failure;
        std::size_t leftAfterFailure;
    };
    // clang-format off
    const Case cases[] = {
        {"driving",                      {false, true, false},  5, 3, 0, S::nothing,      2, F::report,  5},
        {"stopped, more to send",        {false, false, true},  5, 3, 0, S::sendNextBulk, 2, F::retry,   5},
        {"stopped, last bulk",           {false, false, true},  3, 3, 0, S::completeTrip, 0, F::retry,   3},
        {"stopped, end address pending", {false, false, false}, 3, 3, 0, S::nothing,      0, F::nothing, 3},
        {"stopped, no bulk in flight",   {false, false, true},  2, 0, 0, S::nothing,      2, F::retry,   2},
        {"stopped, retries used up",     {false, false, true},  3, 3, 3, S::completeTrip, 0, F::giveUp,  3},
        {"outbox, driving",              {true, true, false},   5, 3, 0, S::nothing,      2, F::report,  2},
        {"outbox, stopped",              {true, false, true},   5, 3, 0, S::nothing,      2, F::nothing, 2},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        MotionUploader u;
        u.buffer.motionDataArray.resize(c.buffered);
        u.buffer.serverSyncTryCount = c.tries;
        if (c.inFlight) u.bulkInFlight = c.inFlight;
        MotionUploader v = u;
        EXPECT_EQ(u.confirmed(c.phase), c.success);
        EXPECT_EQ(u.buffer.motionDataArray.size(), c.leftAfterSuccess);
        EXPECT_EQ(u.buffer.isSyncingToServer, c.success == S::sendNextBulk);
        EXPECT_EQ(v.failed(c.phase), c.failure);
        EXPECT_EQ(v.buffer.motionDataArray.size(), c.leftAfterFailure);
        EXPECT_EQ(v.buffer.isSyncingToServer, c.failure == F::retry);
        EXPECT_FALSE(u.bulkInFlight || v.bulkInFlight);
    }
}

// Single escapes go at every offset: the scan steps in blocks of 64 and words of 8.
TEST(MotionUploadBody, ReadsBackToItsParts) {
    std::string longPlain;
    for (int i = 0; i < 200; ++i) longPlain += "12.345, -0.001,2018-03-05 12:00:00:000,FU,;";
    std::vector<std::string> texts = {std::string(),
                                      std::string("a\x01"
                                                  "b\x1f"
                                                  "c\n\r\t\b\f"),
                                      std::string("\"\\\n\r\t\b\f\x7f\x02"), longPlain,
                                      longPlain + "\"" + longPlain};
    for (char special : {'"', '\\', '\n', '\x01'}) {
        for (std::size_t at = 0; at < 140; ++at) {
            texts.emplace_back(140, 'x');
            texts.back()[at] = special;
        }
    }
    for (const std::string& motionStr : texts) {
        for (const std::optional<std::string>& version :
             {std::optional<std::string>{}, std::optional<std::string>{"2.1 \"beta\""}}) {
            auto body = writeMotionDataBody(-42, "0000-\"guid\"", motionStr, version);
            ASSERT_TRUE(body);
            auto parsed = json::parse(*body);
            ASSERT_TRUE(parsed) << parsed.error << "\n" << *body;
            EXPECT_TRUE(*parsed.value ==
                        Value(Object{{"UserID", -42},
                                     {"DrivingGuid", "0000-\"guid\""},
                                     {"MotionStr", motionStr},
                                     {"AppVersion", version ? Value(*version) : Value()}}));
            // Compact: no blank outside the texts.
            EXPECT_EQ(body->find(": "), std::string::npos);
            EXPECT_EQ(body->find(", \""), std::string::npos);
        }
    }
}

TEST(MotionUploadBody, RefusesTextsThatAreNotUtf8) {
    const std::string bad = "ab\xff";
    EXPECT_FALSE(writeMotionDataBody(1, bad, "x", std::nullopt));
    EXPECT_FALSE(writeMotionDataBody(1, "g", bad, std::nullopt));
    EXPECT_FALSE(writeMotionDataBody(1, "g", "x", bad));
    EXPECT_TRUE(writeMotionDataBody(1, "g", "x", std::string("1.0")));
}

TEST(MotionUploadBody, DescribesTheTransportErrorAsAnOptional) {
    EXPECT_EQ(describeOptionalError(std::nullopt), "nil");
    EXPECT_EQ(describeOptionalError(TransportError{"NSURLErrorDomain", -1004, "refused"}),
              "Optional(Error Domain=NSURLErrorDomain Code=-1004 \"refused\")");
}

}  // namespace
}  // namespace kestrelvue::detail
