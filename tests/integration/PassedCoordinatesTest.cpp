// A trip's route against a real loopback server: lists, the "drawPassedCoordinates" post and the
// registration rules.

#include <gtest/gtest.h>
#include <kestrelvue/Environment.h>
#include <kestrelvue/Trip.h>

#include <atomic>
#include <thread>

#include "support/TestEnvironment.h"

using namespace kestrelvue;
using namespace kestrelvue::test;
using namespace std::chrono_literals;

namespace {

constexpr const char* kPath = "/api/Driving/getPassedCoordinates/";
constexpr const char* kReplyName = "passedCoordinatesReturnedFromServer";

class PassedCoordinatesTest : public ::testing::Test {
protected:
    std::shared_ptr<Trip> trip(const std::string& id) {
        auto t = std::make_shared<Trip>(env);
        t->DrivingID = id;
        return t;
    }
    std::size_t registrations() const { return env.notifications->observerCount(kReplyName); }

    TestServer server;
    Environment env = makeTestEnvironment(server);
    NotificationRecorder draws{env.notifications, {"drawPassedCoordinates"}};
};

TEST_F(PassedCoordinatesTest, ReplyFillsTheListsAndEveryQueryReplacesThem) {
    server.enqueue(std::string(kPath) + "T-1", ScriptedReply::json(R"([
        {"Latitude": 41.0, "Longitude": 29.0, "HasFault": false, "FuelEfficiencyPenaltyPerKM": 3.5},
        {"Latitude": 41.1, "Longitude": 29.1, "HasFault": true, "BrakingPenalty": 2,
         "BrakingPenaltyPerKM": 0.5}])"));
    server.enqueue(std::string(kPath) + "T-1", ScriptedReply::json(R"([{"Latitude": 40}])"));
    auto t = trip("T-1");

    t->getPassedCoordinatesFromServer();
    ASSERT_TRUE(draws.waitFor(1));
    EXPECT_EQ(server.requests().at(0).method, "GET");
    EXPECT_EQ(server.requests().at(0).target, "/api/Driving/getPassedCoordinates/T-1");
    auto route = t->route();
    EXPECT_EQ(route.PassedCoordinates,
              (std::vector<platform::Coordinate>{{41.0, 29.0}, {41.1, 29.1}}));
    ASSERT_EQ(route.Faults.size(), 1u);
    EXPECT_EQ(route.Faults[0].BrakingPenalty, 2.5);
    ASSERT_EQ(route.FuelDefficiencies.size(), 2u);
    EXPECT_EQ(route.FuelDefficiencies[0].FuelEfficiencyPenalty, 3.5);
    EXPECT_EQ(registrations(), 0u);
    EXPECT_EQ(draws.at(0).object, nullptr);
    EXPECT_FALSE(draws.at(0).userInfo.has_value());

    t->getPassedCoordinatesFromServer();
    ASSERT_TRUE(draws.waitFor(2));
    EXPECT_EQ(t->PassedCoordinates, (std::vector<platform::Coordinate>{{40, 0}}));
    EXPECT_TRUE(t->Faults.empty());
    EXPECT_EQ(t->FuelDefficiencies.size(), 1u);
    EXPECT_TRUE(draws.settled(2));
}

// Failures and replies of the wrong shape keep the previous lists, end the registration and
// still tell the host.
TEST_F(PassedCoordinatesTest, FailuresKeepTheListsAndStillPostTheDraw) {
    const ScriptedReply replies[] = {
        ScriptedReply{.status = 500},
        ScriptedReply{.drop = ScriptedReply::Drop::beforeReply},
    };
    auto t = trip("T-2");
    t->PassedCoordinates = {{1, 2}};
    t->Faults = {Trip::FaultStruct{{1, 2}, 1, 0, 0, 0, 0}};
    t->FuelDefficiencies = {Trip::FuelInefficiencyStruct{{1, 2}, 7}};
    std::size_t expectedDraws = 0;
    for (const auto& reply : replies) {
        server.enqueue(std::string(kPath) + "T-2", reply);
        t->getPassedCoordinatesFromServer();
        ASSERT_TRUE(draws.waitFor(++expectedDraws)) << expectedDraws;
        auto route = t->route();
        EXPECT_EQ(route.PassedCoordinates, (std::vector<platform::Coordinate>{{1, 2}}));
        EXPECT_EQ(route.Faults.size(), 1u);
        EXPECT_EQ(route.FuelDefficiencies.size(), 1u);
        EXPECT_EQ(registrations(), 0u);
    }
}

TEST_F(PassedCoordinatesTest, ReleasedRecordMissesItsReply) {
    NotificationRecorder replies(env.notifications, {kReplyName});
    server.reply(std::string(kPath) + "R",
                 ScriptedReply::json(R"([{"Latitude": 1}])").after(200ms));
    auto kept = trip("K");
    server.reply(std::string(kPath) + "K", ScriptedReply{.body = std::nullopt});
    kept->getPassedCoordinatesFromServer();
    {
        auto released = trip("R");
        released->getPassedCoordinatesFromServer();
        EXPECT_EQ(registrations(), 3u);  // the two records and the recorder
        std::weak_ptr<Trip> watch = released;
        released.reset();
        EXPECT_TRUE(watch.expired());
        EXPECT_EQ(registrations(), 2u);  // its registration ended with it
    }
    ASSERT_TRUE(replies.waitFor(1));
    ASSERT_TRUE(draws.waitFor(1));  // the kept record took the reply
    EXPECT_EQ(kept->route().PassedCoordinates.size(), 1u);
    EXPECT_TRUE(draws.settled(1));
}

// The host may copy the route at any time, also while a large reply is being applied, and never
// sees the three lists out of step.
TEST_F(PassedCoordinatesTest, RouteCopiesAreConsistentWhileRepliesArrive) {
    std::string body = "[";
    for (int i = 0; i < 2000; ++i) {
        body += i ? "," : "";
        body += R"({"Latitude":1,"Longitude":2,"HasFault":true,"FuelEfficiencyPenaltyPerKM":1})";
    }
    body += "]";
    server.reply(std::string(kPath) + "C", ScriptedReply::json(body));
    auto t = trip("C");
    constexpr int kQueries = 3;
    std::atomic<bool> done{false};
    std::atomic<int> inconsistent{0};
    std::thread host([&] {
        while (!done) {
            auto route = t->route();
            if (route.PassedCoordinates.size() != route.Faults.size() ||
                route.Faults.size() != route.FuelDefficiencies.size()) {
                ++inconsistent;
            }
        }
    });
    for (int i = 1; i <= kQueries; ++i) {
        t->getPassedCoordinatesFromServer();
        ASSERT_TRUE(draws.waitFor(static_cast<std::size_t>(i), 10s));
    }
    done = true;
    host.join();
    EXPECT_EQ(inconsistent, 0);
    EXPECT_EQ(t->route().PassedCoordinates.size(), 2000u);
}

}  // namespace
