// The reference service over real HTTP.

#include <gtest/gtest.h>
#include <httplib.h>
#include <kestrelvue/MotionData.h>
#include <kestrelvue/service/ReferenceService.h>
#include <sqlite3.h>
#include <unistd.h>

#include <fstream>
#include <vector>

#include "core/Json.h"

using namespace kestrelvue;

namespace {

// The service keeps at most ten route points a trip and serves its bands from a file.
class ReferenceServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        writeBands(R"([{"_enmThresholdName":"UpdateInterval","_limitStart":0.25,"_limitEnd":0,)"
                   R"("_impact":0,"_perKilometer":false}])");
        ASSERT_TRUE(service_.start()) << service_.error();
        client_ = std::make_unique<httplib::Client>("127.0.0.1", service_.port());
    }
    void TearDown() override { std::remove(bandsFile_.c_str()); }
    void writeBands(const char* text) { std::ofstream(bandsFile_) << text; }

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

    // One file per test process: ctest runs the tests of this fixture side by side.
    const std::string bandsFile_ =
        ::testing::TempDir() + "kv-bands-" + std::to_string(::getpid()) + ".json";
    service::ReferenceService service_{[this] {
        service::ServiceOptions options;
        options.maxRoutePoints = 10;
        options.bandsFile = bandsFile_;
        return options;
    }()};
    std::unique_ptr<httplib::Client> client_;
};

// One bulk record as the library writes it, keyed by its running number and record time.
std::string motionRecord(double lat, double lon, double brakingPenalty, double fuelPerKM,
                         int itemId = 1) {
    MotionDataItem item;
    item.ItemId = itemId;
    item.Location.coordinate = {lat, lon};
    item.Fault.sharpBrakingPenalty = brakingPenalty;
    item.Fault.fuelEfficiencyPenaltyPerKM = fuelPerKM;
    return item.toString() + ";";
}

std::string bulkBody(const std::string& guid, const std::string& records) {
    return R"({"UserID":7,"DrivingGuid":")" + guid + R"(","MotionStr":")" + records +
           R"(","AppVersion":null})";
}

}  // namespace

// A bulk sent again (its reply was lost) stores nothing new; the same running numbers under
// another trip are that trip's records, not repeats.
TEST_F(ReferenceServiceTest, MotionBulksAreStoredOnceAsTheTripsRoute) {
    const std::string bulk =
        motionRecord(41.0, 29.0, 0, 0.5, 1) + motionRecord(41.1, 29.1, 2.5, 0, 2);
    for (const char* guid : {"G-1", "G-1", "G-2"}) {
        auto res = post("/api/Driving/addMotionData", bulkBody(guid, bulk));
        ASSERT_TRUE(res);
        EXPECT_EQ(res->status, 200) << res->body;
    }
    EXPECT_EQ(getJson("/api/Driving/getPassedCoordinates/G-2").asList()->size(), 2u);
    Value points = getJson("/api/Driving/getPassedCoordinates/G-1");
    ASSERT_EQ(points.asList()->size(), 2u);
    const Value& first = points.asList()->at(0);
    const Value& second = points.asList()->at(1);
    EXPECT_EQ(*first.find("Latitude")->asNumber(), 41.0);
    EXPECT_EQ(*first.find("HasFault")->asBool(), false);
    EXPECT_EQ(*first.find("FuelEfficiencyPenaltyPerKM")->asNumber(), 0.5);
    EXPECT_EQ(*second.find("HasFault")->asBool(), true);
    EXPECT_EQ(*second.find("BrakingPenalty")->asNumber(), 2.5);

    // A long trip's route is thinned evenly to the bound; every fault point is kept.
    std::string records;
    for (int i = 1; i <= 100; ++i) records += motionRecord(41 + i * 1e-4, 29, i % 40 == 0, 0, i);
    ASSERT_EQ(post("/api/Driving/addMotionData", bulkBody("L", records))->status, 200);
    points = getJson("/api/Driving/getPassedCoordinates/L");
    ASSERT_EQ(points.asList()->size(), 10u);
    int faults = 0;
    for (const Value& p : *points.asList()) faults += *p.find("HasFault")->asBool();
    EXPECT_EQ(faults, 2);
}

// Each refusal says what is wrong and stores nothing.
TEST_F(ReferenceServiceTest, BadRequestsAreRefusedWithAReasonAndStoreNothing) {
    const std::string good = motionRecord(41, 29, 0, 0, 1);
    std::string badLatitude = motionRecord(41, 29, 0, 0, 2);
    badLatitude.replace(badLatitude.find("41"), 2, "4x");
    struct Case {
        const char* method;
        std::string path, body;
        int status;
        const char* reason;
    } cases[] = {
        {"POST", "/api/Driving/addMotionData", "not json", 400, "malformed JSON"},
        {"POST", "/api/Driving/addMotionData", bulkBody("G", good + badLatitude), 400,
         "record 2, field 17 (latitude)"},
        {"POST", "/api/Driving/getDriving/7", "{}", 405, "use GET"},
        {"GET", "/api/Driving/unknown", "", 404, ""},
    };
    for (const Case& c : cases) {
        auto res =
            c.method == std::string("GET") ? client_->Get(c.path.c_str()) : post(c.path, c.body);
        ASSERT_TRUE(res) << c.path;
        EXPECT_EQ(res->status, c.status) << c.body;
        EXPECT_NE(res->body.find(c.reason), std::string::npos) << res->body;
    }
    EXPECT_TRUE(getJson("/api/Driving/getPassedCoordinates/G").asList()->empty());
    EXPECT_TRUE(getJson("/api/Driving/getDriving/0").asList()->empty());
}

