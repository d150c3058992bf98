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

/// A local calendar time, as far as the text needs it.
struct Civil {
    std::int64_t year;
    int month, day, hour, minute, second;
};

/// The local time's offset from UTC over one block of 15 UTC minutes, found by converting both
/// ends. Zones change their offset at whole quarter hours of UTC, so nearly every block has one
/// offset and its seconds are local = UTC + offset, computed without the C library; a block whose
/// ends disagree (a change inside it, a leap second) is converted second by second.
struct CachedBlock {
    std::int64_t block = 0;
    bool filled = false;
    bool uniform = false;
    std::int64_t offset = 0;
};
constexpr std::int64_t kBlockSeconds = 900;

// Four slots: a record's two stamps and its neighbours' mostly fall into one or two seconds.
thread_local CachedSecond tCache[4];
thread_local CachedBlock tBlock;
thread_local std::uint64_t tConversions = 0;

char* writeTwoDigits(char* out, int v) {
    std::memcpy(out, kDigitPairs + 2 * static_cast<std::ptrdiff_t>(v), 2);
    return out + 2;
}

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
    return a / b - (a % b < 0 ? 1 : 0);
}

/// The proleptic Gregorian date of a day counted from 1970-01-01 (Howard Hinnant's algorithm).
Civil civilFromSeconds(std::int64_t t) {
    const std::int64_t days = floorDiv(t, 86400);
    const auto daySecond = static_cast<int>(t - days * 86400);
    const std::int64_t z = days + 719468;
    const std::int64_t era = floorDiv(z, 146097);
    const std::int64_t doe = z - era * 146097;
    const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const std::int64_t mp = (5 * doy + 2) / 153;
    const auto month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    return {yoe + era * 400 + (month <= 2 ? 1 : 0),
            month,
            static_cast<int>(doy - (153 * mp + 2) / 5 + 1),
            daySecond / 3600,
            daySecond / 60 % 60,
            daySecond % 60};
}

/// Seconds from 1970-01-01 00:00:00 to the given calendar time, read as if it were UTC.
std::int64_t secondsFromCivil(const std::tm& tm) {
    const std::int64_t m = tm.tm_mon + 1;
    const std::int64_t y = static_cast<std::int64_t>(tm.tm_year) + 1900 - (m <= 2 ? 1 : 0);
    const std::int64_t era = floorDiv(y, 400);
    const std::int64_t yoe = y - era * 400;
    const std::int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + tm.tm_mday - 1;
    const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const std::int64_t days = era * 146097 + doe - 719468;
    return days * 86400 + std::int64_t{tm.tm_hour} * 3600 + std::int64_t{tm.tm_min} * 60 +
           tm.tm_sec;
}

Civil localCivil(std::int64_t second, std::int64_t* offset) {
    const std::time_t tt = static_cast<std::time_t>(second);
    std::tm tm{};
    if (localtime_r(&tt, &tm) == nullptr) tm = std::tm{};
    ++tConversions;
    if (offset != nullptr) *offset = secondsFromCivil(tm) - second;
    return {static_cast<std::int64_t>(tm.tm_year) + 1900,
            tm.tm_mon + 1,
            tm.tm_mday,
            tm.tm_hour,
            tm.tm_min,
            std::min(tm.tm_sec, 60)};
}

Civil toLocal(std::int64_t second) {
    const std::int64_t block = floorDiv(second, kBlockSeconds);
    if (!tBlock.filled || tBlock.block != block) {
        std::int64_t first = 0, last = 0;
        localCivil(block * kBlockSeconds, &first);
        localCivil(block * kBlockSeconds + kBlockSeconds - 1, &last);
        tBlock = {block, true, first == last, first};
    }
    return tBlock.uniform ? civilFromSeconds(second + tBlock.offset) : localCivil(second, nullptr);
}

