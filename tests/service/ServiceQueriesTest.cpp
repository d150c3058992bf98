// The library's own requests to the service against a scripted loopback server, through the real
// call layer and libcurl: the account's, the trip history, the summary and a trip's route.

#include <gtest/gtest.h>
#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/Trip.h>
#include <kestrelvue/User.h>

#include "core/Json.h"
#include "support/TestEnvironment.h"
#include "support/Time.h"

namespace kestrelvue {
namespace {

using namespace std::chrono_literals;
using namespace test;
using R = ScriptedReply;

constexpr const char* kRoutePath = "/api/Driving/getPassedCoordinates/";

class ServiceQueries : public ::testing::Test {
protected:
    ServiceQueries() { account->setDelegate(user); }

    void makeEngine(const std::string& base = {}) {
        engine.reset();
        if (!base.empty()) env.applicationInfo = Object{{std::string(kBaseURLKey), Value(base)}};
        engine = DrivingInsight::makeDetached(env);
        engine->setHistoryDataDelegate(host);
        engine->setDrivingInsightDelegate(host);
    }
    std::shared_ptr<Trip> trip(const std::string& id) {
        auto t = std::make_shared<Trip>(env);
        t->DrivingID = id;
        return t;
    }
    std::size_t routeRegistrations() const {
        return env.notifications->observerCount("passedCoordinatesReturnedFromServer");
    }

    // The service's dates are local times; the zone is pinned before any request is in flight.
    ScopedTimeZone zone{"Europe/Istanbul"};
    // Declared before everything that sends to it, so that it outlives them.
    TestServer server;
    Environment env = makeTestEnvironment(server);
    std::unique_ptr<RestfulCall> call = makeRestfulCall(env);
    std::unique_ptr<User> account = User::makeDetachedShared(env, *call);
    std::shared_ptr<RecordingDelegate> user = std::make_shared<RecordingDelegate>();
    NotificationRecorder draws{env.notifications, {"drawPassedCoordinates"}};
    std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>();
    std::unique_ptr<DrivingInsight> engine;
};

TEST_F(ServiceQueries, AccountRequestsCarryTheirBodiesAndRepliesReachTheHandlingAccount) {
    server.reply("/api/User/LoginWithToken", R::json(R"({"Id":58,"UserTypeId":3})"));
    server.reply("/api/User/AddUser", R::text("812"));
    server.enqueue("/api/General/AddFriend", R::text("OK"));
    server.enqueue("/api/General/AddFriend", R::text("Zaten arkadaş", 500));
    account->setReferenceId("REF-1");
    account->login("5551234567", "t0k3n");
    ASSERT_TRUE(user->waitFor(1));
    EXPECT_EQ(account->Id(), 58);

    // A registrant made with the public initialiser: the handling account takes the reply.
    User registrant("Ayşe", "Yılmaz", "ayse@example.org", GenderType::female, "REF-2", env, *call);
    auto own = std::make_shared<RecordingDelegate>();
    registrant.setDelegate(own);
    registrant.addUser();
    ASSERT_TRUE(user->waitFor(2));
    EXPECT_EQ(account->Id(), 812);
    EXPECT_EQ(registrant.Id(), 0);
    EXPECT_TRUE(own->reports().empty());

    account->addFriend("REF-9");
    ASSERT_TRUE(user->waitFor(3));
    account->addFriend("REF-9");
    ASSERT_TRUE(user->waitFor(4));
    std::vector<std::string> said;
    for (const auto& e : user->reports())
        said.push_back(e.said() + e.friendReferenceId + (e.user == account.get() ? " (it)" : ""));
    EXPECT_EQ(said, (std::vector<std::string>{
                        "userDidLogin (it)", "userDidAdd (it)",
                        "friendDidAddOK",  // the reply's body, passed on
                        "friendAddDidFail 1000 Arkadaş eklenemedi: Zaten arkadaş"}));

    const std::pair<const char*, const char*> bodies[] = {
        {"/api/User/LoginWithToken", R"({"Mobile":"5551234567","Token":"t0k3n"})"},
        {"/api/User/AddUser",
         R"({"FirstName":"Ayşe","LastName":"Yılmaz","Email":"ayse@example.org",)"
         R"("GenderId":2,"ReferenceId":"REF-2"})"},
        {"/api/General/AddFriend",
         R"({"ReferenceID":"REF-1","FriendReferenceID":"REF-9","LoginTypeID":1})"}};
    for (const auto& [path, body] : bodies)  // compared as JSON: member order is free
        EXPECT_EQ(json::parse(server.requests(path).at(0).body).value, json::parse(body).value)
            << path;
}

TEST_F(ServiceQueries, OverlappingLeaderboardRequestsAreToldApartByRankType) {
    const std::string path = "/api/General/getLeaderShip/57";
    account->setId(57);
    // The first request's answer is held back so that the second one overtakes it.
    server.enqueue(path, R::json(R"([{"UserID":"a1","RankType":1}])").after(500ms));
    server.enqueue(path, R::json(R"([{"UserID":"a1","RankType":2}])"));
    account->getLeadership(RankTypes::Country);
    ASSERT_TRUE(server.waitForRequests(1, path));
    account->getLeadership(RankTypes::City);
    ASSERT_TRUE(user->waitFor(2));
    const auto events = user->reports();
    EXPECT_EQ(std::pair(events[0].leaderboard.at(0).RankType, events[1].leaderboard.at(0).RankType),
              std::pair(std::optional(RankTypes::City), std::optional(RankTypes::Country)));
    EXPECT_EQ(server.requests(path).at(0).target + server.requests(path).at(1).target,
              path + "?RankType=1" + path + "?RankType=2");
}

constexpr const char* kTwoTrips = R"([
    {"UserId": 42, "DrivingGuid": "a", "StartDateTime": "2018-03-05T14:07:00",
     "EndDateTime": "2018-03-05T14:32:13", "StartLocationLatitude": 41.0,
     "StartLocationLongitude": 29.0, "SharpBrakingPenalty": 3, "TimeElapsed": "0:25:13",
     "TotalDistance": 12437, "Score": 91.5},
    {"DrivingGuid": "b"}
])";

