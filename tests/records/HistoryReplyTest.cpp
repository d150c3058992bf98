// The history reply reader.

#include <gtest/gtest.h>
#include <kestrelvue/Environment.h>
#include <kestrelvue/Limits.h>
#include <kestrelvue/Trip.h>

#include <cmath>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>

#include "core/Json.h"
#include "records/HistoryReply.h"
#include "records/ServiceDate.h"
#include "support/Time.h"

using namespace kestrelvue;
using namespace kestrelvue::detail;
using namespace std::chrono_literals;

namespace {

// Counts reads: every record reads the clock when it is made.
class CountingClock final : public platform::Clock {
public:
    platform::TimePoint now() const override {
        ++reads;
        return at;
    }
    platform::TimePoint at = platform::TimePoint(1'600'000'000s);
    mutable int reads = 0;
};

class HistoryReplyTest : public ::testing::Test {
protected:
    HistoryReplyTest() {
        env.clock = clock;
        env.applicationInfo = Object{{std::string(kBaseURLKey), Value("http://127.0.0.1:1")}};
    }
    HistoryReply read(std::string_view body) { return readHistoryReply(body, env); }

    test::ScopedTimeZone zone{"Europe/Istanbul"};  // UTC+3 all year since 2016
    std::shared_ptr<CountingClock> clock = std::make_shared<CountingClock>();
    Environment env;
};

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

