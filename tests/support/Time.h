#pragma once
// Time helpers for tests: a UTC instant from its fields, and a time zone set for one scope
// (the service's dates are local times).

#include <kestrelvue/platform/Clock.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "records/TextFormat.h"

namespace kestrelvue::test {

inline platform::TimePoint utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
    using namespace std::chrono;
    return sys_days{year{y} / month{unsigned(mo)} / day{unsigned(d)}} + hours{h} + minutes{mi} +
           seconds{s} + milliseconds{ms};
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
        if (old_) {
            ::setenv("TZ", old_->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
        detail::clearTimestampCache();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    std::optional<std::string> old_;
};

}  // namespace kestrelvue::test
