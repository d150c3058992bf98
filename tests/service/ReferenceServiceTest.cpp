// The reference service over real HTTP.

#include <gtest/gtest.h>
#include <httplib.h>
#include <kestrelvue/MotionData.h>
#include <kestrelvue/service/ReferenceService.h>
#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <fstream>
#include <thread>
#include <tuple>
#include <vector>

#include "Requests.h"
#include "Storage.h"
#include "core/Json.h"

using namespace kestrelvue;
using namespace std::chrono_literals;

namespace {

// Room for a few points of a route, so that a long trip meets the bytes bound before the points.
constexpr std::size_t kRouteBytes = 2500;

// A bands file with an update interval and a band of every kind.
const std::string kBands = [] {
    std::string bands =
        R"([{"_enmThresholdName":"UpdateInterval","_limitStart":0.25,"_limitEnd":0,)"
        R"("_impact":0,"_perKilometer":false})";
    for (const char* kind : {"SharpCorneringLevel", "SharpSpeedingLevel", "SharpBrakingLevel",
                             "SharpElevatingLevel", "SharpLaneChangingLevel", "FuelEfficiency"})
        bands += std::string(R"(,{"_enmThresholdName":")") + kind +
                 R"(","_limitStart":0.3,"_limitEnd":9,"_impact":1,"_perKilometer":true})";
    return bands + "]";
}();

// The service keeps at most ten route points a trip and serves its bands from a file.
class ReferenceServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        writeBands(kBands);
        ASSERT_TRUE(service_.start()) << service_.error();
        client_ = std::make_unique<httplib::Client>("127.0.0.1", service_.port());
    }
    void TearDown() override { std::remove(bandsFile_.c_str()); }
    void writeBands(const std::string& text) { std::ofstream(bandsFile_) << text; }

    Value getJson(const std::string& path, int expectedStatus = 200) {
        auto res = client_->Get(path.c_str());
        EXPECT_EQ(res ? res->status : 0, expectedStatus) << (res ? res->body : "");
        auto parsed = json::parse(res ? res->body : "");
        return parsed ? *parsed.value : Value();
    }

    httplib::Result post(const std::string& path, const std::string& body) {
        return client_->Post(path.c_str(), body, "application/json");
    }

    // One file per test process: ctest runs the tests of this fixture side by side.
    const std::string bandsFile_ =
        ::testing::TempDir() + "kv-bands-" + std::to_string(::getpid()) + ".json";
    service::ReferenceService service_{
        {.bandsFile = bandsFile_, .maxRoutePoints = 10, .maxRouteBytes = kRouteBytes, .clock = {}}};
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
    const Value &first = points.asList()->at(0), &second = points.asList()->at(1);
    EXPECT_EQ(*first.find("Latitude")->asNumber(), 41.0);
    EXPECT_EQ(*first.find("HasFault")->asBool(), false);
    EXPECT_EQ(*first.find("FuelEfficiencyPenaltyPerKM")->asNumber(), 0.5);
    EXPECT_EQ(*second.find("HasFault")->asBool(), true);
    EXPECT_EQ(*second.find("BrakingPenalty")->asNumber(), 2.5);

    // A long trip's route is thinned evenly to both bounds (points and bytes); every fault point
    // is kept.
    std::string records;
    for (int i = 1; i <= 100; ++i) records += motionRecord(41 + i * 1e-4, 29, i % 40 == 0, 0, i);
    ASSERT_EQ(post("/api/Driving/addMotionData", bulkBody("L", records))->status, 200);
    EXPECT_LE(client_->Get("/api/Driving/getPassedCoordinates/L")->body.size(), kRouteBytes);
    points = getJson("/api/Driving/getPassedCoordinates/L");
    EXPECT_GE(points.asList()->size(), 3u);
    EXPECT_LT(points.asList()->size(), 10u);  // the bytes bound the route before the points do
    int faults = 0;
    for (const Value& p : *points.asList()) faults += *p.find("HasFault")->asBool();
    EXPECT_EQ(faults, 2);
}