    // Nesting either side of the JSON reader's limit: the two agree.
    int accepted = 0;
    for (std::size_t depth = 1020; depth <= 1024; ++depth) {
        const std::string deep =
            "[{\"Other\":" + std::string(depth, '[') + std::string(depth, ']') + "}]";
        const bool ok = read(deep).ok;
        EXPECT_EQ(ok, json::parse(deep).value.has_value()) << depth;
        accepted += ok ? 1 : 0;
    }
    EXPECT_GT(accepted, 0);
    EXPECT_LT(accepted, 5);
}

// An independent reader: the generic JSON value, then each member by the rules a host relies on
// (null is absent, a whole double is a count, a count fits 64 bits, numbers are finite, dates are
// strict). Dates reuse the strict date parser, which has its own table.
using ReferenceTrip = std::map<HistoryMember, Value>;
std::optional<std::vector<ReferenceTrip>> referenceRead(std::string_view body) {
    auto parsed = json::parse(body);
    if (!parsed || !parsed.value->isList()) return std::nullopt;
    std::vector<ReferenceTrip> out;
    for (const Value& element : *parsed.value->asList()) {
        if (!element.isObject()) return std::nullopt;
        ReferenceTrip trip;
        for (const auto& [key, value] : *element.asObject()) {
            auto m = findHistoryMember(key);
            if (!m || value.isNull()) continue;
            switch (historyKind(*m)) {
                case HistoryKind::integer: {
                    if (value.isInt()) break;
                    const double d = value.isDouble() ? *value.asNumber() : 0.5;
                    if (d != std::trunc(d) || d < -9.3e18 || d >= 9223372036854775808.0)
                        return std::nullopt;
                    trip[*m] = Value(static_cast<std::int64_t>(d));
                    continue;
                }
                case HistoryKind::number:
                    if (!value.isNumber() || !std::isfinite(*value.asNumber())) return std::nullopt;
                    break;
                case HistoryKind::text:
                    if (!value.isString()) return std::nullopt;
                    break;
                case HistoryKind::date:
                    if (!value.isString() || !parseServiceDateTime(*value.asString()))
                        return std::nullopt;
                    break;
            }
            trip[*m] = value;
        }
        out.push_back(std::move(trip));
    }
    return out;
}

// Random replies: mostly values of the member's kind (edge values included), sometimes of another
// kind or null, plus unknown members; then, for some, a few bytes damaged.
std::string randomReply(std::mt19937& rng) {
    auto pick = [&](int n) { return std::uniform_int_distribution(0, n - 1)(rng); };
    auto any = [&](std::initializer_list<const char*> list) {
        return list.begin()[pick(int(list.size()))];
    };
    auto valueFor = [&](int m) -> std::string {
        if (pick(8) == 0)
            return any({"null", "true", "\"7\"", "2.5", "[]", "{\"a\":[1,null]}", "1e308",
                        "[{},{\"b\":\"}]\"}]"});
        switch (m < kHistoryMemberCount ? historyKind(HistoryMember(m)) : HistoryKind::text) {
            case HistoryKind::integer:
                return any({"0", "-7", "42", "3.0", "1e2", "9223372036854775807",
                            "-9223372036854775808", "9223372036854775808",
                            "9.223372036854775808e18", "4.5e18"});
            case HistoryKind::number:
                return any({"0", "-0.25", "87.5", "1e308", "-1e-300", "12437", "41.0082"});
            case HistoryKind::date:
                return any({"\"2018-03-05T14:07:00\"", "\"2020-02-29T23:59:59\"",
                            "\"1950-06-15T03:30:00\"", "\"2019-02-29T00:00:00\""});
            case HistoryKind::text:
                return any({"\"\"", "\"Kadıköy \\\"x\\\"\"", "\"0:25:13\"", "\"\\u00e7\\n\"",
                            "\"x}, {\\\"y\\\":1}]\""});
        }
        return "null";
    };
    std::string out = "[";
    for (int e = pick(10) ? 1 + pick(3) : 0; e > 0; --e) {
        out += '{';
        const char* sep = "";
        std::vector<bool> used(kHistoryMemberCount + 2);  // duplicates are the parser's own
        for (int n = pick(9); n > 0; --n) {
            const int m = pick(kHistoryMemberCount + 2);
            if (used[m]) continue;
            used[m] = true;
            out.append(std::exchange(sep, ",")).append("\"");
            out += m < kHistoryMemberCount ? std::string(historyKey(HistoryMember(m)))
                                           : (m == kHistoryMemberCount ? "Other" : "score");
            out += "\":" + valueFor(m);
        }
        out += e > 1 ? "}," : "}";
    }
    out += ']';
    for (int damage = pick(6) < 2 ? 1 + pick(3) : 0; damage > 0 && !out.empty(); --damage) {
        const std::size_t at = std::uniform_int_distribution<std::size_t>(0, out.size() - 1)(rng);
        static const char bytes[] = "{}[],:\"0-.eZ \\\xff";
        const int how = pick(3);
        const char byte = bytes[pick(int(sizeof bytes - 1))];
        out.replace(at, how == 1 ? 0 : 1, how == 0 ? 0 : 1, byte);  // erase, insert or overwrite
    }
    return out;
}

const std::pair<std::int64_t Trip::*, HistoryMember> kCounts[] = {
    {&Trip::SharpCorneringCount, kSharpCorneringCount},
    {&Trip::SharpSpeedingCount, kSharpSpeedingCount},
    {&Trip::SharpBrakingCount, kSharpBrakingCount},
    {&Trip::SharpElevatingCount, kSharpElevatingCount},
    {&Trip::SharpLaneChangingCount, kSharpLaneChangingCount}};
const std::pair<double Trip::*, HistoryMember> kFigures[] = {
    {&Trip::Score, kScore},
    {&Trip::SharpCorneringPenalty, kSharpCorneringPenalty},
    {&Trip::SharpSpeedingPenalty, kSharpSpeedingPenalty},
    {&Trip::SharpBrakingPenalty, kSharpBrakingPenalty},
    {&Trip::SharpElevatingPenalty, kSharpElevatingPenalty},
    {&Trip::SharpLaneChangingPenalty, kSharpLaneChangingPenalty},
    {&Trip::FuelEfficiencyPenaltyPerKM, kFuelEfficiencyPenalty},
    {&Trip::TotalDistance, kTotalDistance}};

TEST_F(HistoryReplyTest, AgreesWithAnIndependentReaderOnRandomAndDamagedReplies) {
    std::mt19937 rng(20261124);
    int accepted = 0;
    for (int round = 0; round < 3000; ++round) {
        const std::string body = randomReply(rng);
        SCOPED_TRACE(body);
        const auto expected = referenceRead(body);
        const auto got = read(body);
        ASSERT_EQ(got.ok, expected.has_value()) << got.error;
        if (!got.ok) continue;
        ++accepted;
        ASSERT_EQ(got.trips.size(), expected->size());
        for (std::size_t i = 0; i < expected->size(); ++i) {
            const Trip& t = *got.trips[i];
            const auto& want = (*expected)[i];
            auto at = [&](HistoryMember m) { return want.count(m) ? want.at(m) : Value(); };
            auto integer = [&](HistoryMember m) { return at(m).asInt().value_or(0); };
            auto number = [&](HistoryMember m) { return at(m).asNumber().value_or(0.0); };
            auto text = [&](HistoryMember m, const char* initial = "") {
                return want.count(m) ? *want.at(m).asString() : std::string(initial);
            };
            auto date = [&](HistoryMember m) {
                return want.count(m)
                           ? test::viaMktime(*parseServiceDateTime(*want.at(m).asString()))
                           : clock->at;
            };
            EXPECT_EQ(t.UserID, integer(kUserId));
            EXPECT_EQ(t.DrivingID, text(kDrivingGuid));
            EXPECT_EQ(t.StartDateTime, date(kStartDateTime));
            EXPECT_EQ(t.EndDateTime, date(kEndDateTime));
            EXPECT_EQ(t.StartLocation, text(kStartLocation));
            EXPECT_EQ(t.EndLocation, text(kEndLocation));
            EXPECT_EQ(std::pair(t.StartAnnotation->coordinate, t.EndAnnotation->coordinate),
                      std::pair(platform::Coordinate{number(kStartLocationLatitude),
                                                     number(kStartLocationLongitude)},
                                platform::Coordinate{number(kEndLocationLatitude),
                                                     number(kEndLocationLongitude)}));
            for (auto [field, m] : kCounts) EXPECT_EQ(t.*field, integer(m)) << m;
            for (auto [field, m] : kFigures) EXPECT_EQ(t.*field, number(m)) << m;
            EXPECT_EQ(t.TimeElapsed, text(kTimeElapsed, "00:00:00"));
        }
    }
    EXPECT_GT(accepted, 300);  // the sample reaches the reading of members, not only the parser
}

}  // namespace
