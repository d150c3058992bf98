#pragma once
// Time helpers for tests: a UTC instant from its fields, and a time zone set for one scope
// (the service's dates are local times).

#include <kestrelvue/platform/Clock.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace kestrelvue::test {

inline platform::TimePoint utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    return platform::TimePoint(std::chrono::seconds(timegm(&tm)));
}

/// Sets TZ for its lifetime and restores the previous value after.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~ScopedTimeZone() {
        if (old_) {
            ::setenv("TZ", old_->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    std::optional<std::string> old_;
};

}  // namespace kestrelvue::test
