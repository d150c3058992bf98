// The history reply reader and the trip display texts.

#include <gtest/gtest.h>
#include <kestrelvue/Environment.h>
#include <kestrelvue/Limits.h>
#include <kestrelvue/Trip.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "records/HistoryReply.h"
#include "records/ServiceDate.h"

using namespace kestrelvue;
using namespace kestrelvue::detail;
using namespace std::chrono_literals;

namespace {

class FixedClock final : public platform::Clock {
public:
    platform::TimePoint now() const override {
        ++reads;
        return at;
    }
    platform::TimePoint at = platform::TimePoint(1'600'000'000s);
    mutable int reads = 0;  // every record reads the clock when it is made
};

// Sets the process's time zone for one scope. Dates of the service are local times, so every
// date test pins the zone.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        if (old_) {
            setenv("TZ", old_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

private:
    std::optional<std::string> old_;
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

class HistoryReplyTest : public ::testing::Test {
protected:
    HistoryReplyTest() {
        env.clock = clock;
        env.applicationInfo = Object{{std::string(kBaseURLKey), Value("http://127.0.0.1:1")}};
    }
    HistoryReply read(std::string_view body) { return readHistoryReply(body, env); }
    std::shared_ptr<Trip> one(std::string_view body) {
        auto reply = read(body);
        EXPECT_TRUE(reply.ok) << reply.error;
        EXPECT_EQ(reply.trips.size(), 1u);
        return reply.trips.empty() ? std::make_shared<Trip>(env) : reply.trips.front();
    }

    ScopedTimeZone zone{"Europe/Istanbul"};  // UTC+3 all year since 2016
    std::shared_ptr<FixedClock> clock = std::make_shared<FixedClock>();
    Environment env;
};

TEST_F(HistoryReplyTest, ElementWithOnlyIdentifierAndStartKeepsEverythingElseInitial) {
    auto trip = one(R"([{"DrivingGuid":"x","StartDateTime":"2018-03-05T14:07:00"}])");
    EXPECT_EQ(trip->DrivingID, "x");
    EXPECT_EQ(trip->StartDateTime, utc(2018, 3, 5, 11, 7, 0));
    EXPECT_EQ(trip->StartDateTime_Formatted, "05.03.2018 14:07");
    EXPECT_EQ(trip->EndDateTime, clock->at);
    EXPECT_EQ(trip->TimeElapsed, "00:00:00");
    EXPECT_EQ(trip->TimeElapsedTotalDistance_Formatted, "");
    EXPECT_EQ(trip->StartAnnotation->coordinate, (platform::Coordinate{0, 0}));
    EXPECT_EQ(trip->StartAnnotation->subtitle, "Başlangıç");
    EXPECT_EQ(trip->StartAnnotation->title, "");
    EXPECT_EQ(trip->EndAnnotation->coordinate, (platform::Coordinate{0, 0}));
    EXPECT_EQ(trip->EndAnnotation->subtitle, "Bitiş");
    EXPECT_NE(trip->StartAnnotation, trip->EndAnnotation);
}

TEST_F(HistoryReplyTest, EveryMemberLandsInItsField) {
    auto trip = one(R"([{
        "UserId": 42, "DrivingGuid": "G-1", "StartDateTime": "2019-12-31T23:59:59",
        "StartLocation": "Kadıköy", "StartLocationLatitude": 40.99, "StartLocationLongitude": 29,
        "EndDateTime": "2020-01-01T00:30:00", "EndLocation": "Beşiktaş",
        "EndLocationLatitude": 41.04, "EndLocationLongitude": 29.01, "Score": 87.5,
        "SharpCorneringCount": 1, "SharpSpeedingCount": 2, "SharpBrakingCount": 3,
        "SharpElevatingCount": 4, "SharpLaneChangingCount": 5,
        "SharpCorneringPenalty": 1.5, "SharpSpeedingPenalty": 2.5, "SharpBrakingPenalty": 3,
        "SharpElevatingPenalty": 4.5, "SharpLaneChangingPenalty": 5.5,
        "FuelEfficiencyPenalty": 6.5, "TimeElapsed": "0:25:13", "TotalDistance": 12437,
        "SomethingNew": {"nested": [1, 2.5, "x", null, true]}
    }])");
    EXPECT_EQ(trip->UserID, 42);
    EXPECT_EQ(trip->DrivingID, "G-1");
    EXPECT_EQ(trip->StartDateTime, utc(2019, 12, 31, 20, 59, 59));
    EXPECT_EQ(trip->StartDateTime_Formatted, "31.12.2019 23:59");
    EXPECT_EQ(trip->StartLocation, "Kadıköy");
    EXPECT_EQ(trip->StartLocationLat, 40.99);
    EXPECT_EQ(trip->StartLocationLong, 29.0);
    EXPECT_EQ(trip->EndDateTime, utc(2019, 12, 31, 21, 30, 0));
    EXPECT_EQ(trip->EndLocation, "Beşiktaş");
    EXPECT_EQ(trip->EndLocationLat, 41.04);
    EXPECT_EQ(trip->EndLocationLong, 29.01);
    EXPECT_EQ(trip->Score, 87.5);
    EXPECT_EQ(trip->SharpCorneringCount, 1);
    EXPECT_EQ(trip->SharpSpeedingCount, 2);
    EXPECT_EQ(trip->SharpBrakingCount, 3);
    EXPECT_EQ(trip->SharpElevatingCount, 4);
    EXPECT_EQ(trip->SharpLaneChangingCount, 5);
    // One value per kind: the plain field takes it, the per-kilometre one stays 0.
    EXPECT_EQ(trip->SharpCorneringPenalty, 1.5);
    EXPECT_EQ(trip->SharpSpeedingPenalty, 2.5);
    EXPECT_EQ(trip->SharpBrakingPenalty, 3.0);
    EXPECT_EQ(trip->SharpElevatingPenalty, 4.5);
    EXPECT_EQ(trip->SharpLaneChangingPenalty, 5.5);
    EXPECT_EQ(trip->SharpBrakingPenaltyPerKM, 0.0);
    EXPECT_EQ(trip->SharpCorneringPenaltyPerKM, 0.0);
    EXPECT_EQ(trip->FuelEfficiencyPenaltyPerKM, 6.5);
    EXPECT_EQ(trip->TimeElapsed, "0:25:13");
    EXPECT_EQ(trip->TotalDistance, 12437.0);
    EXPECT_EQ(trip->TimeElapsedTotalDistance_Formatted, "0:25:13 sn, 12.4 km");
    EXPECT_EQ(trip->StartAnnotation->coordinate, (platform::Coordinate{40.99, 29.0}));
    EXPECT_EQ(trip->EndAnnotation->coordinate, (platform::Coordinate{41.04, 29.01}));
    EXPECT_TRUE(trip->PassedCoordinates.empty());
    EXPECT_FALSE(trip->SentToServer);
}

TEST_F(HistoryReplyTest, DistanceTextUsesTheDurationAsItStandsWhenTheDistanceIsApplied) {
    struct Case {
        const char* element;
        const char* text;
    } cases[] = {
        {R"({"TimeElapsed":"0:25:13"})", ""},  // no distance, no text
        {R"({"TotalDistance":51})", "00:00:00 sn, 0.1 km"},
        // Members are applied in a fixed order, whatever their order in the reply.
        {R"({"TotalDistance":1234567,"TimeElapsed":"1:02:03"})", "1:02:03 sn, 1234.6 km"},
    };
    for (const auto& c : cases) {
        auto trip = one(std::string("[") + c.element + "]");
        EXPECT_EQ(trip->TimeElapsedTotalDistance_Formatted, c.text) << c.element;
    }
}

TEST_F(HistoryReplyTest, TolerableVariationsAreAccepted) {
    struct Case {
        const char* element;
        std::int64_t brakingCount;
        double score;
        const char* drivingId;
    } cases[] = {
        {R"({"SharpBrakingCount":null,"Score":null,"DrivingGuid":null})", 0, 0, ""},
        {R"({"SharpBrakingCount":3.0,"Score":7})", 3, 7, ""},
        {R"({"SharpBrakingCount":-2,"Score":-0.5})", -2, -0.5, ""},
        {R"({"SharpBrakingCount":1e2})", 100, 0, ""},
        {R"({"Score":1,"Score":2})", 0, 2, ""},  // a later duplicate wins
        {R"({"\u0053core":5,"DrivingGuid":"a\"b\u00e7"})", 0, 5, "a\"b\xc3\xa7"},
        {R"({"UserID":5,"score":9})", 0, 0, ""},  // other spellings are other members
    };
    for (const auto& c : cases) {
        auto trip = one(std::string("[") + c.element + "]");
        EXPECT_EQ(trip->SharpBrakingCount, c.brakingCount) << c.element;
        EXPECT_EQ(trip->Score, c.score) << c.element;
        EXPECT_EQ(trip->DrivingID, c.drivingId) << c.element;
        EXPECT_EQ(trip->UserID, 0) << c.element;
    }
}

