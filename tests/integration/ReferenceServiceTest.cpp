// The reference service over real HTTP, and a recorded drive replayed through the engine into it.

#include <gtest/gtest.h>
#include <httplib.h>
#include <kestrelvue/Json.h>
#include <kestrelvue/Trip.h>
#include <kestrelvue/service/ReferenceService.h>

#include <sstream>

#include "Drive.h"

using namespace kestrelvue;

namespace {

class ReferenceServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(service_.start()) << service_.error();
        client_ = std::make_unique<httplib::Client>("127.0.0.1", service_.port());
    }

    Value getJson(const std::string& path, int expectedStatus = 200) {
        auto res = client_->Get(path.c_str());
        EXPECT_TRUE(res);
        if (!res) return {};
        EXPECT_EQ(res->status, expectedStatus) << res->body;
        auto parsed = json::parse(res->body);
        return parsed ? *parsed.value : Value();
    }

    httplib::Result post(const std::string& path, const std::string& body) {
        return client_->Post(path.c_str(), body, "application/json");
    }

    service::ReferenceService service_{service::ServiceOptions{}};
    std::unique_ptr<httplib::Client> client_;
};

// One bulk record in the library's motion text layout: 39 comma-terminated fields.
std::string motionRecord(double lat, double lon, double brakingPenalty, double fuelPerKM) {
    std::ostringstream out;
    for (int field = 1; field <= 39; ++field) {
        if (field == 17)
            out << lat;
        else if (field == 18)
            out << lon;
        else if (field == 27)
            out << brakingPenalty;
        else if (field == 35)
            out << fuelPerKM;
        else
            out << "  0.000";
        out << ',';
    }
    return out.str() + ";";
}

}  // namespace

TEST_F(ReferenceServiceTest, MotionBulksBecomeTheTripsRouteWithItsFaultPoints) {
    std::string bulk = motionRecord(41.0, 29.0, 0, 0.5) + motionRecord(41.1, 29.1, 2.5, 0);
    auto res =
        post("/api/Driving/addMotionData",
             R"({"UserID":7,"DrivingGuid":"G-1","MotionStr":")" + bulk + R"(","AppVersion":null})");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);

    Value points = getJson("/api/Driving/getPassedCoordinates/G-1");
    ASSERT_TRUE(points.isList());
    ASSERT_EQ(points.asList()->size(), 2u);
    const Value& first = points.asList()->at(0);
    const Value& second = points.asList()->at(1);
    EXPECT_EQ(*first.find("Latitude")->asNumber(), 41.0);
    EXPECT_EQ(*first.find("HasFault")->asBool(), false);
    EXPECT_EQ(*first.find("FuelEfficiencyPenaltyPerKM")->asNumber(), 0.5);
    EXPECT_EQ(*second.find("HasFault")->asBool(), true);
    EXPECT_EQ(*second.find("BrakingPenalty")->asNumber(), 2.5);
}

TEST_F(ReferenceServiceTest, RejectsMalformedUploadsWithAClearStatus) {
    for (std::string body : {std::string("not json"), std::string("[1]"),
                             std::string(R"({"DrivingGuid":"G","MotionStr":"1,2,3,;"})"),
                             std::string(R"({"MotionStr":""})")}) {
        auto res = post("/api/Driving/addMotionData", body);
        ASSERT_TRUE(res);
        EXPECT_EQ(res->status, 400) << body;
    }
    auto res = post("/api/Driving/addDrivingScore", R"({"userID":1})");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 400);
}

TEST_F(ReferenceServiceTest, UploadedTripsComeBackInHistoryAndSummary) {
    auto res =
        post("/api/Driving/addDrivingScore",
             R"({"userID":9,"drivingGuid":"T-1","startDateTime":"2018-03-05 11:07:00 +0000",)"
             R"("endDateTime":"2018-03-05 11:30:00 +0000","Score":80,"totalDistance":12437,)"
             R"("timeElapsed":"0:23:00","sharpBrakingCount":2,"sharpBrakingPenalty":3.75})");
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, 200);
    post("/api/Driving/addDrivingScore", R"({"userID":9,"drivingGuid":"T-2","Score":60})");

    Value history = getJson("/api/Driving/getDriving/9");
    ASSERT_TRUE(history.isList());
    ASSERT_EQ(history.asList()->size(), 2u);
    const Value& trip = history.asList()->at(0);
    EXPECT_EQ(*trip.find("DrivingGuid")->asString(), "T-1");
    EXPECT_EQ(*trip.find("UserId")->asInt(), 9);
    EXPECT_EQ(*trip.find("SharpBrakingPenalty")->asNumber(), 3.75);
    EXPECT_EQ(trip.find("StartDateTime")->asString()->size(), 19u);  // yyyy-MM-ddTHH:mm:ss

    Value summary = getJson("/api/Driving/getDrivingSummary/9");
    ASSERT_TRUE(summary.isList());
    const Value& s = summary.asList()->at(0);
    EXPECT_EQ(*s.find("NumberOfTrips")->asInt(), 2);
    EXPECT_EQ(*s.find("AverageScore")->asNumber(), 70.0);
    EXPECT_TRUE(getJson("/api/Driving/getDriving/10").asList()->empty());
}

