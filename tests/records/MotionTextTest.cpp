// The motion record text: the example record, field rules, and byte equality with snprintf.

#include <gtest/gtest.h>
#include <kestrelvue/MotionData.h>
#include <kestrelvue/Trip.h>

#include <bit>
#include <charconv>
#include <chrono>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "records/MotionText.h"
#include "records/TextFormat.h"
#include "support/MotionTextReference.h"
#include "support/Time.h"

namespace kestrelvue {
namespace {

using namespace std::chrono;

using test::ScopedTimeZone;
using test::utc;

// The `end`-terminated fields of a text.
std::vector<std::string> fields(const std::string& text, char end = ',') {
    std::vector<std::string> out;
    for (std::size_t start = 0, at; (at = text.find(end, start)) != std::string::npos;
         start = at + 1)
        out.push_back(text.substr(start, at - start));
    return out;
}

MotionDataItem exampleRecord() {
    // At 5 m, 13.5 m/s on course 87.4.
    const platform::Location location{
        {41.0082, 28.9784}, 0, 5, 0, utc(2026, 11, 16, 14, 5, 9, 250), 13.5, 87.4};
    FaultItem fault;
    fault.sharpSpeeding = 'L';
    fault.sharpSpeedingPenalty = 2.5;
    fault.fuelEfficiencyPenaltyPerKM = 0.125;
    return MotionDataItem(1523, {0.012, -0.034, 0.105}, {0.0021, -0.0153, 0.2417},
                          {0.1234, -0.0456, 1.5708}, {-0.0121, -0.4321, -0.9017}, location, fault,
                          utc(2026, 11, 16, 14, 5, 9, 731), 1, 5, 47.3);
}

TEST(MotionText, ExampleRecordIsByteExact) {
    ScopedTimeZone tz("UTC0");
    const std::string expected =
        "  0.012, -0.034,  0.105,  0.002, -0.015,  0.242,  0.123, -0.046,  1.571, -0.012, "
        "-0.432, -0.902, ,L, , , 41.008200, 28.978400,PU,  49,2026-11-16 14:05:09:250,  47,   "
        "1523,2026-11-16 14:05:09:731,  0.000,  2.500,  0.000,  0.000,  0.000,  0.000,  0.000,  "
        "0.000,  0.000,  0.000,  0.125, 87.400,    5, 13.500000,FU,";
    EXPECT_EQ(exampleRecord().toString(), expected);
}

// Numbers are read as from_chars reads them, to the last bit, whatever form they take.
TEST(MotionText, NumbersReadAsFromChars) {
    ScopedTimeZone tz("UTC0");
    const std::string record = exampleRecord().toString();
    const std::string rest = record.substr(record.find(','));
    std::vector<std::string> numbers = fields(
        "0|-0.000|1.|.5|-.5|1e3|inf|-nan| 12.5|123456789012345|1234567890123456|"
        "0.1234567890123456789|9007199254740993|-|",
        '|');
    std::mt19937_64 random(7);
    for (int i = 0; i < 3000; ++i) {
        std::string n = random() % 2 ? "-" : "";
        const int whole = 1 + static_cast<int>(random() % 9), fraction = random() % 10;
        for (int d = 0; d < whole; ++d) n += static_cast<char>('0' + random() % 10);
        if (fraction) n += '.';
        for (int d = 0; d < fraction; ++d) n += static_cast<char>('0' + random() % 10);
        numbers.push_back(n);
    }
    for (const std::string& n : numbers) {
        double expected = 0;
        const std::string_view t = std::string_view(n).substr(n.find_first_not_of(' '));
        const auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), expected);
        const bool valid = ec == std::errc() && end == t.data() + t.size();
        const auto records = detail::parseMotionText(n + rest + ";", false);
        ASSERT_EQ(bool(records), valid) << n;
        if (!valid) continue;
        const double got = records->front().acceleration[0];
        EXPECT_TRUE(std::isnan(expected) ? std::isnan(got)
                                         : std::bit_cast<std::uint64_t>(got) ==
                                               std::bit_cast<std::uint64_t>(expected))
            << n;
    }
}

struct Format {
    const char* printf;
    int width;
    char* (*general)(char*, double, int);  // formatFixed of the format's precision and sign
    char* (*field)(char*, double);         // the record's writer of the format, comma included
};
constexpr Format kFormats[] = {
    {"%7.3f", 7, detail::formatFixed<3, false>, detail::formatQuantityField},
    {"%10.6f", 10, detail::formatFixed<6, false>, detail::formatPreciseField},
    {"% 4.0f", 4, detail::formatFixed<0, true>, detail::formatWholeField<4>},
    {"% 5.0f", 5, detail::formatFixed<0, true>, detail::formatWholeField<5>}};