TEST_F(HistoryReplyTest, RecordsKeepReplyOrder) {
    EXPECT_TRUE(read(" [ ] \n").ok);
    EXPECT_TRUE(read(" [ ] \n").trips.empty());
    auto reply = read(R"([{"DrivingGuid":"a"},{},{"DrivingGuid":"c"}])");
    ASSERT_TRUE(reply.ok);
    ASSERT_EQ(reply.trips.size(), 3u);
    EXPECT_EQ(reply.trips[0]->DrivingID + "|" + reply.trips[1]->DrivingID + "|" +
                  reply.trips[2]->DrivingID,
              "a||c");
}

TEST_F(HistoryReplyTest, BadRepliesAreRejectedWholeWithAReason) {
    struct Case {
        std::string body;
        const char* reason;  // a part of the error text
    } cases[] = {
        {"", ""},
        {"   ", ""},
        {"42", "did not start with array or object"},
        {"\"x\"", "did not start with array or object"},
        {R"({"DrivingGuid":"x"})", "expected a list of trips"},
        {R"({"DrivingGuid":tru})", ""},
        {R"([{"DrivingGuid":"a"},1])", "[1]: expected an object"},
        {R"([[]])", "[0]: expected an object"},
        {R"([{},{"Score":"3"}])", "[1].Score: expected a number"},
        {R"([{"Score":true}])", "[0].Score: expected a number"},
        {R"([{"Score":1e999}])", ""},
        {R"([{"SharpBrakingCount":2.5}])", "[0].SharpBrakingCount: expected an integer"},
        {R"([{"SharpBrakingCount":18446744073709551615}])", "expected an integer"},
        {R"([{"SharpBrakingCount":"2"}])", "expected an integer"},
        {R"([{"DrivingGuid":5}])", "[0].DrivingGuid: expected a text"},
        {R"([{"StartDateTime":"2018-03-05 14:07:00"}])", "[0].StartDateTime: expected a date"},
        {R"([{"EndDateTime":"2018-02-29T10:00:00"}])", "[0].EndDateTime: expected a date"},
        {R"([{"StartDateTime":"2018-03-05T14:07:00.123"}])", "expected a date"},
        {R"([{"StartDateTime":"2018-03-05T14:07:00Z"}])", "expected a date"},
        {R"([{}] x)", ""},
        {R"([{}]])", ""},
        {R"([{"Other": tru}])", ""},
        {R"([{"Other": [1, nul]}])", ""},
        {R"([{"UserId":1})", ""},
        {R"([{"UserId":1},])", ""},
        {"[{\"DrivingGuid\":\"\xff\"}]", ""},
        {"[{\"DrivingGuid\":\"a\\x\"}]", ""},
    };
    for (const auto& c : cases) {
        auto reply = read(c.body);
        EXPECT_FALSE(reply.ok) << c.body;
        EXPECT_TRUE(reply.trips.empty()) << c.body;
        EXPECT_FALSE(reply.error.empty()) << c.body;
        EXPECT_NE(reply.error.find(c.reason), std::string::npos) << c.body << " -> " << reply.error;
    }
}

