#include "platform/posix/sensors/GpsdReport.h"

#include <gps.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <string>

namespace kestrelvue::posix {

namespace {

bool finite(double value) {
    return std::isfinite(value);
}

double horizontalAccuracy(const gps_fix_t& fix) {
    if (finite(fix.eph) && fix.eph >= 0) return fix.eph * kGpsd95To68;
    // epx and epy are one-axis 95 % figures (1.96 sigma each): their mean square gives sigma.
    if (finite(fix.epx) && finite(fix.epy) && fix.epx >= 0 && fix.epy >= 0)
        return std::sqrt((fix.epx * fix.epx + fix.epy * fix.epy) / 2) / 1.96 * 1.5096;
    return -1.0;  // unknown, as the phone platforms mark it
}

}  // namespace

std::optional<platform::Location> fixFromTpv(const gps_data_t& data) {
    const gps_fix_t& fix = data.fix;
    if (!(data.set & TIME_SET) || (fix.time.tv_sec == 0 && fix.time.tv_nsec == 0))
        return std::nullopt;
    platform::Location out;
    out.timestamp = platform::TimePoint(std::chrono::duration_cast<platform::TimePoint::duration>(
        std::chrono::seconds(fix.time.tv_sec) + std::chrono::nanoseconds(fix.time.tv_nsec)));
    out.verticalAccuracy = finite(fix.epv) && fix.epv >= 0 ? fix.epv * kGpsd95To68 : -1.0;
    const bool positioned = fix.mode >= MODE_2D && finite(fix.latitude) && finite(fix.longitude) &&
                            std::abs(fix.latitude) <= 90 && std::abs(fix.longitude) <= 180;
    if (!positioned) {
        out.horizontalAccuracy = kNoPositionAccuracy;
        return out;
    }
    out.coordinate = {fix.latitude, fix.longitude};
    out.altitude = finite(fix.altMSL) ? fix.altMSL : (finite(fix.altHAE) ? fix.altHAE : 0.0);
    out.horizontalAccuracy = horizontalAccuracy(fix);
    out.speed = finite(fix.speed) && fix.speed >= 0 ? fix.speed : -1.0;
    out.course = finite(fix.track) && fix.track >= 0 ? std::fmod(fix.track, 360.0) : -1.0;
    return out;
}

std::optional<platform::Location> fixFromJsonLine(std::string_view line) {
    // libgps reads every class; only TPV carries a fix. Its reader writes into the buffer.
    if (line.find("\"TPV\"") == std::string_view::npos) return std::nullopt;
    std::string buffer(line);
    auto data = std::make_unique<gps_data_t>();
    if (gps_unpack(buffer.data(), data.get()) != 0 || !(data->set & MODE_SET)) return std::nullopt;
    return fixFromTpv(*data);  // nullopt without a time: nothing to place
}

}  // namespace kestrelvue::posix