// The general writer's text, when the field writer's is the same and a comma.
std::string ours(double v, const Format& f) {
    char buffer[detail::kMaxFixedLength + 16];
    std::string text(buffer, f.general(buffer, v, f.width));
    return std::string(buffer, f.field(buffer, v)) == text + "," ? text : "field: " + text;
}

std::string theirs(double v, const Format& f) {
    char buffer[512];
    const int n = std::snprintf(buffer, sizeof buffer, f.printf, v);
    return std::string(buffer, static_cast<std::size_t>(n));
}

std::vector<double> adversarialValues() {
    std::vector<double> v = {0.0,  -0.0, 0.0005, -0.0005, 0.0015, 2.5,    -2.5,   0.5,
                             1.5,  -3.6, -3.5,   0.0625,  0.125,  5e-7,   1e-7,   1e12,
                             1e15, 1e22, 9.9995, 99.5,    -99.5,  0.2417, 0.0021, 999.9995};
    v.insert(v.end(), {0.0000005, 999999.5, 123456789012.5, 1.7976931348623157e308, 4.9e-324,
                       2.2250738585072014e-308, 0.9999995, 1e12 - 1, HUGE_VAL, -HUGE_VAL, NAN, -NAN,
                       13.5 * 3600.0 / 1000.0});
    // Exact binary ties at every precision used: k / 2^n and k + 1/2 * 10^-p neighbours.
    for (int k = -2000; k <= 2000; ++k)
        v.insert(v.end(), {k / 2.0, k / 16.0, k / 2048.0, k * 0.0005, k * 0.0000005});
    return v;
}

TEST(MotionText, FixedMatchesSnprintfOnAdversarialAndRandomValues) {
    for (double v : adversarialValues())
        for (const Format& f : kFormats)
            ASSERT_EQ(ours(v, f), theirs(v, f)) << f.printf << " " << v;
    std::mt19937_64 rng(20261116);
    std::uniform_real_distribution<double> small(-1000.0, 1000.0);
    std::uniform_int_distribution<int> exponent(-30, 40);
    for (int i = 0; i < 120000; ++i) {
        // Any bit pattern (NaNs and subnormals too), a small number, a number of any size.
        const double v = i % 3 == 0   ? std::bit_cast<double>(rng())
                         : i % 3 == 1 ? small(rng)
                                      : std::ldexp(small(rng), exponent(rng));
        for (const Format& f : kFormats)
            ASSERT_EQ(ours(v, f), theirs(v, f)) << f.printf << " " << v;
    }
}

// Random records, with now and then a value a format gets wrong first: NaN, infinities, -0, a
// tiny negative, a huge number.
MotionDataItem randomRecord(std::mt19937_64& rng) {
    const double specials[] = {NAN, HUGE_VAL, -HUGE_VAL, -0.0, -0.0004, 123456.5, -1.0, 1e15};
    std::uniform_real_distribution<double> uniform(-2.0, 2.0);
    auto d = [&](std::mt19937_64& g) { return g() % 16 ? uniform(g) : specials[g() % 8]; };
    std::uniform_real_distribution<double> deg(-180.0, 180.0);
    const auto t0 = utc(2026, 3, 1, 0, 0, 0, 0);
    std::uniform_int_distribution<std::int64_t> ms(0, 400LL * 86400 * 1000);
    platform::Location loc;
    loc.coordinate = {deg(rng) / 2, deg(rng)};
    loc.speed = d(rng) * 20;
    loc.course = deg(rng) + 180;
    loc.horizontalAccuracy = d(rng) * 50;
    loc.timestamp = t0 + milliseconds(ms(rng));
    FaultItem fault;
    fault.sharpCornering = "RL "[rng() % 3];
    fault.sharpSpeeding = "SB "[rng() % 3];
    fault.sharpElevating = "UD "[rng() % 3];
    fault.sharpLaneChanging = "RL "[rng() % 3];
    for (double* p :
         {&fault.sharpCorneringPenalty, &fault.sharpSpeedingPenalty, &fault.sharpBrakingPenalty,
          &fault.sharpElevatingPenalty, &fault.sharpLaneChangingPenalty,
          &fault.sharpCorneringPenaltyPerKM, &fault.sharpSpeedingPenaltyPerKM,
          &fault.sharpBrakingPenaltyPerKM, &fault.sharpElevatingPenaltyPerKM,
          &fault.sharpLaneChangingPenaltyPerKM, &fault.fuelEfficiencyPenaltyPerKM})
        *p = rng() % 2 ? 0.0 : d(rng) * 5;
    const auto id = static_cast<std::int64_t>(rng() % 200000000) - 1000;
    return MotionDataItem(id, {d(rng), d(rng), d(rng)}, {d(rng), d(rng), d(rng)},
                          {d(rng), d(rng), d(rng) * 2}, {d(rng), d(rng), d(rng)}, loc, fault,
                          t0 + milliseconds(ms(rng)), static_cast<int>(rng() % 10) - 1,
                          static_cast<int>(rng() % 1002) - 1, d(rng) * 100);
}