// A reply becomes the history, its last element the last trip. Every failure reaches the host
// with its code, title and message (the parser's own text is the reader's tests' concern); the
// history holds none of the reply and the last trip stays. An address that does not parse is
// reported at once and keeps the history.
TEST_F(ServiceQueries, HistoryRepliesAndFailures) {
    makeEngine();
    const std::string path = "/api/Driving/getDriving/42";
    server.enqueue(path, R::json(kTwoTrips));
    engine->setUserID(42);
    engine->getTripHistory();
    ASSERT_TRUE(host->waitFor(1));
    EXPECT_EQ(server.requests(path).at(0).method, "GET");
    const auto report = host->reports().at(0);
    ASSERT_EQ(report.kind, "history");
    ASSERT_EQ(report.history.size(), 2u);
    EXPECT_EQ(engine->TripHistory(), report.history);
    const auto last = engine->LastTrip();
    EXPECT_EQ(last, report.history[1]);
    EXPECT_EQ(report.history[0]->TimeElapsedTotalDistance_Formatted, "0:25:13 sn, 12.4 km");
    EXPECT_EQ(report.history[0]->getPassedCoordinatesURL,
              server.url("/api/Driving/getPassedCoordinates"));

    const std::string failed = "historyFail 101";
    const std::pair<R, std::string> cases[] = {
        // the whole report, or its start for 1012
        {{.status = 500},
         failed + "0 Sistem Bağlantı Hatası: Sürüş Geçmişi Alınamıyor. Response Code:500"},
        {{.drop = R::Drop::beforeReply},
         failed + "1 Sistem Bağlantı Hatası: Sürüş Tarihçesi Alınamıyor"},
        {R::json(R"([{"DrivingGuid":"a"}, {"Score":"high"}])"),
         failed + "2 Sistem Bağlantı Hatası: Sürüş Tarihçesi Alınamıyor. [1].Score"},
    };
    std::size_t n = 1;
    for (const auto& [reply, said] : cases) {
        server.enqueue(path, reply);
        engine->getTripHistory();
        ASSERT_TRUE(host->waitFor(++n)) << said;
        const auto r = host->reports().back().said();
        EXPECT_EQ(r.substr(0, n == 4 ? said.size() : r.size()), said);
        EXPECT_TRUE(engine->TripHistory().empty());
        EXPECT_EQ(engine->LastTrip(), last);
    }
    EXPECT_TRUE(host->settled(n));

    makeEngine(server.baseURL() + "/a b");
    const auto kept = std::make_shared<Trip>(env);
    engine->setTripHistory({kept});
    engine->getTripHistory();
    ASSERT_EQ(host->reports().size(), n + 1);  // before the call returned
    EXPECT_EQ(host->reports().back().said(),
              "historyFail 1009 URL Hatası: Tarihçe Servis URLi Hatalı");
    EXPECT_EQ(engine->TripHistory(), std::vector<std::shared_ptr<Trip>>{kept});
}

// Neither delegate hears of a reply that comes after its engine ended. The replies wait long
// enough that a slow (sanitized, loaded) test thread still ends the engine before they come.
TEST_F(ServiceQueries, EngineThatEndsBeforeTheRepliesIsNotTouched) {
    makeEngine();
    server.reply("/api/Driving/getDriving/0", R::json(kTwoTrips).after(1500ms));
    server.reply("/api/Driving/getDrivingSummary/6",
                 R::json(R"([{"AverageScore": 1}])").after(1500ms));
    engine->getTripHistory();
    engine->getSummaryData(6);
    ASSERT_TRUE(server.waitForRequests(3));  // with the thresholds
    engine.reset();
    EXPECT_TRUE(host->settled(0, 1800ms));
    EXPECT_EQ(env.notifications->observerCount("summaryDataReady"), 0u);
}

