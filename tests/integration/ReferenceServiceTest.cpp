// The reference service over real HTTP.

#include <gtest/gtest.h>
#include <httplib.h>
#include <kestrelvue/MotionData.h>
#include <kestrelvue/service/ReferenceService.h>
#include <netinet/in.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "MotionText.h"
#include "Requests.h"
#include "Storage.h"
#include "core/Json.h"

using namespace kestrelvue;

namespace {

/// A bands file with `first` and a band of every kind.
std::string bandsWith(const std::string& first) {
    std::string bands = "[" + first;
    for (const char* kind : {"SharpCornering", "SharpSpeeding", "SharpBraking", "SharpElevating",
                             "SharpLaneChanging", "Fuel"}) {
        bands += std::string(R"(,{"_enmThresholdName":")") + kind +
                 (kind == std::string("Fuel") ? "Efficiency" : "Level") +
                 R"(","_limitStart":0.3,"_limitEnd":9,"_impact":1,"_perKilometer":true})";
    }
    return bands + "]";
}
const std::string kInterval =
    R"({"_enmThresholdName":"UpdateInterval","_limitStart":0.25,"_limitEnd":0,"_impact":0,)"
    R"("_perKilometer":false})";

// The service keeps at most ten route points a trip and serves its bands from a file.
class ReferenceServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        writeBands(bandsWith(kInterval));
        ASSERT_TRUE(service_.start()) << service_.error();
        client_ = std::make_unique<httplib::Client>("127.0.0.1", service_.port());
    }
    void TearDown() override { std::remove(bandsFile_.c_str()); }
    void writeBands(const std::string& text) { std::ofstream(bandsFile_) << text; }

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
    const auto changed = [&](const std::string& from, const std::string& to) {
        std::string record = motionRecord(41, 29, 0, 0, 2);
        return good + record.replace(record.rfind(from), from.size(), to);
    };
    const std::string trip = R"({"userID":0,"drivingGuid":"T","totalDistance":)";
    const std::string addFriend = R"({"ReferenceID":"R","FriendReferenceID":"R"})";
    struct Case {
        const char* method;
        std::string path, body;
        int status;
        const char* reason;
    } cases[] = {
        {"POST", "/api/Driving/addMotionData", "not json", 400, "malformed JSON"},
        {"POST", "/api/Driving/addMotionData", bulkBody("G", changed("41", "4x")), 400,
         "record 2, field 17 (latitude): not a number"},
        {"POST", "/api/Driving/addMotionData", bulkBody("G", changed(" 41", "-91")), 400,
         "record 2, field 17 (latitude): beyond ±90"},
        {"POST", "/api/Driving/addMotionData", bulkBody("G", changed(" 29", "181")), 400,
         "field 18 (longitude): beyond ±180"},
        {"POST", "/api/Driving/addMotionData", bulkBody("G", changed(":", "-13-45 99:99:99:")), 400,
         "field 24 (DateTime): not a date"},
        {"POST", "/api/Driving/addMotionData", bulkBody("G", changed("  0.000", "1e300")), 400,
         "field 35 (fuel penalty per km): beyond any real trip"},
        {"POST", "/api/Driving/addDrivingScore", trip + R"(1,"Score":1e308})", 400,
         "Score: beyond any real trip"},
        {"POST", "/api/Driving/addDrivingScore", trip + "-1}", 400, "totalDistance: negative"},
        {"POST", "/api/User/AddUser", "{}", 400, "required"},
        {"POST", "/api/General/AddFriend", addFriend, 400, "the user's own reference"},
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

// What the library sends is what the service keeps, every field of every record; a summary
// weighs each trip by its distance.
TEST(ServiceStorage, KeepsEveryFieldAndWeighsTripsByDistance) {
    std::string error;
    auto storage = service::openSqliteStorage(":memory:", error);
    ASSERT_TRUE(storage) << error;
    MotionDataItem plain, full;
    full.ItemId = 12345678;
    full.Acceleration = {0.125, -0.5, 1};
    full.Rotation = {-2, 0.25, 3};
    full.Attitude = {0.5, -0.75, 1.5};
    full.Gravity = {-0.25, 0.5, -1};
    full.Location.coordinate = {-33.5, 151.25};
    full.Location.speed = 12.5;
    full.Location.course = 87.5;
    full.Location.horizontalAccuracy = 5;
    full.Location.timestamp = platform::TimePoint(std::chrono::milliseconds(1763301909250));
    full.DateTime = full.Location.timestamp + std::chrono::milliseconds(481);
    full.Fault.sharpCornering = 'R';
    full.Fault.sharpLaneChanging = 'L';
    full.Fault.sharpBrakingPenalty = 2.5;
    full.Fault.sharpElevatingPenaltyPerKM = 0.125;
    full.Fault.fuelEfficiencyPenaltyPerKM = 0.375;
    full.OrientationGiven = 3;
    full.Orientation = 6;
    full.CurrentSpeed = 47;
    const std::string text = plain.toString() + ";" + full.toString() + ";";
    auto bulk = service::parseMotionBulk(bulkBody("T", text));
    ASSERT_TRUE(bulk) << bulk.error;
    ASSERT_EQ(storage->addMotion(*bulk.value), 2u);
    const auto stored = storage->motion("T");
    ASSERT_EQ(stored.size(), 2u);
    std::string again;
    for (const auto& r : stored) service::appendMotionText(again, r);
    EXPECT_EQ(again, text);  // the service's writer is checked against the library's
    const service::MotionRecord& r = stored[1];
    EXPECT_EQ(r.itemId, full.ItemId);
    const auto vector = [](const double* v) { return Vector3{v[0], v[1], v[2]}; };
    EXPECT_EQ(vector(r.acceleration), full.Acceleration);
    EXPECT_EQ(vector(r.rotation), full.Rotation);
    EXPECT_EQ(vector(r.attitude), full.Attitude);
    EXPECT_EQ(vector(r.gravity), full.Gravity);
    EXPECT_EQ(std::string(r.events, 4), "R  L");
    EXPECT_EQ(r.latitude, -33.5);
    EXPECT_EQ(r.longitude, 151.25);
    EXPECT_EQ(std::string(r.orientationGiven.data(), 2), "LL");
    EXPECT_EQ(std::string(r.orientation.data(), 2), "FD");
    EXPECT_EQ(r.locationSpeedKmh, 45);
    EXPECT_EQ(r.currentSpeedKmh, 47);
    EXPECT_EQ(r.locationSpeed, 12.5);
    EXPECT_EQ(r.course, 87.5);
    EXPECT_EQ(r.horizontalAccuracy, 5);
    EXPECT_EQ(r.recordTimeText().substr(17), "09:731");  // seconds: the same in every zone
    EXPECT_EQ(std::string(r.locationTime.data() + 17, 6), "09:250");
    EXPECT_EQ(r.penalty[2], 2.5);
    EXPECT_EQ(r.penaltyPerKM[3], 0.125);
    EXPECT_EQ(r.fuelPerKM, 0.375);
    ASSERT_EQ(storage->addMotion(*bulk.value), 0u);  // sent again: nothing new
    EXPECT_EQ(storage->motion("T").size(), 2u);

    for (const auto& [score, metres] : {std::pair{100.0, 9000.0}, {0.0, 1000.0}}) {
        service::DrivingRow trip;
        trip.guid = "trip" + std::to_string(metres);
        trip.userID = 5;
        trip.score = score;
        trip.totalDistance = metres;
        ASSERT_TRUE(storage->saveDriving(trip));
    }
    const service::SummaryRow summary = storage->summary(5);
    EXPECT_EQ(summary.trips, 2);
    EXPECT_EQ(summary.metres, 10000);
    EXPECT_DOUBLE_EQ(summary.averageScore, 90);
}

TEST_F(ReferenceServiceTest, AccountsFriendsAndLeaderboard) {
    const std::string token = service_.issueToken("5551");
    ASSERT_EQ(token.size(), 32u);
    auto login = post("/api/User/LoginWithToken", R"({"Mobile":"5551","Token":")" + token + "\"}");
    ASSERT_TRUE(login && login->status == 200);
    auto me = json::parse(login->body);
    ASSERT_TRUE(me);
    const std::int64_t id = *me.value->find("Id")->asInt();

    const std::string ayse = R"({"FirstName":"Ayşe","LastName":"Kaya","Email":"a@k","GenderId":2,)";
    auto added = post("/api/User/AddUser", ayse + R"("ReferenceId":"REF-2"})");
    ASSERT_TRUE(added && added->status == 200);
    EXPECT_NE(added->body, std::to_string(id));
    // Sent again, the same account; another's reference names no one anew.
    EXPECT_EQ(post("/api/User/AddUser", ayse + R"("ReferenceId":"REF-2"})")->body, added->body);
    EXPECT_EQ(post("/api/User/AddUser", R"({"FirstName":"X","ReferenceId":"REF-2"})")->status, 409);
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
    const std::pair<std::string, const char*> refused[] = {
        {R"([{"_enmThresholdName":"UpdateInterval","_limitStart":"fast"}])",
         "band 1: _limitStart: expected a number"},
        {"[]", "no bands of FuelEfficiency"},
        {bandsWith(R"({"_enmThresholdName":"Sharp","_limitStart":0,"_limitEnd":0,)"
                   R"("_impact":0,"_perKilometer":false})"),
         "band 1: _enmThresholdName: unknown band Sharp"},
        {bandsWith(kInterval).replace(bandsWith(kInterval).find("SharpBrakingLevel"), 17,
                                      "SharpCorneringLevel"),
         "no bands of SharpBrakingLevel"},
    };
    for (const auto& [text, why] : refused) {
        writeBands(text);
        EXPECT_FALSE(service_.reloadBands()) << text;
        EXPECT_NE(service_.error().find(why), std::string::npos) << service_.error();
        EXPECT_NE(bands().find("0.25"), std::string::npos);
    }
}