TEST_F(ReferenceServiceTest, BadRequestsAreRefusedWithAReasonAndStoreNothing) {
    const std::string motion = "/api/Driving/addMotionData", trip = "/api/Driving/addDrivingScore";
    const auto bad = [](const std::string& from, const std::string& to) {  // the second record
        std::string record = motionRecord(41, 29, 0, 0, 2);
        return bulkBody("G", motionRecord(41, 29, 0, 0, 1) +
                                 record.replace(record.rfind(from), from.size(), to));
    };
    const std::tuple<std::string, std::string, int, const char*> cases[] = {
        {motion, "not json", 400, "malformed JSON"},
        {motion, bad("41", "4x"), 400, "record 2, field 17 (latitude): not a number"},
        {motion, bad(" 41", "-91"), 400, "record 2, field 17 (latitude): beyond ±90"},
        {motion, bad(" 29", "181"), 400, "field 18 (longitude): beyond ±180"},
        {motion, bad(":", "-13-45 99:99:99:"), 400, "field 24 (DateTime): not a date"},
        {motion, bad("  0.000", "1e300"), 400, "field 35 (fuel penalty per km): beyond any"},
        {trip, R"({"drivingGuid":"T","Score":1e308})", 400, "Score: beyond any real trip"},
        {trip, R"({"drivingGuid":"T","totalDistance":-1})", 400, "totalDistance: negative"},
        {"/api/User/AddUser", "{}", 400, "required"},
        {"/api/General/AddFriend", R"({"ReferenceID":"R","FriendReferenceID":"R"})", 400, "own"},
        {"/api/Driving/getDriving/7", "{}", 405, "use GET"},
        {"/api/Driving/unknown", "", 404, ""},
    };
    for (const auto& [path, body, status, reason] : cases) {
        auto res = post(path, body);
        ASSERT_TRUE(res) << path;
        EXPECT_EQ(res->status, status) << body;
        EXPECT_NE(res->body.find(reason), std::string::npos) << res->body;
    }
    EXPECT_TRUE(getJson("/api/Driving/getPassedCoordinates/G").asList()->empty());
    EXPECT_TRUE(getJson("/api/Driving/getDriving/0").asList()->empty());
}

// What the library sends is what the service keeps, every field of every record: read back and
// written again, the records are the library's text byte for byte.
TEST(ServiceStorage, KeepsEveryFieldOfEveryRecord) {
    std::string error;
    auto storage = service::openSqliteStorage(":memory:", error);
    ASSERT_TRUE(storage) << error;
    const platform::TimePoint time(1763301909250ms);
    const MotionDataItem plain,
        full(12345678, {0.125, -0.5, 1}, {-2, 0.25, 3}, {0.5, -0.75, 1.5}, {-0.25, 0.5, -1.25},
             {{-33.5, 151.25}, 0, 5, 0, time, 12.5, 87.5},
             {'R', 0.5, ' ', 1.5, 2.5, ' ', 3.5, 'L', 4.5, 5.5, 6.5, 7.5, 8.5, 9.5, 10.5},
             time + 481ms, 3, 6, 47);  // each field unlike the others
    const std::string text = plain.toString() + ";" + full.toString() + ";";
    auto bulk = service::parseMotionBulk(bulkBody("T", text));
    ASSERT_TRUE(bulk) << bulk.error;
    ASSERT_EQ(storage->addMotion(*bulk), 2u);
    const auto stored = *storage->motion("T");
    std::string again;
    for (const auto& r : stored) detail::appendMotionText(again, r);
    EXPECT_EQ(again, text);
    ASSERT_EQ(stored.size(), 2u);  // and the fields are the ones they name
    EXPECT_EQ(std::string(stored[1].events, 4) + stored[1].orientation[0], "R  LF");
    EXPECT_EQ(stored[1].latitude + stored[1].gravity[2], -33.5 - 1.25);
    EXPECT_EQ(stored[1].penalty, (std::array<double, 5>{0.5, 1.5, 2.5, 3.5, 4.5}));
    EXPECT_EQ(stored[1].recordTimeText().substr(17), "09:731");  // the same in every zone
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
    const auto changed = [](const char* from, const char* to) {
        return std::string(kBands).replace(kBands.find(from), std::strlen(from), to);
    };
    const std::pair<std::string, const char*> refused[] = {
        {changed("0.25", R"("fast")"), "band 1: _limitStart: expected a number"},
        {"[]", "no bands of FuelEfficiency"},
        {changed("UpdateInterval", "Sharp"), "band 1: _enmThresholdName: unknown band Sharp"},
        {changed("SharpBraking", "SharpCornering"), "no bands of SharpBrakingLevel"},
    };
    for (const auto& [text, why] : refused) {
        writeBands(text);
        EXPECT_FALSE(service_.reloadBands()) << text;
        EXPECT_NE(service_.error().find(why), std::string::npos) << service_.error();
        EXPECT_NE(client_->Get("/api/Driving/getThresholds")->body.find("0.25"), std::string::npos);
    }
}

