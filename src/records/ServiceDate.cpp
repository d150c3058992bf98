#include "records/ServiceDate.h"

#include <ctime>

namespace kestrelvue::detail {
namespace {

bool isLeap(int y) {
    return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

int daysInMonth(int y, int m) {
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

// Days since 1970-01-01 of a proleptic Gregorian date.
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

std::int64_t localSeconds(const LocalDateTime& l) {
    return daysFromCivil(l.year, static_cast<unsigned>(l.month), static_cast<unsigned>(l.day)) *
               86400 +
           std::int64_t{l.hour} * 3600 + std::int64_t{l.minute} * 60 + l.second;
}

std::time_t mktimeOf(const LocalDateTime& l) {
    std::tm tm{};
    tm.tm_year = l.year - 1900;
    tm.tm_mon = l.month - 1;
    tm.tm_mday = l.day;
    tm.tm_hour = l.hour;
    tm.tm_min = l.minute;
    tm.tm_sec = l.second;
    tm.tm_isdst = -1;  // let the zone decide, as a date parser does
    return std::mktime(&tm);
}

LocalDateTime fromTm(const std::tm& tm) {
    return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
}

platform::TimePoint fromTimeT(std::time_t t) {
    return platform::TimePoint(std::chrono::seconds(static_cast<std::int64_t>(t)));
}

LocalDateTime toLocal(std::time_t t) {
    std::tm tm{};
    if (!localtime_r(&t, &tm)) return {};
    return fromTm(tm);
}

int digits(std::string_view s, std::size_t at, std::size_t n, bool& ok) {
    int v = 0;
    for (std::size_t i = at; i < at + n; ++i) {
        const char c = s[i];
        if (c < '0' || c > '9') ok = false;
        v = v * 10 + (c - '0');
    }
    return v;
}

}  // namespace

namespace {
constexpr int kFirstYear = 1678;
constexpr int kLastYear = 2261;
}  // namespace

std::optional<LocalDateTime> parseServiceDateTime(std::string_view s) {
    // 0123456789012345678
    // yyyy-MM-ddTHH:mm:ss
    if (s.size() != 19 || s[4] != '-' || s[7] != '-' || s[10] != 'T' || s[13] != ':' ||
        s[16] != ':') {
        return std::nullopt;
    }
    bool ok = true;
    LocalDateTime l{digits(s, 0, 4, ok),  digits(s, 5, 2, ok),  digits(s, 8, 2, ok),
                    digits(s, 11, 2, ok), digits(s, 14, 2, ok), digits(s, 17, 2, ok)};
    // Records keep times in nanoseconds since 1970, which reach from 1677 to 2262: a date
    // beyond would overflow, so it is not a date a record can hold.
    if (!ok || l.year < kFirstYear || l.year > kLastYear || l.month < 1 || l.month > 12 ||
        l.day < 1 || l.day > daysInMonth(l.year, l.month) || l.hour > 23 || l.minute > 59 ||
        l.second > 59) {
        return std::nullopt;
    }
    return l;
}

std::string formatDisplayDate(const LocalDateTime& local) {
    char text[] = "00.00.0000 00:00";
    const auto two = [&](std::size_t at, int v) {
        text[at] = static_cast<char>('0' + v / 10);
        text[at + 1] = static_cast<char>('0' + v % 10);
    };
    two(0, local.day);
    two(3, local.month);
    two(6, local.year / 100);
    two(8, local.year % 100);
    two(11, local.hour);
    two(14, local.minute);
    return std::string(text, sizeof text - 1);
}

platform::TimePoint LocalTimeConverter::fromLocal(const LocalDateTime& local, bool* readsBack) {
    const std::int64_t seconds = localSeconds(local);
    const std::int64_t day = seconds >= 0 ? seconds / 86400 : (seconds - 86399) / 86400;
    Slot& slot = slots_[static_cast<std::size_t>(day) % slots_.size()];
    if (slot.day != day) slot = measureDay(day, local);
    if (readsBack != nullptr) *readsBack = slot.steady;
    if (slot.steady) return fromTimeT(static_cast<std::time_t>(seconds - slot.offset));
    // A day on which the clocks change: ask the zone for this very time.
    return fromTimeT(mktimeOf(local));
}

LocalTimeConverter::Slot LocalTimeConverter::measureDay(std::int64_t day,
                                                        const LocalDateTime& anyTimeOfDay) {
    // The day is steady when the wall clock runs without a jump from the last second of the
    // day before to the first second of the day after: then every time of the day exists once,
    // at one offset. localtime_r checks that cheaply; mktime, which re-reads the zone file on
    // every call when TZ is unset (several microseconds), only guesses the offset, and only
    // when the previous day's offset does not fit.
    const auto fits = [&](std::int64_t offset) {
        const std::int64_t before = day * 86400 - 1, after = (day + 1) * 86400;
        return localSeconds(toLocal(static_cast<std::time_t>(before - offset))) == before &&
               localSeconds(toLocal(static_cast<std::time_t>(after - offset))) == after;
    };
    if (haveOffset_ && fits(lastOffset_)) return {day, true, lastOffset_};
    LocalDateTime noon = anyTimeOfDay;
    noon.hour = 12;
    noon.minute = noon.second = 0;
    const std::time_t t = mktimeOf(noon);
    if (t == static_cast<std::time_t>(-1)) return {day, false, 0};
    const std::int64_t offset =
        day * 86400 + std::int64_t{43200} - static_cast<std::int64_t>(t);  // noon
    haveOffset_ = true;
    lastOffset_ = offset;
    return {day, fits(offset), offset};
}

}  // namespace kestrelvue::detail
