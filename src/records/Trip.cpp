#include <kestrelvue/Environment.h>
#include <kestrelvue/Trip.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string_view>

#include "records/EnvironmentServices.h"
#include "records/ServiceDate.h"
#include "records/TextFormat.h"
#include "records/TripFactory.h"

namespace kestrelvue {
namespace {
constexpr std::string_view kAddDrivingScorePath = "/api/Driving/addDrivingScore";
constexpr std::string_view kPassedCoordinatesPath = "/api/Driving/getPassedCoordinates";
}  // namespace

Trip::Trip() : Trip(Environment::current()) {}

Trip::Trip(const Environment& environment)
    : Trip(environment, environment.services().address(kAddDrivingScorePath),
           environment.services().address(kPassedCoordinatesPath)) {}

Trip::Trip(const Environment& environment, const std::string& addDrivingScoreAddress,
           const std::string& passedCoordinatesAddress)
    : addDrivingScoreURL(addDrivingScoreAddress),
      getPassedCoordinatesURL(passedCoordinatesAddress),
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
        char wide[64];
        std::snprintf(wide, sizeof wide, "%02d.%02d.%04d %02d:%02d", local.tm_mday,
                      local.tm_mon + 1, year, local.tm_hour, local.tm_min);
        return wide;
    }
    // Digit by digit: snprintf cost more than the rest of a record's display texts.
    return detail::formatDisplayDate(
        {year, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec});
}

std::string Trip::formatTimeElapsedTotalDistance(const std::string& timeElapsed,
                                                 double totalDistanceMetres) {
    // The motion text's exact "%.1f" (round half to even on the binary value, as glibc's
    // printf; never the locale): to_chars with a precision cost a tenth of a history reply.
    char number[detail::kMaxFixedLength];
    const char* const end = detail::formatFixed<1, false>(number, totalDistanceMetres / 1000.0, 0);
    const std::string_view km(number, static_cast<std::size_t>(end - number));
    // One allocation of the exact size: a history writes this for every record.
    constexpr std::string_view kSeconds = " sn, ", kKilometres = " km";
    std::string text(timeElapsed.size() + kSeconds.size() + km.size() + kKilometres.size(), ' ');
    char* out = text.data();
    for (std::string_view part : {std::string_view(timeElapsed), kSeconds, km, kKilometres}) {
        out = std::copy(part.begin(), part.end(), out);
    }
    return text;
}

namespace detail {

TripFactory::TripFactory(const Environment& environment)
    : env_(environment),
      addDrivingScore_(environment.services().address(kAddDrivingScorePath)),
      passedCoordinates_(environment.services().address(kPassedCoordinatesPath)) {}

std::shared_ptr<Trip> TripFactory::make() const {
    return std::allocate_shared<Trip>(RecordAllocator<Trip>(), env_, addDrivingScore_,
                                      passedCoordinates_);
}

}  // namespace detail
}  // namespace kestrelvue
