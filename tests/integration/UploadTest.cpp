// The trip upload through the real engine.
#include <gtest/gtest.h>

#include "support/UploadFixture.h"

namespace kestrelvue::uploadtest {
namespace {

class TripUpload : public UploadHost {};

TEST_F(TripUpload, RecordGoesAsOneJsonObject) {
    server_.reply(kScorePath, ScriptedReply::statusOnly(200));
    SetUpEngine();
    auto trip = std::make_shared<Trip>(env_);
    trip->SharpBrakingPenalty = 2.5;
    trip->SharpBrakingPenaltyPerKM = 1.25;
    trip->FuelEfficiencyPenaltyPerKM = 4;
    trip->saveToServer();
    ASSERT_TRUE(delegate_->waitFor(1));
    ASSERT_EQ(finishedTrips(*delegate_).size(), 1u);
    EXPECT_EQ(finishedTrips(*delegate_)[0], trip);

    const auto requests = server_.requestsTo(kScorePath);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
    EXPECT_EQ(requests[0].header("Accept"), "application/json");
    auto parsed = json::parse(requests[0].body);
    ASSERT_TRUE(parsed);
    // Every value's round trip through the service is checked in TripRoundTripTest; here, the
    // shape: the penalty carries its per-kilometre part, integers stay integers.
    const Object& got = *parsed.value->asObject();
    EXPECT_EQ(got.size(), 24u);
    EXPECT_EQ(got.at("sharpBrakingPenalty").asNumber(), 3.75);
    EXPECT_EQ(got.at("startDateTime"), Value("2018-03-05 12:00:00 +0000"));
    // Integers stay integers on the wire.
    EXPECT_TRUE(got.at("userID").isInt());
    EXPECT_TRUE(got.at("sharpBrakingCount").isInt());
}

TEST_F(TripUpload, Outcomes) {
    struct Case {
        const char* name;
        ScriptedReply reply;
        std::int64_t code;  // 0: success
        std::string message;
    };
    const std::vector<Case> cases = {
        {"200 with an error text", ScriptedReply::text("Hata oluştu", 200), 0, ""},
        {"201", ScriptedReply::statusOnly(201), 1015,
         "Sürüş Bilgisi Sunucuya iletilemedi. Response Code:201"},
        {"no reply", ScriptedReply::dropped(ScriptedReply::Drop::beforeReply), 1017,
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

TEST_F(TripUpload, UnserialisableRecordIsNotSent) {
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
    EXPECT_EQ(server_.requestsTo(kScorePath).size(), 0u);
}

}  // namespace
}  // namespace kestrelvue::uploadtest
