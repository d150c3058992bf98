// The motion buffer's uploads over whole trips: bulks, continuation, retries, reports, and no
// record lost or sent twice.
#include <gtest/gtest.h>

#include "integration/UploadFixture.h"

namespace kestrelvue::uploadtest {
namespace {

class MotionUpload : public UploadHost {};

TEST_F(MotionUpload, EndAddressWithoutPlacemarkOrErrorStillCompletes) {
    server_.reply(kMotionPath, ScriptedReply::statusOnly(200));
    server_.reply(kScorePath, ScriptedReply::statusOnly(200));
    SetUpEngine(1000);
    start();
    drive(3);
    stop(sim::Geocoder::nothing());
    ASSERT_TRUE(delegate_->waitForReports(1));
    ASSERT_EQ(delegate_->finished().size(), 1u);
    const auto scores = server_.requestsTo(kScorePath);
    ASSERT_EQ(scores.size(), 1u);
    auto body = json::parse(scores[0].body);
    ASSERT_TRUE(body);
    EXPECT_EQ(*body.value->find("endLocation")->asString(), "???");
}

TEST_F(MotionUpload, FailureNotificationsWithoutAnErrorTextReportAnEmptyText) {
    SetUpEngine(1000);
    start();
    const std::vector<UserInfo> infos = {
        std::nullopt,
        Object{},
        Object{{"error", Value(TransportError{"curl", 7, "refused"})}},
        Object{{"error", Value(12)}},
    };
    for (const auto& info : infos) env_.notifications->post("motionDataSyncFailed", nullptr, info);
    const auto failed = delegate_->failed();
    ASSERT_EQ(failed.size(), infos.size());
    for (const auto& f : failed)
        EXPECT_EQ(f.message, "Sürüş Bilgisi Sunucuya iletilemedi. Error Code:1008 - ");
}

}  // namespace
}  // namespace kestrelvue::uploadtest