int formatSecond(char* out, std::int64_t second) {
    const Civil c = toLocal(second);
    char* p = out;
    if (c.year >= 0 && c.year < 10000) {
        p = writeTwoDigits(p, static_cast<int>(c.year / 100));
        p = writeTwoDigits(p, static_cast<int>(c.year % 100));
    } else {
        p = std::to_chars(p, p + 12, static_cast<long long>(c.year)).ptr;
    }
    *p++ = '-';
    p = writeTwoDigits(p, c.month);
    *p++ = '-';
    p = writeTwoDigits(p, c.day);
    *p++ = ' ';
    p = writeTwoDigits(p, c.hour);
    *p++ = ':';
    p = writeTwoDigits(p, c.minute);
    *p++ = ':';
    p = writeTwoDigits(p, c.second);
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
        // Samples move on a second at a time: within a block of one offset, the text of the
        // second before with its seconds counted up, unless they wrap.
        const CachedSecond& before = tCache[static_cast<std::uint64_t>(second - 1) & 3];
        const std::int64_t block = floorDiv(second, kBlockSeconds);
        if (before.length == 19 && before.second == second - 1 && tBlock.filled && tBlock.uniform &&
            tBlock.block == block && floorDiv(second - 1, kBlockSeconds) == block &&
            (before.text[17] != '5' || before.text[18] != '9')) {
            std::memcpy(slot.text, before.text, 19);
            if (slot.text[18] == '9') {
                slot.text[18] = '0';
                ++slot.text[17];
            } else {
                ++slot.text[18];
            }
            slot.length = 19;
        } else {
            slot.length = formatSecond(slot.text, second);
        }
        slot.second = second;
    }
    // 19 bytes within TimePoint's range; a constant length lets the next field start at once.
    if (slot.length == 19) [[likely]] {
        std::memcpy(out, slot.text, 19);
        out += 19;
    } else {
        copySmall(out, slot.text, static_cast<std::size_t>(slot.length));
        out += slot.length;
    }
    *out++ = ':';
    *out++ = static_cast<char>('0' + milli / 100);
    return writeTwoDigits(out, milli % 100);
}

std::uint64_t timestampConversions() {
    return tConversions;
}

void clearTimestampCache() {
    for (CachedSecond& slot : tCache) slot.length = 0;
    tBlock.filled = false;
}

}  // namespace detail

namespace {
// By orientation code; the last stands for every other code.
constexpr char kOrientationTexts[8][3] = {"UN", "PU", "PD", "LL", "LR", "FU", "FD", "FU"};
const char* orientationTextOf(int code) {
    return kOrientationTexts[static_cast<unsigned>(code) <= 6 ? code : 7];
}
}  // namespace

const char* orientationText(int code) {
    return orientationTextOf(code);
}

namespace {

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

// Flattened: every field's formatting is inlined here at -O2 as at -O3, so that the processor
// overlaps the fields of a record; g++ -O2 inlines none of them on its own.
[[gnu::flatten]] char* MotionDataItem::writeTo(char* p) const {
    for (const Vector3* v : {&Acceleration, &Rotation, &Attitude, &Gravity}) {
        p = detail::formatQuantityField(p, v->x);
        p = detail::formatQuantityField(p, v->y);
        p = detail::formatQuantityField(p, v->z);
    }
    p = character(p, Fault.sharpCornering);
    p = character(p, Fault.sharpSpeeding);
    p = character(p, Fault.sharpElevating);
    p = character(p, Fault.sharpLaneChanging);
    p = detail::formatPreciseField(p, Location.coordinate.latitude);
    p = detail::formatPreciseField(p, Location.coordinate.longitude);
    p = text(p, orientationTextOf(OrientationGiven));
    p = detail::formatWholeField<4>(p, Location.speed * _birSaatKacSaniye / _birKilometreKacMetre);
    p = stamp(p, Location.timestamp);
    p = detail::formatWholeField<4>(p, CurrentSpeed);
    p = detail::formatInteger(p, ItemId, 7);
    *p++ = ',';
    p = stamp(p, DateTime);
    for (double penalty :
         {Fault.sharpCorneringPenalty, Fault.sharpSpeedingPenalty, Fault.sharpBrakingPenalty,
          Fault.sharpElevatingPenalty, Fault.sharpLaneChangingPenalty,
          Fault.sharpCorneringPenaltyPerKM, Fault.sharpSpeedingPenaltyPerKM,
          Fault.sharpBrakingPenaltyPerKM, Fault.sharpElevatingPenaltyPerKM,
          Fault.sharpLaneChangingPenaltyPerKM, Fault.fuelEfficiencyPenaltyPerKM}) {
        p = detail::formatQuantityField(p, penalty);
    }
    p = detail::formatQuantityField(p, Location.course);
    p = detail::formatWholeField<5>(p, Location.horizontalAccuracy);
    p = detail::formatPreciseField(p, Location.speed);
    return text(p, orientationTextOf(Orientation));
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
