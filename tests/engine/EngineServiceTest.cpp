// The real engine driven in virtual time on the simulated platform against a loopback server: the
// uploads of the motion buffer and the trip record over whole trips (bulks, continuation, retries,
// reports, no record lost or sent twice; the first test compressed). The tool's replay covers
// the threshold download, the fault soak the durable outbox across engines.
#include <gtest/gtest.h>
#include <kestrelvue/DrivingInsight.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <regex>

#include "core/Json.h"
#include "platform/sim/Sim.h"
#include "support/EngineHarness.h"
#include "support/TestEnvironment.h"

namespace kestrelvue {
namespace {

using namespace std::chrono_literals;
using R = test::ScriptedReply;

constexpr const char* kMotionPath = "/api/Driving/addMotionData";
constexpr const char* kScorePath = "/api/Driving/addDrivingScore";
constexpr const char* kThresholdPath = "/api/Driving/getThresholds";

// A received bulk: its trip and the item number of each record of its "MotionStr", in order.
struct Bulk {
    std::string drivingGuid;
    std::vector<std::int64_t> ids;
};

Bulk parseBulk(const test::ReceivedRequest& request) {
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    auto parsed = json::parse(request.body);
    EXPECT_TRUE(parsed) << parsed.error;
    if (!parsed) return {};
    const Value& body = *parsed.value;
    EXPECT_EQ(std::pair(*body.find("UserID"), *body.find("AppVersion")),
              std::pair(Value(77), Value("1.4.2")));
    Bulk bulk{*body.find("DrivingGuid")->asString(), {}};
    const std::string& text = *body.find("MotionStr")->asString();
    for (std::size_t start = 0, end; start < text.size(); start = end + 1) {
        end = std::min(text.find(';', start), text.size());
        std::size_t field = start;  // the item number is the 23rd field
        for (int i = 0; i < 22 && field < end; ++i) field = text.find(',', field) + 1;
        bulk.ids.push_back(std::atoll(text.c_str() + field));
    }
    return bulk;
}

std::vector<std::int64_t> range(std::int64_t from, std::int64_t to) {
    std::vector<std::int64_t> v;
    for (std::int64_t i = from; i <= to; ++i) v.push_back(i);
    return v;
}

// Flat (pitch near 0), small and distinct per sample, so each record can be matched to its sample.
platform::DeviceMotion sampleFor(std::int64_t n) {
    platform::DeviceMotion m;
    m.attitude = {0.001 * (n % 100), -0.002, 0.5 + 0.001 * (n % 500)};
    m.rotationRate = {0.003, -0.001 * (n % 7), 0.002};
    m.userAcceleration = {0.001 * (n % 50), -0.001, 0.004};
    m.gravity = {0.0, 0.0, -1.0};
    return m;
}

class EngineService : public ::testing::Test {
protected:
    // Called by each test after scripting the server.
    void SetUpEngine(std::int64_t bulkSize = 1000, bool compress = false) {
        env_ = test::makeTestEnvironment(server_);
        env_.compressUploads = compress;
        h_.installInto(env_);
        (*env_.applicationInfo)["BulkMotionDataSize"] = Value(bulkSize);
        (*env_.applicationInfo)["CFBundleShortVersionString"] = Value("1.4.2");
        engine_ = DrivingInsight::makeDetached(env_);
        // Registered after the engine's own observers, so a recorded outcome means the engine's
        // handler has finished with it.
        outcomes_ = std::make_unique<test::NotificationRecorder>(
            env_.notifications,
            std::vector<std::string>{"motionDataSynced", "motionDataSyncFailed", "getThresholds"});
        engine_->setDrivingInsightDelegate(h_.delegate);
        engine_->setUserID(77);
        h_.queue->runUntilIdle();
    }

    // Waits until every motion request and threshold download seen has an outcome the engine
    // handled, and no new motion request came within a quiet window (an outcome may send
    // another bulk). Sanitizers slow every step, the client's first connection most.
    void settleUploads() {
#ifdef KESTRELVUE_SANITIZED
        constexpr auto kQuiet = 1000ms;
#else
        constexpr auto kQuiet = 200ms;
#endif
        for (int round = 0; round < 50; ++round) {
            const std::size_t uploads = server_.requests(kMotionPath).size();
            outcomes_->waitFor(uploads + server_.requests(kThresholdPath).size(), 5s);
            if (!server_.waitForRequests(uploads + 1, kMotionPath, kQuiet)) break;
        }
    }

    void TearDown() override {
        if (!engine_) return;
        settleUploads();  // every reply reaches the engine before it goes
        engine_.reset();
    }

    void start() {
        ASSERT_TRUE(engine_->startTrip());
        engine_->didUpdateLocations({h_.fix(41.0082, 28.9784, 5)});
        h_.queue->runUntilIdle();
    }

