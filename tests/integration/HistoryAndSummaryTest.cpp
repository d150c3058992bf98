// The trip history and the summary figures of a detached engine against a real loopback server.

#include <gtest/gtest.h>
#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/Environment.h>

#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "support/TestEnvironment.h"

using namespace kestrelvue;
using namespace kestrelvue::test;
using namespace std::chrono_literals;

namespace {

// What a host heard, in order, from either delegate.
struct Report {
    std::string kind;  // "history", "historyFail", "summary", "summaryFail"
    std::int64_t code = 0;
    std::string title, message;
    std::vector<std::shared_ptr<Trip>> history;
    SummaryData summary;
};

class Host final : public HistoryDataDelegate, public DrivingInsightDelegate {
public:
    void historyDataDidReceive(const std::vector<std::shared_ptr<Trip>>& history) override {
        add({"history", 0, "", "", history, {}});
    }
    void historyDataReceiveDidFail(std::int64_t code, const std::string& title,
                                   const std::string& message) override {
        add({"historyFail", code, title, message, {}, {}});
    }
    void summaryDataDidReceive(const SummaryData& summaryData) override {
        add({"summary", 0, "", "", {}, summaryData});
    }
    void summaryDataReceiveDidFail(std::int64_t code, const std::string& title,
                                   const std::string& message) override {
        add({"summaryFail", code, title, message, {}, {}});
    }

    bool waitFor(std::size_t n, std::chrono::milliseconds timeout = 5s) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return reports_.size() >= n; });
    }
    /// Waits a little, then answers whether exactly `n` reports came.
    bool settled(std::size_t n, std::chrono::milliseconds grace = 200ms) {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, grace, [&] { return reports_.size() > n; });
        return reports_.size() == n;
    }
    std::vector<Report> reports() {
        std::lock_guard lock(mutex_);
        return reports_;
    }

private:
    void add(Report r) {
        std::lock_guard lock(mutex_);
        reports_.push_back(std::move(r));
        cv_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Report> reports_;
};

platform::TimePoint utc(int y, int mo, int d, int h, int mi, int s) {
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    return platform::TimePoint(std::chrono::seconds(timegm(&tm)));
}

class EngineQueryTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The service's dates are local times; pin the zone before any request is in flight.
        if (const char* tz = std::getenv("TZ")) oldZone_ = tz;
        setenv("TZ", "Europe/Istanbul", 1);
        tzset();
        env = makeTestEnvironment(server);
        engine = DrivingInsight::makeDetached(env);
        engine->setHistoryDataDelegate(host);
        engine->setDrivingInsightDelegate(host);
    }
    void TearDown() override {
        engine.reset();
        if (oldZone_) {
            setenv("TZ", oldZone_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    void useBaseURL(const std::string& base) {
        engine.reset();
        env.applicationInfo = Object{{std::string(kBaseURLKey), Value(base)}};
        engine = DrivingInsight::makeDetached(env);
        engine->setHistoryDataDelegate(host);
        engine->setDrivingInsightDelegate(host);
    }

    TestServer server;
    Environment env;
    std::unique_ptr<DrivingInsight> engine;
    std::shared_ptr<Host> host = std::make_shared<Host>();

private:
    std::optional<std::string> oldZone_;
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

    const auto request = server.requestsTo("/api/Driving/getDriving/42").at(0);
    EXPECT_EQ(request.method, "GET");
    EXPECT_FALSE(request.hasHeader("Content-Type"));
    EXPECT_EQ(request.body, "");
    const auto report = host->reports().at(0);
    ASSERT_EQ(report.kind, "history");
    ASSERT_EQ(report.history.size(), 2u);
    EXPECT_EQ(engine->TripHistory(), report.history);
    EXPECT_EQ(engine->LastTrip(), report.history[1]);
    const Trip& a = *report.history[0];
    EXPECT_EQ(a.UserID, 42);
    EXPECT_EQ(a.StartDateTime, utc(2018, 3, 5, 11, 7, 0));
    EXPECT_EQ(a.StartDateTime_Formatted, "05.03.2018 14:07");
    EXPECT_EQ(a.EndDateTime, utc(2018, 3, 5, 11, 32, 13));
    EXPECT_EQ(a.SharpBrakingPenalty, 3.0);
    EXPECT_EQ(a.SharpBrakingPenaltyPerKM, 0.0);
    EXPECT_EQ(a.TimeElapsedTotalDistance_Formatted, "0:25:13 sn, 12.4 km");
    EXPECT_EQ(a.StartAnnotation->coordinate, (platform::Coordinate{41.0, 29.0}));
    EXPECT_EQ(a.StartAnnotation->subtitle, "Başlangıç");
    EXPECT_EQ(a.EndAnnotation->subtitle, "Bitiş");
    EXPECT_EQ(a.getPassedCoordinatesURL, server.url("/api/Driving/getPassedCoordinates"));
    EXPECT_EQ(report.history[1]->DrivingID, "b");
    EXPECT_TRUE(host->settled(1));
}

TEST_F(HistoryTest, EmptyListReportsAnEmptyHistoryAndKeepsTheLastTrip) {
    server.reply("/api/Driving/getDriving/0", ScriptedReply::json("[]"));
    const auto last = engine->LastTrip();
    engine->setTripHistory({std::make_shared<Trip>(env)});
    engine->getTripHistory();  // a userID of 0 is asked for as it is
    ASSERT_TRUE(host->waitFor(1));
    EXPECT_EQ(host->reports().at(0).kind, "history");
    EXPECT_TRUE(host->reports().at(0).history.empty());
    EXPECT_TRUE(engine->TripHistory().empty());
    EXPECT_EQ(engine->LastTrip(), last);
}

TEST_F(HistoryTest, StatusWithoutBodyReportsNothing) {
    server.reply("/api/Driving/getDriving/0", ScriptedReply::noBody());
    engine->setTripHistory({std::make_shared<Trip>(env)});
    engine->getTripHistory();
    ASSERT_TRUE(server.waitForRequests(2));  // the engine's threshold download and ours
    EXPECT_TRUE(host->settled(0, 300ms));
    EXPECT_TRUE(engine->TripHistory().empty());  // emptied when asked
}

// Every failure reaches the host with its code, title and message; the history holds none of
// the reply and the last trip stays.
TEST_F(HistoryTest, FailuresAreReportedWithTheirCodes) {
    const std::string connection = "Sistem Bağlantı Hatası";
    const std::string unreadable = "Sürüş Tarihçesi Alınamıyor. ";
    struct Case {
        ScriptedReply reply;
        std::int64_t code;
        std::string message;  // the whole message, or its start for 1012
    } cases[] = {
        {ScriptedReply::statusOnly(500), 1010, "Sürüş Geçmişi Alınamıyor. Response Code:500"},
        {ScriptedReply::json(kTwoTrips, 404), 1010, "Sürüş Geçmişi Alınamıyor. Response Code:404"},
        {ScriptedReply::dropped(ScriptedReply::Drop::beforeReply), 1011,
         "Sürüş Tarihçesi Alınamıyor"},
        {ScriptedReply::text(""), 1012, unreadable},
        {ScriptedReply::text("42"), 1012, unreadable + "JSON text did not start"},
        {ScriptedReply::json(R"([{"DrivingGuid":"a"},)"), 1012, unreadable},
        {ScriptedReply::json(R"({"DrivingGuid":"a"})"), 1012,
         unreadable + "expected a list of trips, got an object"},
        {ScriptedReply::json(R"([{"DrivingGuid":"a"}, {"Score":"high"}])"), 1012,
         unreadable + "[1].Score: expected a number"},
        {ScriptedReply::json(R"([{"StartDateTime":"05.03.2018 14:07"}])"), 1012,
         unreadable + "[0].StartDateTime: expected a date"},
        {ScriptedReply::json(R"([{"SharpBrakingCount":1.5}])"), 1012,
         unreadable + "[0].SharpBrakingCount: expected an integer"},
        {ScriptedReply::json("[{\"DrivingGuid\":\"\xc3\"}]"), 1012, unreadable},
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
        EXPECT_EQ(r.title, connection);
        if (c.code == 1012) {
            EXPECT_EQ(r.message.rfind(c.message, 0), 0u) << r.message;
            EXPECT_GT(r.message.size(), unreadable.size()) << "the parser's text is appended";
        } else {
            EXPECT_EQ(r.message, c.message);
        }
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

TEST_F(HistoryTest, WithoutADelegateTheHistoryIsStillDownloaded) {
    server.reply("/api/Driving/getDriving/0", ScriptedReply::json(kTwoTrips));
    engine->setHistoryDataDelegate(nullptr);
    engine->getTripHistory();
    for (int i = 0; i < 500 && engine->TripHistory().size() < 2; ++i) {
        std::this_thread::sleep_for(10ms);  // nothing to wait on but the record itself
    }
    ASSERT_EQ(engine->TripHistory().size(), 2u);
    EXPECT_EQ(engine->LastTrip()->DrivingID, "b");
}

// Overlapping requests both append to the one list, emptied only when each was asked. The first
// reply is held so that both requests are out before either answer; their order does not matter.
TEST_F(HistoryTest, OverlappingRepliesShareTheList) {
    server.enqueue("/api/Driving/getDriving/0", ScriptedReply::json(kTwoTrips).after(1s));
    server.enqueue("/api/Driving/getDriving/0", ScriptedReply::json(R"([{"DrivingGuid":"c"}])"));
    engine->getTripHistory();
    ASSERT_TRUE(server.waitForRequests(2));  // the thresholds and the first history request
    engine->getTripHistory();
    ASSERT_TRUE(host->waitFor(2));
    const auto reports = host->reports();
    EXPECT_TRUE(reports[0].history.size() == 1u || reports[0].history.size() == 2u);
    EXPECT_EQ(reports[1].history.size(), 3u);
    EXPECT_EQ(engine->TripHistory(), reports[1].history);
    EXPECT_EQ(engine->LastTrip(), reports[1].history.back());
}

// Neither delegate hears of a reply that comes after its engine ended.
TEST_F(EngineQueryTest, EngineThatEndsBeforeTheRepliesIsNotTouched) {
    server.reply("/api/Driving/getDriving/0", ScriptedReply::json(kTwoTrips).after(200ms));
    server.reply("/api/Driving/getDrivingSummary/6",
                 ScriptedReply::json(R"([{"AverageScore": 1}])").after(200ms));
    engine->getTripHistory();
    engine->getSummaryData(6);
    ASSERT_TRUE(server.waitForRequests(3));
    engine.reset();
    EXPECT_TRUE(host->settled(0, 400ms));
    EXPECT_EQ(env.notifications->observerCount("summaryDataReady"), 0u);
}

TEST_F(SummaryTest, ElementsAreMergedMemberByMember) {
    server.reply("/api/Driving/getDrivingSummary/7",
                 ScriptedReply::json(R"([{"AverageScore": 70, "NumberOfTrips": 3},
                                         {"AverageScore": 80.5}])"));
    engine->setSummaryDataRecord(SummaryData(1, 2500, 1));
    engine->getSummaryData(7);
    ASSERT_TRUE(host->waitFor(1));
    EXPECT_EQ(server.requestsTo("/api/Driving/getDrivingSummary/7").at(0).method, "GET");
    EXPECT_EQ(host->reports().at(0).kind, "summary");
    EXPECT_EQ(host->reports().at(0).summary, SummaryData(80.5, 2500, 3));
    EXPECT_EQ(engine->getSummaryDataRecord(), SummaryData(80.5, 2500, 3));
    EXPECT_EQ(env.notifications->observerCount("summaryDataReady"), 0u);
    EXPECT_TRUE(host->settled(1));
}

TEST_F(SummaryTest, EmptyListReportsTheRecordAsItIs) {
    server.reply("/api/Driving/getDrivingSummary/0", ScriptedReply::json("[]"));
    engine->getSummaryData(0);
    ASSERT_TRUE(host->waitFor(1));
    EXPECT_EQ(host->reports().at(0).summary, SummaryData());
}

// A failed request, or a reply of the wrong shape, reports 1009 and then the unchanged record.
TEST_F(SummaryTest, FailuresReportTheCodeAndThenTheUnchangedRecord) {
    struct Case {
        ScriptedReply reply;
        std::string message;
    } cases[] = {
        {ScriptedReply::statusOnly(500), "Özet Veri Servis URLi Hatalı"},
        {ScriptedReply::text("nope"), "Özet Veri Servis URLi Hatalı"},
        {ScriptedReply::json(R"({"AverageScore": 1})"),
         "Özet Veri Servis URLi Hatalı. the reply is not a list of objects"},
        {ScriptedReply::json(R"([{"AverageScore": 1}, {"NumberOfTrips": 1.5}])"),
         "Özet Veri Servis URLi Hatalı. [1].NumberOfTrips: expected an integer"},
        {ScriptedReply::json(R"([{"TotalDistance": "9"}])"),
         "Özet Veri Servis URLi Hatalı. [0].TotalDistance: expected a number"},
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

TEST_F(SummaryTest, StatusWithoutBodyLeavesTheRequestWaiting) {
    server.reply("/api/Driving/getDrivingSummary/4", ScriptedReply::noBody());
    engine->getSummaryData(4);
    ASSERT_TRUE(server.waitForRequests(2));
    EXPECT_TRUE(host->settled(0, 300ms));
    EXPECT_EQ(env.notifications->observerCount("summaryDataReady"), 1u);
}

// The first reply ends every registration, so overlapping requests share one answer. The first
// request gets no body, so the only reply comes after both registrations.
TEST_F(SummaryTest, OverlappingRequestsShareTheFirstReply) {
    server.enqueue("/api/Driving/getDrivingSummary/5", ScriptedReply::noBody());
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
