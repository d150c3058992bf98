#include <kestrelvue/Environment.h>
#include <kestrelvue/Trip.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string_view>

#include "records/EnvironmentServices.h"

namespace kestrelvue {
Trip::Trip() : Trip(Environment::current()) {}

Trip::Trip(const Environment& environment)
    : addDrivingScoreURL(environment.services().address("/api/Driving/addDrivingScore")),
      getPassedCoordinatesURL(environment.services().address("/api/Driving/getPassedCoordinates")),
      env_(environment) {
    // Each creation-time field reads the clock on its own, in declaration order.
    StartDateTime = env_.clock->now();
    EndDateTime = env_.clock->now();
    // Both pins in one block: a history makes thousands of records, each with its pair.
    struct Pins {
        platform::MapPin start, end;
    };
    const auto pins = std::make_shared<Pins>();
    StartAnnotation = platform::MapPinRef(pins, &pins->start);
    EndAnnotation = platform::MapPinRef(pins, &pins->end);
    SystemDate = env_.clock->now();
}

std::string Trip::formatDateTime(platform::TimePoint instant) {
    using namespace std::chrono;
    // Whole seconds towards minus infinity, so an instant just before a minute stays in it.
    const auto secs = floor<seconds>(instant).time_since_epoch().count();
    const std::time_t t = static_cast<std::time_t>(secs);
    std::tm local{};
    if (!localtime_r(&t, &local)) return "";
    const int year = local.tm_year + 1900;
    if (year < 0 || year > 9999) {
        char text[64];
        std::snprintf(text, sizeof text, "%02d.%02d.%04d %02d:%02d", local.tm_mday,
                      local.tm_mon + 1, year, local.tm_hour, local.tm_min);
        return text;
    }
    // The common case digit by digit: a history download formats one text per trip, and
    // snprintf cost more than the rest of a record's display texts together.
    std::string text = "00.00.0000 00:00";
    const auto two = [&](std::size_t at, int v) {
        text[at] = static_cast<char>('0' + v / 10);
        text[at + 1] = static_cast<char>('0' + v % 10);
    };
    two(0, local.tm_mday);
    two(3, local.tm_mon + 1);
    two(6, year / 100);
    two(8, year % 100);
    two(11, local.tm_hour);
    two(14, local.tm_min);
    return text;
}

std::string Trip::formatTimeElapsedTotalDistance(const std::string& timeElapsed,
                                                 double totalDistanceMetres) {
    // to_chars rounds exactly, as glibc's printf does, and never looks at the locale.
    char number[400];
    auto [end, ec] = std::to_chars(number, number + sizeof number, totalDistanceMetres / 1000.0,
                                   std::chars_format::fixed, 1);
    std::string km = ec == std::errc() ? std::string(number, end) : std::string("nan");
    return timeElapsed + " sn, " + km + " km";
}

}  // namespace kestrelvue