// Elements are merged member by member into the record. The first reply ends every registration,
// so overlapping requests share one answer: the first request gets no body, so the only reply
// comes after both registrations. A failure reports its code, then the unchanged record.
TEST_F(ServiceQueries, SummaryRepliesMergeIntoTheRecordAndFailuresKeepIt) {
    makeEngine();
    const std::string path = "/api/Driving/getDrivingSummary/7";
    server.enqueue(path, {.body = std::nullopt});
    server.enqueue(path, R::json(R"([{"AverageScore": 70, "NumberOfTrips": 3},
                                     {"AverageScore": 80.5}])"));
    server.enqueue(path, {.status = 500});
    server.enqueue(path, R::json(R"([{"AverageScore": "70"}])"));
    engine->setSummaryDataRecord(SummaryData(1, 2500, 1));
    engine->getSummaryData(7);
    ASSERT_TRUE(server.waitForRequests(1, path));
    engine->getSummaryData(7);
    ASSERT_TRUE(host->waitFor(1));
    EXPECT_TRUE(host->settled(1));
    EXPECT_EQ(server.requests(path).at(0).method, "GET");
    EXPECT_EQ(host->reports().at(0).said(), "summary");
    for (const auto& s : {host->reports().at(0).summary, engine->getSummaryDataRecord()})
        EXPECT_EQ(s, SummaryData(80.5, 2500, 3));
    EXPECT_EQ(env.notifications->observerCount("summaryDataReady"), 0u);

    // The call layer's failure, then a reply of the wrong shape, which says what was wrong.
    engine->getSummaryData(7);
    ASSERT_TRUE(host->waitFor(3));
    engine->getSummaryData(7);
    ASSERT_TRUE(host->waitFor(5));
    const auto reports = host->reports();
    const std::string failed = "summaryFail 1009 URL Hatası: Özet Veri Servis URLi Hatalı";
    EXPECT_EQ(reports[1].said(), failed);
    EXPECT_EQ(reports[3].said(), failed + ". [0].AverageScore: expected a number");
    for (std::size_t i : {2u, 4u}) {
        EXPECT_EQ(reports[i].said(), "summary");
        EXPECT_EQ(reports[i].summary, SummaryData(80.5, 2500, 3));
    }
    EXPECT_TRUE(host->settled(5));
}

// Each reply replaces the route's three lists; failures keep them. Either way the registration
// ends and the host is told, without an object or a userInfo.
TEST_F(ServiceQueries, RouteRepliesReplaceTheListsAndFailuresKeepThem) {
    using Points = std::vector<platform::Coordinate>;
    const Points two{{41.0, 29.0}, {41.1, 29.1}};
    struct Case {
        R reply;
        Points points;
        std::size_t faults, fuel;
    } cases[] = {
        {R::json(R"([{"Latitude": 41.0, "Longitude": 29.0},
                     {"Latitude": 41.1, "Longitude": 29.1, "HasFault": true}])"),
         two, 1, 2},
        {{.status = 500}, two, 1, 2},
        {{.drop = R::Drop::beforeReply}, two, 1, 2},
        {R::json(R"([{"Latitude": 40}])"), {{40, 0}}, 0, 1},
    };
    auto t = trip("T-1");
    std::size_t n = 0;
    for (const auto& c : cases) {
        server.enqueue(std::string(kRoutePath) + "T-1", c.reply);
        t->getPassedCoordinatesFromServer();
        ASSERT_TRUE(draws.waitFor(++n)) << n;
        auto route = t->route();
        EXPECT_EQ(route.PassedCoordinates, c.points) << n;
        EXPECT_EQ(route.Faults.size(), c.faults) << n;
        EXPECT_EQ(route.FuelDefficiencies.size(), c.fuel) << n;
        EXPECT_EQ(routeRegistrations(), 0u);
        EXPECT_EQ(draws.at(n - 1).object, nullptr);
        EXPECT_FALSE(draws.at(n - 1).userInfo.has_value());
    }
    EXPECT_TRUE(draws.settled(n));
    EXPECT_EQ(server.requests().at(0).method, "GET");
}

TEST_F(ServiceQueries, ReleasedRecordMissesItsReply) {
    NotificationRecorder replies(env.notifications, {"passedCoordinatesReturnedFromServer"});
    server.reply(std::string(kRoutePath) + "R", R::json(R"([{"Latitude": 1}])").after(200ms));
    auto kept = trip("K");
    server.reply(std::string(kRoutePath) + "K", {.body = std::nullopt});
    kept->getPassedCoordinatesFromServer();
    {
        auto released = trip("R");
        released->getPassedCoordinatesFromServer();
        EXPECT_EQ(routeRegistrations(), 3u);  // the two records and the recorder
        std::weak_ptr<Trip> watch = released;
        released.reset();
        EXPECT_TRUE(watch.expired());
        EXPECT_EQ(routeRegistrations(), 2u);  // its registration ended with it
    }
    ASSERT_TRUE(replies.waitFor(1));
    ASSERT_TRUE(draws.waitFor(1));  // the kept record took the reply
    EXPECT_EQ(kept->route().PassedCoordinates.size(), 1u);
    EXPECT_TRUE(draws.settled(1));
}

}  // namespace
}  // namespace kestrelvue
