// The service's dates, read strictly and turned into instants in the local zone.

#include <gtest/gtest.h>
#include <kestrelvue/Trip.h>

#include <optional>
#include <string>

#include "records/ServiceDate.h"
#include "support/Time.h"

namespace kestrelvue::detail {
namespace {

TEST(ServiceDate, ServiceDatesAreReadStrictly) {
    const std::pair<const char*, std::optional<LocalDateTime>> cases[] = {
        {"2018-03-05T14:07:00", LocalDateTime{2018, 3, 5, 14, 7, 0}},
        {"2020-02-29T23:59:59", LocalDateTime{2020, 2, 29, 23, 59, 59}},
        {"1678-01-01T00:00:00", LocalDateTime{1678, 1, 1, 0, 0, 0}},
        {"2261-12-31T23:59:59", LocalDateTime{2261, 12, 31, 23, 59, 59}},
        {"1677-12-31T23:59:59", std::nullopt},  // beyond what a record's time can hold
        {"4036-03-05T14:07:00", std::nullopt},
        {"2019-02-29T00:00:00", std::nullopt},
        {"2018-13-01T00:00:00", std::nullopt},
        {"2018-03-05T14:60:00", std::nullopt},
        {"2018-03-05T14:07", std::nullopt},
        {"0000-03-05T14:07:00", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [text, date] : cases) EXPECT_EQ(parseServiceDateTime(text), date) << text;
}

// The converter reuses a day's offset; on the days the clocks change, and the days either side,
// it must still agree with asking the zone directly.
TEST(ServiceDate, LocalTimeConverterAgreesWithTheZoneWhenTheClocksChange) {
    test::ScopedTimeZone zone("America/New_York");
    LocalTimeConverter converter;
    int readBack = 0;
    for (const int month : {3, 11}) {
        for (int minute = 0; minute < 3 * 24 * 60; minute += 10) {
            const int day = (month == 3 ? 10 : 3) + minute / 1440;
            const LocalDateTime local{2018, month, day, minute / 60 % 24, minute % 60, 30};
            bool readsBack = false;
            const platform::TimePoint instant = converter.fromLocal(local, &readsBack);
            ASSERT_EQ(instant, test::viaMktime(local)) << month << " " << minute;
            // Where it says the instant reads back, the text from the wall time is the zone's.
            std::string text = "unset";
            if (readsBack) text = formatDisplayDate(local);
            ASSERT_EQ(text, readsBack ? Trip::formatDateTime(instant) : "unset") << minute;
            readBack += readsBack ? 1 : 0;
        }
    }
    EXPECT_EQ(readBack, 2 * 2 * 24 * 6);  // all but the two days of the change
}

}  // namespace
}  // namespace kestrelvue::detail
