// The trip history and the summary figures of a detached engine against a real loopback server.

#include <gtest/gtest.h>
#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/Environment.h>

#include <string>
#include <vector>

#include "support/TestEnvironment.h"
#include "support/Time.h"

using namespace kestrelvue;
using namespace kestrelvue::test;
using namespace std::chrono_literals;

namespace {

class EngineQueryTest : public ::testing::Test {
protected:
    void SetUp() override {
        env = makeTestEnvironment(server);
        makeEngine();
    }
    void TearDown() override { engine.reset(); }
    void makeEngine() {
        engine = DrivingInsight::makeDetached(env);
        engine->setHistoryDataDelegate(host);
        engine->setDrivingInsightDelegate(host);
    }
    void useBaseURL(const std::string& base) {
        engine.reset();
        env.applicationInfo = Object{{std::string(kBaseURLKey), Value(base)}};
        makeEngine();
    }

    // The service's dates are local times; the zone is pinned before any request is in flight.
    ScopedTimeZone zone{"Europe/Istanbul"};
    TestServer server;
    Environment env;
    std::unique_ptr<DrivingInsight> engine;
    std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>();
};

using HistoryTest = EngineQueryTest;
using SummaryTest = EngineQueryTest;

constexpr const char* kTwoTrips = R"([
    {"UserId": 42, "DrivingGuid": "a", "StartDateTime": "2018-03-05T14:07:00",
     "EndDateTime": "2018-03-05T14:32:13", "StartLocationLatitude": 41.0,
     "StartLocationLongitude": 29.0, "SharpBrakingPenalty": 3, "TimeElapsed": "0:25:13",
     "TotalDistance": 12437, "Score": 91.5},
    {"DrivingGuid": "b"}
])";

TEST_F(HistoryTest, ReplyBecomesTheHistoryAndTheLastTrip) {
    server.reply("/api/Driving/getDriving/42", ScriptedReply::json(kTwoTrips));
    engine->setUserID(42);
    engine->getTripHistory();
    ASSERT_TRUE(host->waitFor(1));

    const auto request = server.requests("/api/Driving/getDriving/42").at(0);
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.header("Content-Type"), "");
    const auto report = host->reports().at(0);
    ASSERT_EQ(report.kind, "history");
    ASSERT_EQ(report.history.size(), 2u);
    EXPECT_EQ(engine->TripHistory(), report.history);
    EXPECT_EQ(engine->LastTrip(), report.history[1]);
    const Trip& a = *report.history[0];
    EXPECT_EQ(a.UserID, 42);
    EXPECT_EQ(a.TimeElapsedTotalDistance_Formatted, "0:25:13 sn, 12.4 km");
    EXPECT_EQ(a.getPassedCoordinatesURL, server.url("/api/Driving/getPassedCoordinates"));
    EXPECT_EQ(report.history[1]->DrivingID, "b");
    EXPECT_TRUE(host->settled(1));
}

// Every failure reaches the host with its code, title and message (the parser's own text is the
// reader's tests' concern); the history holds none of the reply and the last trip stays.
TEST_F(HistoryTest, FailuresAreReportedWithTheirCodes) {
    struct Case {
        ScriptedReply reply;
        std::int64_t code;
        std::string message;  // the whole message, or its start for 1012
    } cases[] = {
        {ScriptedReply{.status = 500}, 1010, "Sürüş Geçmişi Alınamıyor. Response Code:500"},
        {ScriptedReply{.drop = ScriptedReply::Drop::beforeReply}, 1011,
         "Sürüş Tarihçesi Alınamıyor"},
        {ScriptedReply::json(R"([{"DrivingGuid":"a"}, {"Score":"high"}])"), 1012,
         "Sürüş Tarihçesi Alınamıyor. [1].Score"},
    };
    const auto last = engine->LastTrip();
    std::size_t n = 0;
    for (const auto& c : cases) {
        server.enqueue("/api/Driving/getDriving/0", c.reply);
        engine->getTripHistory();
        ASSERT_TRUE(host->waitFor(++n)) << c.message;
        const auto r = host->reports().back();
        EXPECT_EQ(r.kind, "historyFail") << c.message;
        EXPECT_EQ(r.code, c.code) << c.message;
        EXPECT_EQ(r.title, "Sistem Bağlantı Hatası");
        EXPECT_EQ(c.code == 1012 ? r.message.substr(0, c.message.size()) : r.message, c.message);
        EXPECT_TRUE(engine->TripHistory().empty());
        EXPECT_EQ(engine->LastTrip(), last);
    }
    EXPECT_TRUE(host->settled(n));
}