TEST_F(HistoryReplyTest, RepliesBeyondTheLimitsAreRefusedBeforeAnyRecordIsMade) {
    std::string tooMany = "[{}";
    for (std::size_t i = 0; i < kMaxHistoryTrips; ++i) tooMany += ",{}";
    tooMany += "]";
    const std::string tooLong = "[" + std::string(kMaxHistoryReplyBytes, ' ') + "]";
    for (const std::string* body : std::initializer_list<const std::string*>{&tooMany, &tooLong}) {
        auto reply = read(*body);
        EXPECT_FALSE(reply.ok);
        EXPECT_NE(reply.error.find("exceed"), std::string::npos) << reply.error;
    }
    EXPECT_EQ(clock->reads, 0);
    EXPECT_EQ(read("[" + tooMany.substr(4)).trips.size(), kMaxHistoryTrips);
}

TEST(ServiceDate, ServiceDatesAreReadStrictly) {
    struct Case {
        const char* text;
        std::optional<LocalDateTime> date;
    } cases[] = {
        {"2018-03-05T14:07:00", LocalDateTime{2018, 3, 5, 14, 7, 0}},
        {"2020-02-29T23:59:59", LocalDateTime{2020, 2, 29, 23, 59, 59}},
        {"0001-01-01T00:00:00", LocalDateTime{1, 1, 1, 0, 0, 0}},
        {"2019-02-29T00:00:00", std::nullopt},
        {"1900-02-29T00:00:00", std::nullopt},
        {"2018-13-01T00:00:00", std::nullopt},
        {"2018-04-31T00:00:00", std::nullopt},
        {"2018-03-05T24:00:00", std::nullopt},
        {"2018-03-05T14:60:00", std::nullopt},
        {"2018-03-05T14:07:60", std::nullopt},
        {"2018-3-05T14:07:00", std::nullopt},
        {"2018-03-05t14:07:00", std::nullopt},
        {"2018-03-05T14:07", std::nullopt},
        {"+018-03-05T14:07:00", std::nullopt},
        {"0000-03-05T14:07:00", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(parseServiceDateTime(c.text), c.date) << c.text;
}

// The converter reuses a day's offset; on every day it must agree with asking the zone directly,
// also on days when the clocks change (by an hour, by half an hour, at midnight).
TEST(ServiceDate, LocalTimeConverterAgreesWithTheZoneOnEveryKindOfDay) {
    struct Zone {
        const char* name;
        LocalDateTime day;
    } zones[] = {
        {"Europe/Berlin", {2018, 3, 25}},      {"Europe/Berlin", {2018, 10, 28}},
        {"America/New_York", {2018, 3, 11}},   {"America/New_York", {2018, 11, 4}},
        {"Australia/Lord_Howe", {2018, 4, 1}}, {"Australia/Lord_Howe", {2018, 10, 7}},
        {"America/Sao_Paulo", {2018, 11, 4}},  {"America/Sao_Paulo", {2018, 2, 17}},
        {"Europe/Istanbul", {2016, 9, 7}},     {"UTC", {2018, 6, 1}},
        {"Europe/Berlin", {2018, 7, 14}},      {"Asia/Kathmandu", {1986, 1, 1}},
    };
    for (const auto& z : zones) {
        ScopedTimeZone zone(z.name);
        LocalTimeConverter converter;
        for (int dayOffset = -1; dayOffset <= 1; ++dayOffset) {
            for (int minute = 0; minute < 24 * 60; minute += 10) {
                LocalDateTime local = z.day;
                local.day += dayOffset;
                if (local.day < 1) continue;
                local.hour = minute / 60;
                local.minute = minute % 60;
                local.second = 30;
                std::tm tm{};
                tm.tm_year = local.year - 1900;
                tm.tm_mon = local.month - 1;
                tm.tm_mday = local.day;
                tm.tm_hour = local.hour;
                tm.tm_min = local.minute;
                tm.tm_sec = local.second;
                tm.tm_isdst = -1;
                const auto expected = platform::TimePoint(std::chrono::seconds(std::mktime(&tm)));
                ASSERT_EQ(converter.fromLocal(local), expected)
                    << z.name << " " << local.year << "-" << local.month << "-" << local.day << " "
                    << local.hour << ":" << local.minute;
            }
        }
    }
}

}  // namespace