    // Pushes `count` samples half a second apart, numbering them from `first`.
    void drive(std::int64_t count, std::int64_t first = 1) {
        for (std::int64_t i = 0; i < count; ++i) {
            h_.clock->advance(500ms);
            ASSERT_TRUE(h_.motion->push(sampleFor(first + i)));
            h_.queue->runUntilIdle();
        }
    }

    // Stops, then lets the end address lookup answer.
    void stop() {
        h_.geocoder->enqueueAnswer(sim::Geocoder::placemark({"Bitiş Cd. 1", "İstanbul"}));
        engine_->stopTrip();
        h_.queue->runUntilIdle();
    }

    std::vector<Bulk> bulks() const {
        std::vector<Bulk> out;
        for (const auto& r : server_.requests(kMotionPath)) out.push_back(parseBulk(r));
        return out;
    }

    // The item numbers the server received, in arrival order.
    std::vector<std::int64_t> receivedIds() const {
        std::vector<std::int64_t> ids;
        for (const auto& bulk : bulks()) ids.insert(ids.end(), bulk.ids.begin(), bulk.ids.end());
        return ids;
    }

    std::size_t storedRecords() const {
        return DrivingInsightTestAccess::read(
            *engine_, [](const auto& s) { return s.uploader.buffer.motionDataArray.size(); });
    }

    test::TestServer server_;
    Environment env_;
    test::EngineHarness h_;  // only its platform: the environment is env_
    std::unique_ptr<test::NotificationRecorder> outcomes_;
    std::unique_ptr<DrivingInsight> engine_;
};

TEST_F(EngineService, StoppedTripArrivesInBulksInOrderAndCompletes) {
    server_.reply(kMotionPath, {});
    server_.reply(kScorePath, R::text("kaydedildi"));
    SetUpEngine(1000, true);
    start();
    const std::string drivingID = engine_->DrivingID();
    drive(2500);
    stop();

    ASSERT_TRUE(h_.delegate->waitFor(1));
    const auto reports = h_.delegate->reports();
    ASSERT_EQ(reports.size(), 1u);
    ASSERT_EQ(reports[0].trip ? reports[0].trip->DrivingID : reports[0].said(), drivingID);

    const auto received = bulks();
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[0].ids.size(), 1000u);
    EXPECT_EQ(received[2].ids.size(), 500u);
    EXPECT_EQ(receivedIds(), range(1, 2500));
    for (const auto& bulk : received) EXPECT_EQ(bulk.drivingGuid, drivingID);
    for (const auto& r : server_.requests(kMotionPath))
        EXPECT_EQ(r.header("Content-Encoding"), "gzip");

    // The completion: the record in the history and the upload of a fresh one.
    const auto scores = server_.requests(kScorePath);
    ASSERT_EQ(scores.size(), 1u);
    auto body = json::parse(scores[0].body);
    ASSERT_TRUE(body);
    EXPECT_EQ(body.value->asObject()->size(), 24u);
    EXPECT_EQ(std::tuple(*body.value->find("drivingGuid"), *body.value->find("userID"),
                         *body.value->find("endLocation")),
              std::tuple(Value(drivingID), Value(77), Value("Bitiş Cd. 1, İstanbul")));
    EXPECT_TRUE(std::regex_match(*body.value->find("endDateTime")->asString(),
                                 std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000)")));
    const auto history = engine_->TripHistory();
    ASSERT_EQ(history.size(), 1u);
    EXPECT_EQ(history[0]->DrivingID, drivingID);
}

// A service that refuses compression gets the refused bulk again plain, and plain from then on.
TEST_F(EngineService, AServiceThatRefusesCompressionGetsPlainBodies) {
    server_.enqueue(kMotionPath, {.status = 415});
    server_.reply(kMotionPath, {});
    SetUpEngine(1000, true);
    start();
    drive(1500);
    stop();
    settleUploads();
    const auto got = server_.requests(kMotionPath);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].header("Content-Encoding") + got[1].header("Content-Encoding") +
                  got[2].header("Content-Encoding"),
              "gzip");
    EXPECT_EQ(got[1].body, got[0].body);  // the server inflated the first
}

TEST_F(EngineService, FailureWhileDrivingReportsAndKeepsTheBuffer) {
    server_.enqueue(kMotionPath, {.status = 500});
    server_.reply(kMotionPath, {});
    SetUpEngine(10);
    start();
    drive(10);
    ASSERT_TRUE(h_.delegate->waitFor(1));
    const auto failed = h_.delegate->reports();
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].said(),
              "tripDidFail 1000 Sistem Bağlantı Hatası: Sürüş Bilgisi Sunucuya iletilemedi. Error "
              "Code:1008 - Error Code:1006 Response Code:500");
    EXPECT_EQ(failed[0].alert, nullptr);
    // No retry while driving, and the records stay: the next full buffer sends them first.
    ASSERT_EQ(server_.requests(kMotionPath).size(), 1u);
    EXPECT_EQ(storedRecords(), 10u);
    drive(1, 11);
    ASSERT_TRUE(server_.waitForRequests(2, kMotionPath));
    const auto received = bulks();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].ids.size(), 10u);
    EXPECT_EQ(received[1].ids, range(1, 10));
}

