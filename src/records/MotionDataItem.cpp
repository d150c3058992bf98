#include <kestrelvue/MotionData.h>
#include <kestrelvue/MotionDataItem.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "records/TextFormat.h"

namespace kestrelvue {

namespace detail {
namespace {

struct CachedSecond {
    std::int64_t second = 0;
    int length = 0;  // 0: empty slot
    char text[kMaxTimestampLength];
};

// Four slots: a record's two stamps and its neighbours' mostly fall into one or two seconds.
thread_local CachedSecond tCache[4];
thread_local std::uint64_t tConversions = 0;

char* writeTwoDigits(char* out, int v) {
    std::memcpy(out, kDigitPairs + 2 * static_cast<std::ptrdiff_t>(v), 2);
    return out + 2;
}

int formatSecond(char* out, std::int64_t second) {
    const std::time_t tt = static_cast<std::time_t>(second);
    std::tm tm{};
    if (localtime_r(&tt, &tm) == nullptr) tm = std::tm{};
    char* p = out;
    const long long year = static_cast<long long>(tm.tm_year) + 1900;
    if (year >= 0 && year < 10000) {
        p = writeTwoDigits(p, static_cast<int>(year / 100));
        p = writeTwoDigits(p, static_cast<int>(year % 100));
    } else {
        p = std::to_chars(p, p + 12, year).ptr;
    }
    *p++ = '-';
    p = writeTwoDigits(p, tm.tm_mon + 1);
    *p++ = '-';
    p = writeTwoDigits(p, tm.tm_mday);
    *p++ = ' ';
    p = writeTwoDigits(p, tm.tm_hour);
    *p++ = ':';
    p = writeTwoDigits(p, tm.tm_min);
    *p++ = ':';
    p = writeTwoDigits(p, std::min(tm.tm_sec, 60));
    return static_cast<int>(p - out);
}

}  // namespace

char* formatTimestamp(char* out, platform::TimePoint t) {
    using namespace std::chrono;
    const std::int64_t ms = floor<milliseconds>(t.time_since_epoch()).count();
    std::int64_t second = ms / 1000;
    int milli = static_cast<int>(ms % 1000);
    if (milli < 0) {
        milli += 1000;
        --second;
    }
    CachedSecond& slot = tCache[static_cast<std::uint64_t>(second) & 3];
    if (slot.length == 0 || slot.second != second) {
        slot.length = formatSecond(slot.text, second);
        ++tConversions;
        slot.second = second;
    }
    copySmall(out, slot.text,
              static_cast<std::size_t>(slot.length));  // 19 within TimePoint's range
    out += slot.length;
    *out++ = ':';
    *out++ = static_cast<char>('0' + milli / 100);
    return writeTwoDigits(out, milli % 100);
}

std::uint64_t timestampConversions() {
    return tConversions;
}

void clearTimestampCache() {
    for (CachedSecond& slot : tCache) slot.length = 0;
}

}  // namespace detail

const char* orientationText(int code) {
    switch (code) {
        case 0:
            return "UN";
        case 1:
            return "PU";
        case 2:
            return "PD";
        case 3:
            return "LL";
        case 4:
            return "LR";
        case 6:
            return "FD";
        default:
            return "FU";
    }
}

namespace {

/// "%7.3f,": a motion quantity, an angle or a penalty.
char* quantityField(char* p, double v) {
    p = detail::formatFixed(p, v, 7, 3, false);
    *p = ',';
    return p + 1;
}

/// "%10.6f,": a coordinate or a speed to the micro-unit.
char* preciseField(char* p, double v) {
    p = detail::formatFixed(p, v, 10, 6, false);
    *p = ',';
    return p + 1;
}

/// "% *.0f,": a whole number right-aligned in `width`, a space where a plus sign would be.
char* wholeField(char* p, double v, int width) {
    p = detail::formatFixed(p, v, width, 0, true);
    *p = ',';
    return p + 1;
}

char* character(char* p, char c) {
    p[0] = c;
    p[1] = ',';
    return p + 2;
}

char* text(char* p, const char* twoLetters) {
    p[0] = twoLetters[0];
    p[1] = twoLetters[1];
    p[2] = ',';
    return p + 3;
}

char* stamp(char* p, platform::TimePoint t) {
    p = detail::formatTimestamp(p, t);
    *p = ',';
    return p + 1;
}

}  // namespace

char* MotionDataItem::writeTo(char* p) const {
    for (const Vector3* v : {&Acceleration, &Rotation, &Attitude, &Gravity}) {
        p = quantityField(p, v->x);
        p = quantityField(p, v->y);
        p = quantityField(p, v->z);
    }
    p = character(p, Fault.sharpCornering);
    p = character(p, Fault.sharpSpeeding);
    p = character(p, Fault.sharpElevating);
    p = character(p, Fault.sharpLaneChanging);
    p = preciseField(p, Location.coordinate.latitude);
    p = preciseField(p, Location.coordinate.longitude);
    p = text(p, orientationText(OrientationGiven));
    p = wholeField(p, Location.speed * _birSaatKacSaniye / _birKilometreKacMetre, 4);
    p = stamp(p, Location.timestamp);
    p = wholeField(p, CurrentSpeed, 4);
    p = detail::formatInteger(p, ItemId, 7);
    *p++ = ',';
    p = stamp(p, DateTime);
    for (double penalty :
         {Fault.sharpCorneringPenalty, Fault.sharpSpeedingPenalty, Fault.sharpBrakingPenalty,
          Fault.sharpElevatingPenalty, Fault.sharpLaneChangingPenalty,
          Fault.sharpCorneringPenaltyPerKM, Fault.sharpSpeedingPenaltyPerKM,
          Fault.sharpBrakingPenaltyPerKM, Fault.sharpElevatingPenaltyPerKM,
          Fault.sharpLaneChangingPenaltyPerKM, Fault.fuelEfficiencyPenaltyPerKM}) {
        p = quantityField(p, penalty);
    }
    p = quantityField(p, Location.course);
    p = wholeField(p, Location.horizontalAccuracy, 5);
    p = preciseField(p, Location.speed);
    return text(p, orientationText(Orientation));
}

std::string MotionDataItem::toString() const {
    char buffer[kMaxTextLength];
    return std::string(buffer, writeTo(buffer));
}

std::string MotionData::bulkMotionDataToString(std::int64_t first) const {
    const std::size_t count =
        first <= 0 ? 0 : std::min(motionDataArray.size(), static_cast<std::size_t>(first));
    std::string bulk;
    bulk.reserve(count * 320);
    char buffer[MotionDataItem::kMaxTextLength + 1];
    for (std::size_t i = 0; i < count; ++i) {
        char* end = motionDataArray[i].writeTo(buffer);
        *end++ = ';';
        bulk.append(buffer, end);
    }
    return bulk;
}

void MotionData::removeSentBulkMotionData(std::int64_t first) {
    const std::size_t count =
        first <= 0 ? 0 : std::min(motionDataArray.size(), static_cast<std::size_t>(first));
    motionDataArray.erase(motionDataArray.begin(),
                          motionDataArray.begin() + static_cast<std::ptrdiff_t>(count));
}

}  // namespace kestrelvue
