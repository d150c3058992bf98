// The motion buffer's and the trip record's uploads over whole trips: bulks, continuation,
// retries, reports, and no record lost or sent twice.
#include <gtest/gtest.h>

#include <limits>
#include <regex>

#include "support/UploadFixture.h"

namespace kestrelvue::uploadtest {
namespace {

class MotionUpload : public UploadHost {};

TEST_F(MotionUpload, StoppedTripArrivesInBulksInOrderAndCompletes) {
    server_.reply(kMotionPath, ScriptedReply{.status = 200});
    server_.reply(kScorePath, ScriptedReply::text("kaydedildi"));
    SetUpEngine(1000);
    start();
    const std::string drivingID = engine_->DrivingID();
    drive(2500);
    stop();

    ASSERT_TRUE(delegate_->waitFor(1));
    ASSERT_EQ(finishedTrips(*delegate_).size(), 1u);
    EXPECT_TRUE(delegate_->reports("tripDidFail").empty());

    const auto received = bulks();
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[0].records.size(), 1000u);
    EXPECT_EQ(received[1].records.size(), 1000u);
    EXPECT_EQ(received[2].records.size(), 500u);
    EXPECT_EQ(receivedIds(), range(1, 2500));
    for (const auto& bulk : received) {
        EXPECT_EQ(bulk.userID, 77);
        EXPECT_EQ(bulk.drivingGuid, drivingID);
        EXPECT_EQ(bulk.appVersion, Value("1.4.2"));
        for (const auto& record : bulk.records) EXPECT_EQ(record.size(), 39u);
    }
    for (const auto& r : server_.requests(kMotionPath))
        EXPECT_EQ(r.header("Content-Type"), "application/json");

    // The completion: the record in the history, the upload of a fresh one, the host told.
    const auto scores = server_.requests(kScorePath);
    ASSERT_EQ(scores.size(), 1u);
    auto body = json::parse(scores[0].body);
    ASSERT_TRUE(body);
    EXPECT_EQ(body.value->asObject()->size(), 24u);
    EXPECT_EQ(*body.value->find("drivingGuid"), Value(drivingID));
    EXPECT_EQ(body.value->find("userID")->asInt(), 77);
    EXPECT_EQ(*body.value->find("endLocation")->asString(), "Bitiş Cd. 1, İstanbul");
    EXPECT_TRUE(std::regex_match(*body.value->find("endDateTime")->asString(),
                                 std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000)")));
    const auto finished = finishedTrips(*delegate_).at(0);
    ASSERT_NE(finished, nullptr);
    EXPECT_EQ(finished->DrivingID, drivingID);
    const auto history = engine_->TripHistory();
    ASSERT_EQ(history.size(), 1u);
    EXPECT_EQ(history[0]->DrivingID, drivingID);
}

TEST_F(MotionUpload, EmptyBulksNeverLoop) {
    // A bulk size of 0: every upload carries an empty bulk, which can never empty the buffer.
    server_.reply(kMotionPath, ScriptedReply{.status = 200});
    SetUpEngine(0);
    start();
    drive(3);
    settleUploads();
    stop();
    settleUploads();
    const auto received = bulks();
    ASSERT_FALSE(received.empty());
    EXPECT_LE(received.size(), 4u);  // at most one per sample, and one for the stop
    for (const auto& bulk : received) EXPECT_TRUE(bulk.records.empty());
    EXPECT_EQ(DrivingInsightTestAccess::motionRecords(*engine_).size(), 3u);
    EXPECT_TRUE(engine_->TripHistory().empty());
}

TEST_F(MotionUpload, FailureWhileDrivingReportsAndKeepsTheBuffer) {
    server_.enqueue(kMotionPath, ScriptedReply{.status = 500});
    server_.reply(kMotionPath, ScriptedReply{.status = 200});
    SetUpEngine(10);
    start();
    drive(10);
    ASSERT_TRUE(delegate_->waitFor(1));
    const auto failed = delegate_->reports("tripDidFail");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].code, 1000);
    EXPECT_EQ(failed[0].title, "Sistem Bağlantı Hatası");
    EXPECT_EQ(failed[0].message,
              "Sürüş Bilgisi Sunucuya iletilemedi. Error Code:1008 - Error Code:1006 Response "
              "Code:500");
    EXPECT_EQ(failed[0].alert, nullptr);
    // No retry while driving, and the records stay: the next full buffer sends them first.
    ASSERT_EQ(server_.requests(kMotionPath).size(), 1u);
    EXPECT_EQ(DrivingInsightTestAccess::motionRecords(*engine_).size(), 10u);
    drive(1, 11);
    ASSERT_TRUE(waitForMotionRequests(2));
    const auto received = bulks();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].records.size(), 10u);
    std::vector<std::int64_t> second;
    for (const auto& record : received[1].records) second.push_back(itemIdOf(record));
    EXPECT_EQ(second, range(1, 10));
}

