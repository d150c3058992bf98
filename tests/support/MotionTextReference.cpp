#include "MotionTextReference.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace kestrelvue::test {

namespace {

template <class Number>
void appendf(std::string& out, const char* format, Number v) {
    char buffer[512];
    const int n = std::snprintf(buffer, sizeof buffer, format, v);
    out.append(buffer, static_cast<std::size_t>(n));
    out += ',';
}

void appendStamp(std::string& out, platform::TimePoint t) {
    using namespace std::chrono;
    const auto ms = floor<milliseconds>(t.time_since_epoch()).count();
    const auto second = static_cast<std::time_t>(ms >= 0 ? ms / 1000 : (ms - 999) / 1000);
    const long milli = static_cast<long>(ms - static_cast<long long>(second) * 1000);
    std::tm tm{};
    localtime_r(&second, &tm);
    char buffer[64];
    std::size_t n = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &tm);
    n += static_cast<std::size_t>(std::snprintf(buffer + n, sizeof buffer - n, ":%03ld,", milli));
    out.append(buffer, n);
}

void appendCode(std::string& out, int code) {
    static const char* const texts[] = {"UN", "PU", "PD", "LL", "LR", "FU", "FD"};
    out.append(code >= 0 && code <= 6 ? texts[code] : "FU").append(",");
}

}  // namespace

void appendReferenceText(std::string& out, const MotionDataItem& item) {
    for (const Vector3* v : {&item.Acceleration, &item.Rotation, &item.Attitude, &item.Gravity})
        for (double c : {v->x, v->y, v->z}) appendf(out, "%7.3f", c);
    const FaultItem& f = item.Fault;
    for (char c : {f.sharpCornering, f.sharpSpeeding, f.sharpElevating, f.sharpLaneChanging})
        out.append({c, ','});
    appendf(out, "%10.6f", item.Location.coordinate.latitude);
    appendf(out, "%10.6f", item.Location.coordinate.longitude);
    appendCode(out, item.OrientationGiven);
    appendf(out, "% 4.0f", item.Location.speed * 3600.0 / 1000.0);
    appendStamp(out, item.Location.timestamp);
    appendf(out, "% 4.0f", item.CurrentSpeed);
    appendf(out, "%7lld", static_cast<long long>(item.ItemId));
    appendStamp(out, item.DateTime);
    for (double v :
         {f.sharpCorneringPenalty, f.sharpSpeedingPenalty, f.sharpBrakingPenalty,
          f.sharpElevatingPenalty, f.sharpLaneChangingPenalty, f.sharpCorneringPenaltyPerKM,
          f.sharpSpeedingPenaltyPerKM, f.sharpBrakingPenaltyPerKM, f.sharpElevatingPenaltyPerKM,
          f.sharpLaneChangingPenaltyPerKM, f.fuelEfficiencyPenaltyPerKM})
        appendf(out, "%7.3f", v);
    appendf(out, "%7.3f", item.Location.course);
    appendf(out, "% 5.0f", item.Location.horizontalAccuracy);
    appendf(out, "%10.6f", item.Location.speed);
    appendCode(out, item.Orientation);
}

std::string referenceBulk(const MotionData& data, std::size_t first) {
    std::string out;
    for (std::size_t i = 0; i < first && i < data.motionDataArray.size(); ++i) {
        appendReferenceText(out, data.motionDataArray[i]);
        out += ';';
    }
    return out;
}

}  // namespace kestrelvue::test
