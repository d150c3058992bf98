#include <kestrelvue/platform/Location.h>

#include <GeographicLib/Geodesic.hpp>
#include <charconv>
#include <chrono>
#include <cmath>

namespace kestrelvue::platform {

double Location::distance(const Location& other) const {
    double metres = 0;
    // Inverse problem on the WGS-84 ellipsoid; GeographicLib converges for every pair of points,
    // antipodes included.
    GeographicLib::Geodesic::WGS84().Inverse(coordinate.latitude, coordinate.longitude,
                                             other.coordinate.latitude, other.coordinate.longitude,
                                             metres);
    return metres;
}

namespace {
long long nanosBetween(TimePoint from, TimePoint to) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(to - from).count();
}
}  // namespace

DateComponents DateComponents::hourMinuteSecond(TimePoint from, TimePoint to) {
    // Truncated towards zero, so a negative interval gives negative components.
    long long seconds = nanosBetween(from, to) / 1'000'000'000LL;
    DateComponents c;
    c.hour = seconds / 3600;
    c.minute = (seconds % 3600) / 60;
    c.second = seconds % 60;
    return c;
}

DateComponents DateComponents::secondOnly(TimePoint from, TimePoint to) {
    DateComponents c;
    c.second = nanosBetween(from, to) / 1'000'000'000LL;
    return c;
}

DateComponents DateComponents::nanosecondOnly(TimePoint from, TimePoint to) {
    DateComponents c;
    c.nanosecond = nanosBetween(from, to);
    return c;
}

std::string shortestDecimalText(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    char buffer[400];  // the longest fixed form of a double has 309 integer digits
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
    if (ec != std::errc()) return "nan";
    std::string text(buffer, end);
    if (text.find('.') == std::string::npos) text += ".0";
    return text;
}

}  // namespace kestrelvue::platform