TEST_F(HistoryTest, AddressThatDoesNotParseIsReportedAtOnceAndKeepsTheHistory) {
    useBaseURL(server.baseURL() + "/a b");
    const auto kept = std::make_shared<Trip>(env);
    engine->setTripHistory({kept});
    engine->getTripHistory();
    ASSERT_EQ(host->reports().size(), 1u);  // before the call returned
    const auto r = host->reports().at(0);
    EXPECT_EQ(r.kind, "historyFail");
    EXPECT_EQ(r.code, 1009);
    EXPECT_EQ(r.title, "URL Hatası");
    EXPECT_EQ(r.message, "Tarihçe Servis URLi Hatalı");
    EXPECT_EQ(engine->TripHistory(), std::vector<std::shared_ptr<Trip>>{kept});
}

// Neither delegate hears of a reply that comes after its engine ended. The replies wait long
// enough that a slow (sanitized, loaded) test thread still ends the engine before they come.
TEST_F(EngineQueryTest, EngineThatEndsBeforeTheRepliesIsNotTouched) {
    server.reply("/api/Driving/getDriving/0", ScriptedReply::json(kTwoTrips).after(1500ms));
    server.reply("/api/Driving/getDrivingSummary/6",
                 ScriptedReply::json(R"([{"AverageScore": 1}])").after(1500ms));
    engine->getTripHistory();
    engine->getSummaryData(6);
    ASSERT_TRUE(server.waitForRequests(3));
    engine.reset();
    EXPECT_TRUE(host->settled(0, 1800ms));
    EXPECT_EQ(env.notifications->observerCount("summaryDataReady"), 0u);
}

TEST_F(SummaryTest, ElementsAreMergedMemberByMember) {
    server.reply("/api/Driving/getDrivingSummary/7",
                 ScriptedReply::json(R"([{"AverageScore": 70, "NumberOfTrips": 3},
                                         {"AverageScore": 80.5}])"));
    engine->setSummaryDataRecord(SummaryData(1, 2500, 1));
    engine->getSummaryData(7);
    ASSERT_TRUE(host->waitFor(1));
    EXPECT_EQ(server.requests("/api/Driving/getDrivingSummary/7").at(0).method, "GET");
    EXPECT_EQ(host->reports().at(0).kind, "summary");
    EXPECT_EQ(host->reports().at(0).summary, SummaryData(80.5, 2500, 3));
    EXPECT_EQ(engine->getSummaryDataRecord(), SummaryData(80.5, 2500, 3));
    EXPECT_EQ(env.notifications->observerCount("summaryDataReady"), 0u);
    EXPECT_TRUE(host->settled(1));
}

TEST_F(SummaryTest, FailuresReportTheCodeAndThenTheUnchangedRecord) {
    struct Case {
        ScriptedReply reply;
        std::string message;
    } cases[] = {
        {ScriptedReply{.status = 500}, "Özet Veri Servis URLi Hatalı"},
        {ScriptedReply::json(R"({"AverageScore": 1})"),
         "Özet Veri Servis URLi Hatalı. the reply is not a list of objects"},
    };
    const SummaryData before(55, 100, 2);
    engine->setSummaryDataRecord(before);
    std::size_t n = 0;
    for (const auto& c : cases) {
        server.enqueue("/api/Driving/getDrivingSummary/1", c.reply);
        engine->getSummaryData(1);
        n += 2;
        ASSERT_TRUE(host->waitFor(n)) << c.message;
        const auto reports = host->reports();
        EXPECT_EQ(reports[n - 2].kind, "summaryFail");
        EXPECT_EQ(reports[n - 2].code, 1009);
        EXPECT_EQ(reports[n - 2].title, "URL Hatası");
        EXPECT_EQ(reports[n - 2].message, c.message);
        EXPECT_EQ(reports[n - 1].kind, "summary");
        EXPECT_EQ(reports[n - 1].summary, before);
    }
    EXPECT_TRUE(host->settled(n));
}

// The first reply ends every registration, so overlapping requests share one answer. The first
// request gets no body, so the only reply comes after both registrations.
TEST_F(SummaryTest, OverlappingRequestsShareTheFirstReply) {
    server.enqueue("/api/Driving/getDrivingSummary/5", ScriptedReply{.body = std::nullopt});
    server.enqueue("/api/Driving/getDrivingSummary/5",
                   ScriptedReply::json(R"([{"AverageScore": 1}])"));
    engine->getSummaryData(5);
    ASSERT_TRUE(server.waitForRequests(2));  // the thresholds and the first summary request
    engine->getSummaryData(5);
    ASSERT_TRUE(host->waitFor(1));
    EXPECT_TRUE(host->settled(1));
    EXPECT_EQ(engine->getSummaryDataRecord().averageScore, 1.0);
    EXPECT_EQ(env.notifications->observerCount("summaryDataReady"), 0u);
}

}  // namespace