// Idle connections and a slow sender each hold a worker until the read time-out (3 s); another
// client is answered long before any of them lets go.
TEST_F(ReferenceServiceTest, IdleConnectionsAndASlowSenderDoNotBlockOthers) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(service_.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<int> idle(65);
    for (int& fd : idle) {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    // The last one starts a request it never finishes.
    const char* slow = "POST /api/Driving/addDrivingScore HTTP/1.1\r\nContent-Length: 900\r\n\r\n{";
    ASSERT_GT(::send(idle.back(), slow, std::strlen(slow), 0), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // let them reach the workers
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(getJson("/api/Driving/getThresholds").isList());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    for (int fd : idle) ::close(fd);
}

// Files of the four-file layout, as that release wrote them, become one: every record once, in
// arrival order, the trip records and accounts kept. A record file of another database is
// refused, and nothing is changed.
TEST(ReferenceServiceFiles, FourFilesAreUpgradedIntoOne) {
    const std::string db = ::testing::TempDir() + "kv-upgrade-" + std::to_string(::getpid());
    const auto restore = [&](bool foreign) {
        for (const char* part : {"database", "motion-1", "motion-2", "motion-3"}) {
            const std::string file = part[0] == 'd' ? db : db + "." + part;
            for (const char* suffix : {"", "-wal", "-shm"}) std::remove((file + suffix).c_str());
            std::ifstream in(std::string(KESTRELVUE_SOURCE_DIR) + "/tests/data/four-file-layout/" +
                             part + ".sql");
            std::string sql((std::istreambuf_iterator<char>(in)), {});
            if (foreign && part == std::string("motion-2")) sql += "UPDATE counters SET value = 1;";
            sqlite3* f = nullptr;
            ASSERT_TRUE(!sqlite3_open(file.c_str(), &f) && !sqlite3_exec(f, sql.c_str(), 0, 0, 0));
            sqlite3_close(f);
        }
    };
    service::ServiceOptions options;
    options.databasePath = db;
    restore(true);
    service::ReferenceService foreign(options);
    EXPECT_FALSE(foreign.start());
    EXPECT_NE(foreign.error().find(".motion-2 holds records of another database"),
              std::string::npos);
    EXPECT_EQ(std::ifstream(db + ".motion-2").good(), true);

    restore(false);
    service::ReferenceService service(options);
    ASSERT_TRUE(service.start()) << service.error();
    httplib::Client client("127.0.0.1", service.port());
    for (int k = 0; k < 4; ++k) {
        const std::string trip = "TRIP-" + std::to_string((k + 1) % 4);  // one in each file
        const auto res = client.Get(("/api/Driving/getPassedCoordinates/" + trip).c_str());
        const auto route = json::parse(res ? res->body : "");
        ASSERT_TRUE(route && route.value->isList()) << trip;
        ASSERT_EQ(route.value->asList()->size(), 5u) << trip;
        for (int n = 0; n < 5; ++n) {
            const Value& point = route.value->asList()->at(static_cast<std::size_t>(n));
            EXPECT_NEAR(*point.find("Latitude")->asNumber(), 41 + k + (n + 1) * 1e-4, 1e-9);
            EXPECT_EQ(*point.find("BrakingPenalty")->asNumber(), (n + 1) % 2);
        }
    }
    const auto history = json::parse(client.Get("/api/Driving/getDriving/7")->body);
    ASSERT_TRUE(history && history.value->asList()->size() == 1);
    EXPECT_EQ(*history.value->asList()->at(0).find("Score")->asNumber(), 91.5);
    EXPECT_EQ(client
                  .Post("/api/User/AddUser", R"({"FirstName":"X","ReferenceId":"REF-2"})",
                        "application/json")
                  ->status,
              409);
    for (const char* side : {".motion-1", ".motion-2", ".motion-3"})
        EXPECT_FALSE(std::ifstream(db + side).good()) << side;
    service.stop();
    for (const char* suffix : {"", "-wal", "-shm"}) std::remove((db + suffix).c_str());
}

TEST(ReferenceServiceLifecycle, StopsRightAfterStarting) {
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(service::ReferenceService({}).start());
}