// Files the four-file release wrote become one: every record once (a trip in each file, bulks
// overlapping and sent twice) in order, trips and accounts kept. A foreign record file is refused.
TEST(ServiceStorage, FourFilesAreUpgradedIntoOne) {
    const std::string db = ::testing::TempDir() + "kv-upgrade-" + std::to_string(::getpid());
    const auto restore = [&](bool foreign) {
        for (const char* part : {"database", "motion-1", "motion-2", "motion-3"}) {
            const std::string file = part[0] == 'd' ? db : db + "." + part;
            std::remove(file.c_str());
            std::ifstream in(std::string(KESTRELVUE_SOURCE_DIR) + "/tests/data/four-file-layout/" +
                             part + ".sql");
            std::string sql((std::istreambuf_iterator<char>(in)), {});
            if (foreign && part[7] == '2') sql += "UPDATE counters SET value = 1;";
            if (part[0] == 'd')  // a record kept before keys and values were checked
                sql +=
                    "INSERT INTO trip_ids VALUES (2, 'OLD'); INSERT INTO motion (trip, item_id, "
                    "record_time, arrival, lat) VALUES (2, -1, 0, 9, 95);";
            sqlite3* f = nullptr;
            ASSERT_TRUE(!sqlite3_open(file.c_str(), &f) &&
                        !sqlite3_exec(f, sql.c_str(), nullptr, nullptr, nullptr));
            sqlite3_close(f);
        }
    };
    std::string error;
    restore(true);
    EXPECT_FALSE(service::openSqliteStorage(db, error));
    EXPECT_NE(error.find(".motion-2 holds records of another database"), std::string::npos);
    EXPECT_TRUE(std::ifstream(db + ".motion-2").good());

    restore(false);
    auto storage = service::openSqliteStorage(db, error);
    ASSERT_TRUE(storage) << error;
    for (int k = 0; k < 4; ++k) {
        const auto records = *storage->motion("TRIP-" + std::to_string((k + 1) % 4));
        ASSERT_EQ(records.size(), 5u) << k;
        for (std::size_t n = 0; n < 5; ++n) {
            EXPECT_NEAR(records[n].latitude, 41 + k + double(n + 1) * 1e-4, 1e-9);
            EXPECT_EQ(records[n].penalty[2] + records[n].itemId, double((n + 1) % 2 + n + 1));
        }
    }
    EXPECT_EQ(storage->motion("OLD")->at(0).latitude, 95);
    EXPECT_EQ(storage->drivings(7).at(0).score, 91.5);
    EXPECT_TRUE(storage->addUser({.referenceId = "REF-2", .firstName = "X"}).referenceTaken);
    for (const char* side : {".motion-1", ".motion-2", ".motion-3"})
        EXPECT_FALSE(std::ifstream(db + side).good()) << side;
    storage.reset();
    for (const char* suffix : {"", "-wal", "-shm"}) std::remove((db + suffix).c_str());
}