TEST(MotionText, RecordsMatchSnprintfAndStrftime) {
    ScopedTimeZone tz("Europe/Berlin");
    std::mt19937_64 rng(42);
    for (int i = 0; i < 20000; ++i) {
        const MotionDataItem item = randomRecord(rng);
        std::string expected;
        test::appendReferenceText(expected, item);
        ASSERT_EQ(item.toString(), expected);
    }
}

// The trip's distance text too.
TEST(MotionText, NumbersIgnoreADecimalCommaLocale) {
    std::mt19937_64 rng(3);
    std::vector<MotionDataItem> items;
    std::vector<std::string> expected(200);
    for (std::string& text : expected) {
        items.push_back(randomRecord(rng));
        test::appendReferenceText(text, items.back());  // C locale
    }
    const std::string old = std::setlocale(LC_NUMERIC, nullptr);
    if (!std::setlocale(LC_NUMERIC, "tr_TR.UTF-8") && !std::setlocale(LC_NUMERIC, "de_DE.UTF-8"))
        GTEST_SKIP() << "no locale with a decimal comma is installed";
    for (std::size_t i = 0; i < items.size(); ++i) EXPECT_EQ(items[i].toString(), expected[i]);
    EXPECT_EQ(Trip::formatTimeElapsedTotalDistance("1:2:3", 1500), "1:2:3 sn, 1.5 km");
    std::setlocale(LC_NUMERIC, old.c_str());
}

std::string referenceStamp(platform::TimePoint t) {
    MotionDataItem item;
    item.DateTime = t;
    std::string text;
    test::appendReferenceText(text, item);
    return fields(text)[23];
}

std::string ourStamp(platform::TimePoint t) {
    char buffer[detail::kMaxTimestampLength];
    return std::string(buffer, detail::formatTimestamp(buffer, t));
}

TEST(MotionText, StampsStayRightAcrossDaylightSavingChanges) {
    ScopedTimeZone tz("Europe/Berlin");
    // Both 2026 changes happen at 01:00 UTC; walk each in 250 ms steps, forwards and back, so
    // cached seconds from either side of the change are reused.
    for (const auto change : {utc(2026, 3, 29, 1, 0, 0, 0), utc(2026, 10, 25, 1, 0, 0, 0)}) {
        for (auto t = change - seconds(5); t < change + seconds(5); t += milliseconds(250))
            ASSERT_EQ(ourStamp(t), referenceStamp(t));
        for (auto t = change + seconds(5); t > change - seconds(5); t -= milliseconds(250))
            ASSERT_EQ(ourStamp(t), referenceStamp(t));
    }
    // Ordinary seconds, each from the one before: across tens of seconds and a minute.
    for (auto t = utc(2026, 6, 1, 12, 0, 5, 0); t < utc(2026, 6, 1, 12, 1, 15, 0);
         t += milliseconds(250))
        ASSERT_EQ(ourStamp(t), referenceStamp(t));
    // A rule that changes at an odd second of UTC, inside a block the library treats as one.
    {
        ScopedTimeZone odd("AAA-1BBB,M3.5.0/2:07:31,M10.5.0/3:07:31");
        for (const auto change : {utc(2026, 3, 29, 1, 7, 31, 0), utc(2026, 10, 25, 1, 7, 31, 0)})
            for (auto t = change - seconds(3); t < change + seconds(3); t += milliseconds(250))
                ASSERT_EQ(ourStamp(t), referenceStamp(t));
    }
    // The zone is in effect, or the comparisons above prove nothing.
    EXPECT_EQ(ourStamp(utc(2026, 3, 29, 1, 0, 0, 0)), "2026-03-29 03:00:00:000");
    EXPECT_EQ(ourStamp(utc(2026, 10, 25, 1, 0, 0, 500)), "2026-10-25 02:00:00:500");
    // Before the epoch, milliseconds still count forwards within their second.
    EXPECT_EQ(ourStamp(platform::TimePoint{} - milliseconds(1)), "1970-01-01 00:59:59:999");
    EXPECT_EQ(ourStamp(platform::TimePoint{} + microseconds(1999)), "1970-01-01 01:00:00:001");
}

}  // namespace
}  // namespace kestrelvue