TEST_F(EngineService, StoppedTripRetriesThreeTimesThenReports) {
    for (int i = 0; i < 4; ++i) server_.enqueue(kMotionPath, {.status = 500});
    server_.reply(kMotionPath, {});
    SetUpEngine();
    start();
    drive(5);
    stop();
    ASSERT_TRUE(h_.delegate->waitFor(1));
    const auto failed = h_.delegate->reports();
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].said(),
              "tripDidFail 1000 Sistem Bağlantı Hatası: Sürüş Bilgisi Sunucuya "
              "iletilemedi. Error Code:1006 Response Code:500");
    const auto attempts = server_.requests(kMotionPath);
    ASSERT_EQ(attempts.size(), 4u);
    for (const auto& attempt : attempts) EXPECT_EQ(attempt.body, attempts[0].body);
    EXPECT_TRUE(server_.requests(kScorePath).empty() && engine_->TripHistory().empty());
    EXPECT_EQ(storedRecords(), 5u);

    // Only a success resets the try count: stopping again tries once more, then the records
    // finally go and the trip completes.
    server_.reply(kScorePath, {});
    stop();
    ASSERT_TRUE(h_.delegate->waitFor(2));
    EXPECT_EQ(h_.delegate->reports("tripDidFinish").size(), 1u);
    EXPECT_EQ(server_.requests(kMotionPath).size(), 5u);
    EXPECT_EQ(receivedIds().size(), 25u);  // five attempts of the same five records
}

TEST_F(EngineService, RecordsAppendedDuringAFlushAreNeitherLostNorSentTwice) {
    // The first trip's last bulk is held up at the server while the next trip records.
    server_.enqueue(kMotionPath, R{}.after(1000ms));
    server_.reply(kMotionPath, {});
    server_.reply(kScorePath, {});
    SetUpEngine();
    test::NotificationRecorder synced(env_.notifications, {"motionDataSynced"});
    start();
    drive(300);
    stop();
    ASSERT_TRUE(server_.waitForRequests(1, kMotionPath));

    start();
    const std::string secondTrip = engine_->DrivingID();
    drive(200);  // appended while the 300-record bulk is in flight
    ASSERT_TRUE(synced.waitFor(1));
    drive(1000, 201);  // the buffer fills with the second trip's first 1000 records
    stop();

    ASSERT_TRUE(h_.delegate->waitFor(1));
    const auto finished = h_.delegate->reports("tripDidFinish");
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].trip->DrivingID, secondTrip);
    std::vector<std::int64_t> expected = range(1, 300);
    for (std::int64_t id : range(1, 1200)) expected.push_back(id);
    EXPECT_EQ(receivedIds(), expected);
    // The first trip never completes: its flush was overtaken by the second trip.
    const auto scores = server_.requests(kScorePath);
    ASSERT_EQ(scores.size(), 1u);
    EXPECT_NE(scores[0].body.find(secondTrip), std::string::npos);
}

// A record held only by its pending upload still reports; one that cannot be written is not sent.
TEST_F(EngineService, TripRecordUploadOutcomes) {
    const std::string failed = "tripDidFail 10";
    const std::pair<R, std::string> cases[] = {
        {R::text("Hata oluştu", 200), "tripDidFinish"},
        {{.status = 201},
         failed +
             "15 Sistem Bağlantı Hatası: Sürüş Bilgisi Sunucuya iletilemedi. Response Code:201"},
        {{.drop = R::Drop::beforeReply},
         failed + "17 Sistem Bağlantı Hatası: Sürüş Bilgisi Sunucuya iletilemedi"},
    };
    SetUpEngine();
    std::size_t reports = 0;
    for (const auto& [reply, said] : cases) {
        server_.enqueue(kScorePath, reply);
        std::make_shared<Trip>(env_)->saveToServer();
        ASSERT_TRUE(h_.delegate->waitFor(++reports));
        const auto r = h_.delegate->reports().back();
        EXPECT_EQ(r.said(), said);
        EXPECT_EQ(said == "tripDidFinish", r.trip != nullptr);
    }
    auto nan = std::make_shared<Trip>(env_);
    nan->Score = std::numeric_limits<double>::quiet_NaN();
    auto notUtf8 = std::make_shared<Trip>(env_);
    notUtf8->EndLocation = "Bitiş \xff";
    for (const auto& trip : {nan, notUtf8}) {
        trip->saveToServer();
        // Before the call returned.
        EXPECT_EQ(h_.delegate->reports().back().said(),
                  "tripDidFail 1014 Sistem Hatası: Hatalı Json Verisi");
    }
    EXPECT_EQ(h_.delegate->reports().size(), reports + 2);
    EXPECT_EQ(server_.requests(kScorePath).size(), reports);
}

}  // namespace
}  // namespace kestrelvue