// /healthz speaks for the storage: once the database no longer answers the service's queries (a
// table dropped behind its back), it answers 503. A bulk damaged behind its back (cut, a byte
// changed, not compressed, plain text that is no records) makes its route a 500 that says so.
TEST(ReferenceServiceLifecycle, StopsRightAfterStartingAndHealthzFollowsTheStorage) {
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(service::ReferenceService({}).start());
    const std::string db = ::testing::TempDir() + "kv-health-" + std::to_string(::getpid());
    service::ReferenceService service({.databasePath = db, .bandsFile = {}, .clock = {}});
    ASSERT_TRUE(service.start()) << service.error();
    httplib::Client client("127.0.0.1", service.port());
    EXPECT_EQ(client.Get("/healthz")->status, 200);
    sqlite3* f = nullptr;
    ASSERT_EQ(sqlite3_open(db.c_str(), &f), SQLITE_OK);
    const char* damages[] = {
        "motion_lz4 = substr(motion_lz4, 1, 30)",
        "motion_lz4 = substr(motion_lz4, 1, 40) || x'ff' || substr(motion_lz4, 42)",
        "motion_lz4 = CAST('  0.012, -0.034,' AS BLOB)", "motion_lz4 = NULL, motion_text = 'x,;'"};
    for (std::size_t i = 0; i < std::size(damages); ++i) {
        const std::string trip = "D" + std::to_string(i), damage = damages[i];
        ASSERT_EQ(client
                      .Post("/api/Driving/addMotionData",
                            bulkBody(trip, motionRecord(41, 29, 0, 0)), "application/json")
                      ->status,
                  200);
        std::string sql = "UPDATE motion_bulks SET ";
        sql.append(damage).append(" WHERE trip = '").append(trip).append("'");
        ASSERT_EQ(sqlite3_exec(f, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
        auto route = client.Get("/api/Driving/getPassedCoordinates/" + trip);
        EXPECT_EQ(route->status, 500) << damage;
        EXPECT_NE(route->body.find("bulk 1 of trip " + trip + " is damaged"), std::string::npos)
            << route->body;
    }
    EXPECT_EQ(sqlite3_exec(f, "DROP TABLE motion_bulks", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(f);
    EXPECT_EQ(client.Get("/healthz")->status, 503);
    service.stop();
    for (const char* suffix : {"", "-wal", "-shm"}) std::remove((db + suffix).c_str());
}

// Bulks from four clients at once, on kept connections, into a database file: every one is stored
// (a transaction once could not write after the log restarted, which one client never meets).
TEST(ServiceStorage, BulksFromFourClientsAtOnceAreAllStored) {
    constexpr int kClients = 4, kBulks = 40, kRecords = 1000;
    const std::string db = ::testing::TempDir() + "kv-bulks-" + std::to_string(::getpid());
    service::ReferenceService service({.databasePath = db, .bandsFile = {}, .clock = {}});
    ASSERT_TRUE(service.start()) << service.error();
    std::string records;
    for (int i = 1; i <= kRecords; ++i) records += motionRecord(41 + i * 1e-5, 29, 0, 0, i);
    std::atomic<int> stored{0};
    std::vector<std::thread> clients;
    clients.reserve(kClients);
    for (int c = 0; c < kClients; ++c)
        clients.emplace_back([&, c] {
            httplib::Client client("127.0.0.1", service.port());
            client.set_keep_alive(true);
            for (int b = 0; b < kBulks; ++b) {
                const std::string guid = "C" + std::to_string(c) + "-" + std::to_string(b);
                auto res = client.Post("/api/Driving/addMotionData", bulkBody(guid, records),
                                       "application/json");
                stored += res && res->status == 200;
            }
        });
    for (auto& t : clients) t.join();
    service.stop();
    EXPECT_EQ(stored, kClients * kBulks);
    std::string error;
    auto storage = service::openSqliteStorage(db, error);
    ASSERT_TRUE(storage) << error;
    EXPECT_EQ(storage->motion("C3-39")->size(), std::size_t(kRecords));
    storage.reset();
    for (const char* suffix : {"", "-wal", "-shm"}) std::remove((db + suffix).c_str());
}