TEST_F(ReferenceServiceTest, AccountsFriendsAndLeaderboard) {
    const std::string token = service_.issueToken("5551");
    ASSERT_EQ(token.size(), 32u);
    auto login = post("/api/User/LoginWithToken", R"({"Mobile":"5551","Token":")" + token + "\"}");
    ASSERT_TRUE(login && login->status == 200);
    auto me = json::parse(login->body);
    ASSERT_TRUE(me);
    const std::int64_t id = *me.value->find("Id")->asInt();

    auto added = post("/api/User/AddUser",
                      R"({"FirstName":"Ayşe","LastName":"Kaya","Email":"a@k","GenderId":2,)"
                      R"("ReferenceId":"REF-2"})");
    ASSERT_TRUE(added && added->status == 200);
    EXPECT_NE(added->body, std::to_string(id));
    // A wrong token, an unknown number and a registration's reference get the same answer:
    // knowing the reference is not enough.
    for (const char* body :
         {R"({"Mobile":"5551","Token":"other"})", R"({"Mobile":"5552","Token":"other"})",
          R"({"Mobile":"REF-2","Token":"x"})"}) {
        auto refused = post("/api/User/LoginWithToken", body);
        ASSERT_TRUE(refused);
        EXPECT_EQ(refused->status, 403) << body;
        EXPECT_EQ(refused->body, "expired") << body;
    }

    const std::string addFriend = R"({"ReferenceID":"5551","LoginTypeID":1,"FriendReferenceID":)";
    EXPECT_EQ(post("/api/General/AddFriend", addFriend + R"("nobody"})")->status, 404);
    EXPECT_EQ(post("/api/General/AddFriend", addFriend + R"("REF-2"})")->body, "OK");

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

TEST_F(ReferenceServiceTest, BandsFileIsServedAndAMalformedReloadKeepsTheOldReply) {
    auto bands = [&] { return client_->Get("/api/Driving/getThresholds")->body; };
    EXPECT_NE(bands().find("0.25"), std::string::npos);

    writeBands(R"([{"_enmThresholdName":"UpdateInterval","_limitStart":"fast"}])");
    EXPECT_FALSE(service_.reloadBands());
    EXPECT_NE(service_.error().find("band 1: _limitStart: expected a number"), std::string::npos);
    EXPECT_NE(bands().find("0.25"), std::string::npos);

    writeBands(R"([])");
    EXPECT_TRUE(service_.reloadBands());
    EXPECT_EQ(bands(), "[]");
}

// An earlier file keeps every record in arrival order, and its keys, in the file it is; a record
// file of another database is refused rather than mixed in.
TEST(ReferenceServiceFiles, EarlierRecordsStayInOrderAndForeignFilesAreRefused) {
    const std::string db = ::testing::TempDir() + "kv-upgrade-" + std::to_string(::getpid());
    const std::string repeat = motionRecord(5, 0, 0, 0, 1);
    std::string time = repeat;  // its record time, the 24th field, as the old service kept it
    for (int i = 0; i < 23; ++i) time.erase(0, time.find(',') + 1);
    time = "'" + time.substr(0, time.find(',')) + "'";
    const std::string previous =
        "CREATE TABLE points (guid TEXT NOT NULL, user_id INTEGER, seq INTEGER PRIMARY KEY "
        "AUTOINCREMENT, lat REAL, lon REAL, p0 REAL, p1 REAL, p2 REAL, p3 REAL, p4 REAL, k0 REAL, "
        "k1 REAL, k2 REAL, k3 REAL, k4 REAL, fuel REAL, item_id INTEGER, record_time TEXT);"
        "INSERT INTO points (guid, lat, item_id, record_time) VALUES ('A', 1, 2, " +
        time + "), ('B', 2, 1, " + time + "), ('A', 3, 1, " + time + "), ('A', 4, NULL, NULL);";
    sqlite3* old = nullptr;
    ASSERT_TRUE(!sqlite3_open(db.c_str(), &old) && !sqlite3_exec(old, previous.c_str(), 0, 0, 0));
    sqlite3_close(old);

    service::ServiceOptions options;
    options.databasePath = db;
    {
        service::ReferenceService service(options);
        ASSERT_TRUE(service.start()) << service.error();
        httplib::Client client("127.0.0.1", service.port());
        // "B" and "F" would go to the same new file; "B" was stored before.
        for (const auto& [trip, route] : std::vector<std::pair<std::string, std::vector<double>>>{
                 {"A", {1, 3, 4, 6}}, {"B", {2, 6}}, {"F", {5, 6}}}) {
            auto res = client.Post("/api/Driving/addMotionData",
                                   bulkBody(trip, repeat + motionRecord(6, 0, 0, 0, 3)),
                                   "application/json");
            ASSERT_TRUE(res && res->status == 200);
            res = client.Get(("/api/Driving/getPassedCoordinates/" + trip).c_str());
            const auto parsed = json::parse(res ? res->body : "");
            ASSERT_TRUE(parsed && parsed.value->isList());
            std::vector<double> latitudes;
            for (const Value& p : *parsed.value->asList())
                latitudes.push_back(*p.find("Latitude")->asNumber());
            EXPECT_EQ(latitudes, route) << trip;
        }
    }
    for (const char* suffix : {"", "-wal", "-shm"}) std::remove((db + suffix).c_str());
    service::ReferenceService anew(options);
    EXPECT_FALSE(anew.start());
    EXPECT_NE(anew.error().find(".motion-1 holds records of another database"), std::string::npos);
    for (const std::string file : {"", ".motion-1", ".motion-2", ".motion-3"}) {
        for (const char* suffix : {"", "-wal", "-shm"}) std::remove((db + file + suffix).c_str());
    }
}

TEST(ReferenceServiceLifecycle, StopsRightAfterStarting) {
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(service::ReferenceService({}).start());
}