TEST_F(ReferenceServiceTest, AccountsFriendsAndLeaderboard) {
    auto login = post("/api/User/LoginWithToken", R"({"Mobile":"5551","Token":"abc"})");
    ASSERT_TRUE(login);
    ASSERT_EQ(login->status, 200);
    auto me = json::parse(login->body);
    ASSERT_TRUE(me);
    std::int64_t id = *me.value->find("Id")->asInt();

    auto again = post("/api/User/LoginWithToken", R"({"Mobile":"5551","Token":"other"})");
    ASSERT_TRUE(again);
    EXPECT_EQ(again->status, 403);
    EXPECT_EQ(again->body, "expired");

    auto added = post("/api/User/AddUser",
                      R"({"FirstName":"Ayşe","LastName":"Kaya","Email":"a@k","GenderId":2,)"
                      R"("ReferenceId":"REF-2"})");
    ASSERT_TRUE(added);
    EXPECT_EQ(added->status, 200);
    EXPECT_NE(added->body, std::to_string(id));

    auto unknown = post("/api/General/AddFriend",
                        R"({"ReferenceID":"5551","FriendReferenceID":"nobody","LoginTypeID":1})");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->status, 404);
    auto friended = post("/api/General/AddFriend",
                         R"({"ReferenceID":"5551","FriendReferenceID":"REF-2","LoginTypeID":1})");
    ASSERT_TRUE(friended);
    EXPECT_EQ(friended->body, "OK");

    Value friends = getJson("/api/General/getLeaderShip/" + std::to_string(id) + "?RankType=3");
    ASSERT_TRUE(friends.isList());
    ASSERT_EQ(friends.asList()->size(), 2u);
    int current = 0;
    for (const Value& row : *friends.asList()) {
        EXPECT_EQ(*row.find("RankType")->asInt(), 3);
        EXPECT_TRUE(row.find("UserID")->isString());
        current += *row.find("IsCurrentUser")->asBool() ? 1 : 0;
    }
    EXPECT_EQ(current, 1);
    getJson("/api/General/getLeaderShip/999?RankType=1", 404);
}

TEST(DriveFile, RoundTripsAndRejectsDamagedLinesWithTheirNumber) {
    tools::Drive drive = tools::simulateDrive(20, 5);
    std::stringstream text;
    tools::writeDrive(text, drive);
    auto parsed = tools::parseDrive(text);
    ASSERT_TRUE(parsed.drive) << parsed.error;
    EXPECT_EQ(parsed.drive->events.size(), drive.events.size());

    struct Case {
        const char* text;
        const char* error;
    } cases[] = {
        {"fix 0 41 29 1 0\n", "line 1: a fix needs"},
        {"fix 0 41 29 1 0 5\nmotion 1 0 0 0 0 0 0 0 0 0 0 0 nan\n", "line 2: a motion sample"},
        {"fix 2 41 29 1 0 5\nfix 1 41 29 1 0 5\n", "line 2: time goes backwards"},
        {"# only a comment\n", "the drive has no events"},
        {"jump 0\n", "line 1: unknown event 'jump'"},
    };
    for (const Case& c : cases) {
        std::stringstream in(c.text);
        auto result = tools::parseDrive(in);
        EXPECT_FALSE(result.drive) << c.text;
        EXPECT_EQ(result.error.rfind(c.error, 0), 0u) << result.error;
    }
}

TEST_F(ReferenceServiceTest, ARecordedDriveReplaysEndToEndIntoTheService) {
    tools::ReplayOptions options;
    options.baseURL = service_.baseURL();
    options.userID = 31;
    options.bulkMotionDataSize = 50;  // several bulks while driving and a flush after the stop
    tools::ReplayResult result = tools::replay(tools::simulateDrive(120, 3), options);

    ASSERT_TRUE(result.thresholdsArrived);
    ASSERT_TRUE(result.finished) << result.failure;
    EXPECT_TRUE(result.failure.empty()) << result.failure;
    const Trip& trip = *result.trip;
    EXPECT_EQ(trip.UserID, 31);
    EXPECT_GT(trip.TotalDistance, 1000.0);
    EXPECT_GT(trip.SharpBrakingCount, 0);  // the simulated hard brakes are charged
    EXPECT_LT(trip.Score, 100.0);

    // Every evaluated sample reached the service exactly once, in order, as the trip's route.
    Value points = getJson("/api/Driving/getPassedCoordinates/" + trip.DrivingID);
    ASSERT_TRUE(points.isList());
    EXPECT_EQ(points.asList()->size(), result.samples);

    Value history = getJson("/api/Driving/getDriving/31");
    ASSERT_TRUE(history.isList());
    ASSERT_EQ(history.asList()->size(), 1u);
    const Value& stored = history.asList()->at(0);
    EXPECT_EQ(*stored.find("DrivingGuid")->asString(), trip.DrivingID);
    EXPECT_DOUBLE_EQ(*stored.find("Score")->asNumber(), trip.Score);
    EXPECT_EQ(*stored.find("SharpBrakingCount")->asInt(), trip.SharpBrakingCount);
}
