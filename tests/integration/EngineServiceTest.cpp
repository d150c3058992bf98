// The engine against a real loopback service: the threshold download at creation and the weather
// requests of a trip, driven in virtual time on the simulated platform.

#include <gtest/gtest.h>
#include <kestrelvue/posix/CurlHttpClient.h>

#include "support/EngineHarness.h"
#include "support/TestDoubles.h"
#include "support/TestServer.h"

namespace kestrelvue {
namespace {

using namespace std::chrono_literals;
using test::EngineHarness;
using test::NotificationRecorder;
using test::ScriptedReply;
using test::TestServer;

constexpr const char* kFailure = "Sunucudan ayarlar indirilemedi. Tekrar deneyiniz";

class EngineService : public ::testing::Test {
protected:
    TestServer server;
    EngineHarness h;

    void SetUp() override {
        h.env.http = std::make_shared<posix::CurlHttpClient>();
        h.env.applicationInfo = Object{{std::string(kBaseURLKey), Value(server.baseURL())}};
    }
};

TEST_F(EngineService, ThresholdsArriveAfterCreation) {
    server.reply("/api/Driving/getThresholds", ScriptedReply::json(R"([
        {"_enmThresholdName":"SharpBrakingLevel","_limitStart":0.3,"_limitEnd":0.5,"_impact":2,"_perKilometer":false},
        {"_enmThresholdName":"SharpBrakingLevel","_limitStart":0.5,"_limitEnd":9,"_impact":5,"_perKilometer":false},
        {"_enmThresholdName":"DistanceFilter","_limitStart":25,"_limitEnd":75,"_impact":0,"_perKilometer":false},
        {"_enmThresholdName":"UpdateInterval","_limitStart":0.25,"_limitEnd":0,"_impact":0,"_perKilometer":false}
    ])"));
    NotificationRecorder got(h.center, {"thresholdsGot"});
    auto engine = h.makeEngine();
    ASSERT_TRUE(got.waitFor(1));
    EXPECT_TRUE(got.settled(1));
    EXPECT_FALSE(got.at(0).userInfo.has_value());
    EXPECT_EQ(got.at(0).object, engine.get());

    auto requests = server.requests("/api/Driving/getThresholds");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/api/Driving/getThresholds");
    EXPECT_EQ(requests[0].body, "");

    auto s = DrivingInsightTestAccess::settings(*engine);
    const ThresholdList& braking = s.level(detail::EventKind::braking);
    ASSERT_EQ(braking.size(), 2u);
    EXPECT_EQ(braking[1]->Impact, 5.0);
    EXPECT_EQ(s.distanceFilter, 75.0);
    EXPECT_EQ(s.distanceFilterForSpeed, 25.0);
    EXPECT_EQ(s.updateInterval, 0.25);

    // The next trip samples at the new interval.
    ASSERT_TRUE(engine->startTrip());
    EXPECT_EQ(h.motion->deviceMotionUpdateInterval(), 0.25);
}

TEST_F(EngineService, WeatherRequestsReachTheServiceAndItsReplyTheHost) {
    server.reply("/api/Driving/getThresholds", ScriptedReply::json("[]"));
    server.reply("/api/General/getWeatherDataByLatLon/7",
                 ScriptedReply::json(R"({"Temperature":17.5})"));
    NotificationRecorder weather(h.center, {"getWeatherInfo"});
    auto engine = h.makeEngine();
    engine->setUserID(7);
    ASSERT_TRUE(engine->startTrip());
    h.clock->advance(1s);
    engine->didUpdateLocations({h.fix(40.9923, 29.0244, 5)});
    ASSERT_TRUE(weather.waitFor(1));

    auto requests = server.requests("/api/General/getWeatherDataByLatLon/7");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target,
              "/api/General/getWeatherDataByLatLon/7?latitude=40.9923&longitude=29.0244");
    const test::RecordedNotification reply = weather.at(0);
    const Value* data = reply.find("Data");
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->find("Temperature")->asNumber(), 17.5);

    // The host stores the temperature; no further request follows.
    engine->setTemperature(17.5);
    engine->didUpdateLocations({h.fix(40.9924, 29.0244, 5)});
    EXPECT_TRUE(weather.settled(1));
    EXPECT_EQ(server.requests("/api/General/getWeatherDataByLatLon/7").size(), 1u);
}

}  // namespace
}  // namespace kestrelvue