TEST_F(MotionUpload, StoppedTripRetriesThreeTimesThenReports) {
    for (int i = 0; i < 4; ++i) server_.enqueue(kMotionPath, ScriptedReply{.status = 500});
    server_.reply(kMotionPath, ScriptedReply{.status = 200});
    SetUpEngine(1000);
    start();
    drive(5);
    stop();
    ASSERT_TRUE(delegate_->waitFor(1));
    const auto failed = delegate_->reports("tripDidFail");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].code, 1000);
    EXPECT_EQ(failed[0].title, "Sistem Bağlantı Hatası");
    EXPECT_EQ(failed[0].message,
              "Sürüş Bilgisi Sunucuya iletilemedi. Error Code:1006 Response Code:500");
    const auto attempts = server_.requests(kMotionPath);
    ASSERT_EQ(attempts.size(), 4u);
    for (const auto& attempt : attempts) EXPECT_EQ(attempt.body, attempts[0].body);
    EXPECT_TRUE(finishedTrips(*delegate_).empty());
    EXPECT_TRUE(server_.requests(kScorePath).empty());
    EXPECT_TRUE(engine_->TripHistory().empty());
    EXPECT_EQ(DrivingInsightTestAccess::motionRecords(*engine_).size(), 5u);

    // Only a success resets the try count: stopping again tries once more, then the records
    // finally go and the trip completes.
    server_.reply(kScorePath, ScriptedReply{.status = 200});
    stop();
    ASSERT_TRUE(delegate_->waitFor(2));
    EXPECT_EQ(finishedTrips(*delegate_).size(), 1u);
    EXPECT_EQ(server_.requests(kMotionPath).size(), 5u);
    EXPECT_EQ(receivedIds().size(), 25u);  // five attempts of the same five records
}

TEST_F(MotionUpload, RecordsAppendedDuringAFlushAreNeitherLostNorSentTwice) {
    // The first trip's last bulk is held up at the server while the next trip records.
    server_.enqueue(kMotionPath, ScriptedReply{.status = 200}.after(1000ms));
    server_.reply(kMotionPath, ScriptedReply{.status = 200});
    server_.reply(kScorePath, ScriptedReply{.status = 200});
    SetUpEngine(1000);
    test::NotificationRecorder synced(env_.notifications, {"motionDataSynced"});
    start();
    drive(300);
    stop();
    ASSERT_TRUE(waitForMotionRequests(1));

    start();
    const std::string secondTrip = engine_->DrivingID();
    drive(200);  // appended while the 300-record bulk is in flight
    ASSERT_TRUE(synced.waitFor(1));
    drive(1000, 201);  // the buffer fills with the second trip's first 1000 records
    stop();

    ASSERT_TRUE(delegate_->waitFor(1));
    ASSERT_EQ(finishedTrips(*delegate_).size(), 1u);
    EXPECT_EQ(finishedTrips(*delegate_)[0]->DrivingID, secondTrip);
    std::vector<std::int64_t> expected = range(1, 300);
    for (std::int64_t id : range(1, 1200)) expected.push_back(id);
    EXPECT_EQ(receivedIds(), expected);
    // The first trip never completes: its flush was overtaken by the second trip.
    const auto scores = server_.requests(kScorePath);
    ASSERT_EQ(scores.size(), 1u);
    EXPECT_NE(scores[0].body.find(secondTrip), std::string::npos);
}

TEST_F(MotionUpload, TripRecordUploadOutcomes) {
    struct Case {
        const char* name;
        ScriptedReply reply;
        std::int64_t code;  // 0: success
        std::string message;
    };
    const std::vector<Case> cases = {
        {"200 with an error text", ScriptedReply::text("Hata oluştu", 200), 0, ""},
        {"201", ScriptedReply{.status = 201}, 1015,
         "Sürüş Bilgisi Sunucuya iletilemedi. Response Code:201"},
        {"no reply", ScriptedReply{.drop = ScriptedReply::Drop::beforeReply}, 1017,
         "Sürüş Bilgisi Sunucuya iletilemedi"},
    };
    SetUpEngine();
    std::size_t reports = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        server_.enqueue(kScorePath, c.reply);
        // The record is held only by the pending upload.
        std::make_shared<Trip>(env_)->saveToServer();
        ASSERT_TRUE(delegate_->waitFor(++reports));
        if (c.code == 0) {
            ASSERT_EQ(finishedTrips(*delegate_).size(), 1u);
            EXPECT_NE(finishedTrips(*delegate_)[0], nullptr);
        } else {
            const auto f = delegate_->reports("tripDidFail").back();
            EXPECT_EQ(f.code, c.code);
            EXPECT_EQ(f.title, "Sistem Bağlantı Hatası");
            EXPECT_EQ(f.message, c.message);
            EXPECT_EQ(f.alert, nullptr);
        }
    }
}

TEST_F(MotionUpload, UnserialisableTripRecordIsNotSent) {
    SetUpEngine();
    for (int variant = 0; variant < 2; ++variant) {
        auto trip = std::make_shared<Trip>(env_);
        if (variant == 0) trip->Score = std::numeric_limits<double>::quiet_NaN();
        if (variant == 1) trip->EndLocation = "Bitiş \xff";
        trip->saveToServer();
    }
    const auto failed = delegate_->reports("tripDidFail");
    ASSERT_EQ(failed.size(), 2u);
    for (const auto& f : failed) {
        EXPECT_EQ(f.code, 1014);
        EXPECT_EQ(f.title, "Sistem Hatası");
        EXPECT_EQ(f.message, "Hatalı Json Verisi");
    }
    EXPECT_EQ(server_.requests(kScorePath).size(), 0u);
}

}  // namespace
}  // namespace kestrelvue::uploadtest
