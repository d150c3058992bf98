#pragma once
// Time helpers for tests: a UTC instant from its fields, a local time as the C library reads it,
// and a time zone set for one scope (the service's dates are local times).

#include <kestrelvue/platform/Clock.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "records/ServiceDate.h"
#include "records/TextFormat.h"

namespace kestrelvue::test {

inline platform::TimePoint utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
    using namespace std::chrono;
    return sys_days{year{y} / month{unsigned(mo)} / day{unsigned(d)}} + hours{h} + minutes{mi} +
           seconds{s} + milliseconds{ms};
}

// What the C library makes of a local time, the answer the readers must agree with.
inline platform::TimePoint viaMktime(const detail::LocalDateTime& l) {
    std::tm tm{};
    tm.tm_year = l.year - 1900;
    tm.tm_mon = l.month - 1;
    tm.tm_mday = l.day;
    tm.tm_hour = l.hour;
    tm.tm_min = l.minute;
    tm.tm_sec = l.second;
    tm.tm_isdst = -1;
    return platform::TimePoint(std::chrono::seconds(std::mktime(&tm)));
}

/// Sets TZ for its lifetime and restores the previous value after.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
        detail::clearTimestampCache();  // the motion text caches local times
    }
    ~ScopedTimeZone() {
        old_ ? ::setenv("TZ", old_->c_str(), 1) : ::unsetenv("TZ");
        ::tzset();
        detail::clearTimestampCache();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    std::optional<std::string> old_;
};

}  // namespace kestrelvue::test
