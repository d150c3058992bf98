#include "platform/posix/sensors/GpsdReport.h"

#include <gps.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>

#include "core/Json.h"

namespace kestrelvue::posix {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
// Past what the clock's 64-bit nanoseconds hold (the year 2262) no receiver speaks.
constexpr double kLatestSecond = 9e9;

/// A TPV report's fields, wherever they were read from; NaN where the report has none.
struct Tpv {
    int mode = 0;
    double time = kNaN;  // Unix seconds
    double latitude = kNaN, longitude = kNaN, altMSL = kNaN, altHAE = kNaN;
    double eph = kNaN, epx = kNaN, epy = kNaN, epv = kNaN, speed = kNaN, track = kNaN;
};

bool finite(double value) {
    return std::isfinite(value);
}

double horizontalAccuracy(const Tpv& r) {
    if (finite(r.eph) && r.eph >= 0) return r.eph * kGpsd95To68;
    // epx and epy are one-axis 95 % figures (1.96 sigma each): their mean square gives sigma.
    if (finite(r.epx) && finite(r.epy) && r.epx >= 0 && r.epy >= 0)
        return std::sqrt((r.epx * r.epx + r.epy * r.epy) / 2) / 1.96 * 1.5096;
    return -1.0;  // unknown, as the phone platforms mark it
}

std::optional<platform::Location> fixFrom(const Tpv& r) {
    if (!(r.time > 0 && r.time < kLatestSecond)) return std::nullopt;
    platform::Location out;
    out.timestamp = platform::TimePoint(std::chrono::duration_cast<platform::TimePoint::duration>(
        std::chrono::duration<double>(r.time)));
    out.verticalAccuracy = finite(r.epv) && r.epv >= 0 ? r.epv * kGpsd95To68 : -1.0;
    const bool positioned = r.mode >= MODE_2D && finite(r.latitude) && finite(r.longitude) &&
                            std::abs(r.latitude) <= 90 && std::abs(r.longitude) <= 180;
    if (!positioned) {
        out.horizontalAccuracy = kNoPositionAccuracy;
        return out;
    }
    out.coordinate = {r.latitude, r.longitude};
    out.altitude = finite(r.altMSL) ? r.altMSL : (finite(r.altHAE) ? r.altHAE : 0.0);
    out.horizontalAccuracy = horizontalAccuracy(r);
    out.speed = finite(r.speed) && r.speed >= 0 ? r.speed : -1.0;
    out.course = finite(r.track) && r.track >= 0 ? std::fmod(r.track, 360.0) : -1.0;
    return out;
}

/// Days from 1970-01-01 to a civil date (Howard Hinnant's algorithm).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

}  // namespace

std::optional<double> isoSeconds(std::string_view text) {
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, used = 0;
    double s = 0;
    const std::string copy(text.substr(0, 64));
    if (std::sscanf(copy.c_str(), "%4d-%2d-%2dT%2d:%2d:%lf%n", &y, &mo, &d, &h, &mi, &s, &used) !=
            6 ||
        mo < 1 || mo > 12 || d < 1 || d > 31 || h < 0 || h > 23 || mi < 0 || mi > 59 ||
        !(s >= 0 && s < 61))
        return std::nullopt;
    double offset = 0;
    const std::string_view zone = std::string_view(copy).substr(static_cast<std::size_t>(used));
    if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && zone[3] == ':') {
        int hh = 0, mm = 0;
        if (std::sscanf(copy.c_str() + used + 1, "%2d:%2d", &hh, &mm) != 2) return std::nullopt;
        offset = (zone[0] == '+' ? 1 : -1) * (hh * 3600.0 + mm * 60.0);
    } else if (!zone.empty() && zone != "Z") {
        return std::nullopt;
    }
    if (copy.size() != text.size()) return std::nullopt;
    return static_cast<double>(
               daysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d))) *
               86400.0 +
           h * 3600.0 + mi * 60.0 + s - offset;
}

std::optional<platform::Location> fixFromTpv(const gps_data_t& data) {
    const gps_fix_t& f = data.fix;
    if (!(data.set & TIME_SET) || f.time.tv_nsec < 0 || f.time.tv_nsec >= 1'000'000'000)
        return std::nullopt;
    Tpv r;
    r.mode = f.mode;
    r.time = static_cast<double>(f.time.tv_sec) + static_cast<double>(f.time.tv_nsec) * 1e-9;
    r.latitude = f.latitude;
    r.longitude = f.longitude;
    r.altMSL = f.altMSL;
    r.altHAE = f.altHAE;
    r.eph = f.eph;
    r.epx = f.epx;
    r.epy = f.epy;
    r.epv = f.epv;
    r.speed = f.speed;
    r.track = f.track;
    return fixFrom(r);
}

std::optional<platform::Location> fixFromJsonLine(std::string_view line) {
    // Read with our own JSON reader: libgps's loops for ever on some texts (a fuzzer found valid
    // JSON that does it), which a capture file from anywhere must not do to the importer.
    const auto parsed = json::parse(line);
    const Value* klass = parsed ? parsed.value->find("class") : nullptr;
    const std::string* name = klass ? klass->asString() : nullptr;
    if (!name || *name != "TPV") return std::nullopt;
    auto number = [&](const char* key) {
        const Value* v = parsed.value->find(key);
        const auto n = v ? v->asNumber() : std::nullopt;
        return n.value_or(kNaN);
    };
    Tpv r;
    const double mode = number("mode");
    r.mode = mode >= 0 && mode <= 3 ? static_cast<int>(mode) : 0;
    const Value* time = parsed.value->find("time");
    const std::string* timeText = time ? time->asString() : nullptr;
    if (timeText) r.time = isoSeconds(*timeText).value_or(kNaN);
    r.latitude = number("lat");
    r.longitude = number("lon");
    r.altMSL = number("altMSL");
    r.altHAE = number("altHAE");
    if (!finite(r.altMSL)) r.altMSL = number("alt");  // before gpsd 3.20
    r.eph = number("eph");
    r.epx = number("epx");
    r.epy = number("epy");
    r.epv = number("epv");
    r.speed = number("speed");
    r.track = number("track");
    return fixFrom(r);
}

}  // namespace kestrelvue::posix
