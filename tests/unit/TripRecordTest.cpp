// The trip record's display texts.

#include <gtest/gtest.h>
#include <kestrelvue/Trip.h>

#include <clocale>

#include "support/Time.h"

namespace kestrelvue {
namespace {

using namespace std::chrono;

TEST(TripRecord, DateTextInLocalTime) {
    // 5 March 2018 11:07:59 UTC.
    const platform::TimePoint instant{seconds(1520248079)};
    struct Case {
        const char* tz;
        const char* text;
    };
    const Case cases[] = {
        {"UTC", "05.03.2018 11:07"},
        {"Europe/Istanbul", "05.03.2018 14:07"},
        {"America/New_York", "05.03.2018 06:07"},
        {"Pacific/Kiritimati", "06.03.2018 01:07"},
    };
    for (const Case& c : cases) {
        test::ScopedTimeZone zone(c.tz);
        EXPECT_EQ(Trip::formatDateTime(instant), c.text) << c.tz;
    }
    test::ScopedTimeZone zone("UTC");
    // Fractions of a second before an instant stay in the earlier minute.
    EXPECT_EQ(Trip::formatDateTime(platform::TimePoint{seconds(1520248080)} - milliseconds(1)),
              "05.03.2018 11:07");
    EXPECT_EQ(Trip::formatDateTime(platform::TimePoint{seconds(0)}), "01.01.1970 00:00");
}

TEST(TripRecord, DurationAndDistanceText) {
    struct Case {
        double metres;
        const char* km;
    };
    const Case cases[] = {{0, "0.0"},      {49, "0.0"},         {51, "0.1"},
                          {12437, "12.4"}, {1234567, "1234.6"}, {150, "0.1"},
                          {250, "0.2"},    {-49, "-0.0"},       {1e18, "1000000000000000.0"}};
    for (const Case& c : cases)
        EXPECT_EQ(Trip::formatTimeElapsedTotalDistance("0:25:13", c.metres),
                  std::string("0:25:13 sn, ") + c.km + " km")
            << c.metres;
}

TEST(TripRecord, DistanceTextIgnoresTheLocale) {
    if (!std::setlocale(LC_ALL, "tr_TR.UTF-8") && !std::setlocale(LC_ALL, "de_DE.UTF-8"))
        GTEST_SKIP() << "no locale with a decimal comma is installed";
    const std::string text = Trip::formatTimeElapsedTotalDistance("1:2:3", 1500);
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(text, "1:2:3 sn, 1.5 km");
}

}  // namespace
}  // namespace kestrelvue
