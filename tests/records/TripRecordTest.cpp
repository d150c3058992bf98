// A trip record's display texts.

#include <gtest/gtest.h>
#include <kestrelvue/Trip.h>

#include <string>
#include <tuple>

#include "support/Time.h"

namespace kestrelvue {
namespace {

using namespace std::chrono_literals;

TEST(TripRecord, DateTextInLocalTime) {
    const platform::TimePoint at{1520248079s};  // 5 March 2018 11:07:59 UTC
    const std::tuple<const char*, platform::TimePoint, const char*> cases[] = {
        {"UTC", at, "05.03.2018 11:07"},
        {"Europe/Istanbul", at, "05.03.2018 14:07"},
        {"America/New_York", at, "05.03.2018 06:07"},
        {"Pacific/Kiritimati", at, "06.03.2018 01:07"},
        {"UTC", at + 1s - 1ms, "05.03.2018 11:07"},  // a fraction stays behind
        {"UTC", {}, "01.01.1970 00:00"},
    };
    for (const auto& [tz, instant, text] : cases) {
        test::ScopedTimeZone zone(tz);
        EXPECT_EQ(Trip::formatDateTime(instant), text) << tz;
    }
}

TEST(TripRecord, DurationAndDistanceText) {
    const std::pair<double, const char*> cases[] = {
        {0, "0.0"},      {49, "0.0"},         {51, "0.1"},
        {12437, "12.4"}, {1234567, "1234.6"}, {150, "0.1"},
        {250, "0.2"},    {-49, "-0.0"},       {1e18, "1000000000000000.0"}};
    for (const auto& [metres, km] : cases)
        EXPECT_EQ(Trip::formatTimeElapsedTotalDistance("0:25:13", metres),
                  std::string("0:25:13 sn, ") + km + " km")
            << metres;
}

}  // namespace
}  // namespace kestrelvue
