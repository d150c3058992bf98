#include "records/MotionText.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>

namespace kestrelvue::detail {
namespace {

constexpr std::size_t kFieldsPerRecord = 39;

/// Splits a record (without its ';') into its comma-terminated fields, keeping the first
/// kFieldsPerRecord in `fields`: the number of fields, or npos when text follows the last comma.
std::size_t splitFields(std::string_view record, std::string_view* fields) {
    std::size_t count = 0, start = 0;
    const auto field = [&](std::size_t comma) {
        if (count < kFieldsPerRecord) fields[count] = record.substr(start, comma - start);
        ++count;
        start = comma + 1;
    };
    for (std::size_t at = 0; at < record.size(); ++at) {
        if (record[at] == ',') field(at);
    }
    return start == record.size() ? count : std::string_view::npos;
}

std::string_view trimmed(std::string_view field) {
    while (!field.empty() && field.front() == ' ') field.remove_prefix(1);
    while (!field.empty() && field.back() == ' ') field.remove_suffix(1);
    return field;
}

/// Any number the library prints, "nan" and "inf" included: a sensor may give them.
bool readNumber(std::string_view field, double& out) {
    field = trimmed(field);
    // The library writes "-d.ddd": with at most 15 digits the digits are an exact double and so is
    // the power of ten, so one division rounds as from_chars does, at a fraction of its cost.
    static constexpr double kPowers[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                         1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    const bool negative = !field.empty() && field[0] == '-';
    std::uint64_t digits = 0;
    int count = 0, decimals = -1;
    std::size_t i = negative ? 1 : 0;
    for (; i < field.size() && count <= 15; ++i) {
        const char c = field[i];
        if (c >= '0' && c <= '9') {
            digits = digits * 10 + static_cast<std::uint64_t>(c - '0');
            ++count;
            if (decimals >= 0) ++decimals;
        } else if (c == '.' && decimals < 0 && count > 0) {
            decimals = 0;
        } else {
            break;
        }
    }
    if (i == field.size() && count > 0 && count <= 15 && decimals != 0) {
        const double value = static_cast<double>(digits) / kPowers[decimals < 0 ? 0 : decimals];
        out = negative ? -value : value;
        return true;
    }
    auto [end, ec] = std::from_chars(field.data(), field.data() + field.size(), out);
    return ec == std::errc() && end == field.data() + field.size() && !field.empty();
}

bool readInteger(std::string_view field, std::int64_t& out) {
    field = trimmed(field);
    auto [end, ec] = std::from_chars(field.data(), field.data() + field.size(), out);
    return ec == std::errc() && end == field.data() + field.size() && !field.empty();
}

int twoDigits(const char* p) {
    return (p[0] - '0') * 10 + (p[1] - '0');
}

/// "yyyy-MM-dd HH:mm:ss:SSS", when `checked` naming a moment that exists (the library writes
/// second 60 for a leap second).
bool readRecordTime(std::string_view s, RecordTime& out, bool checked) {
    constexpr std::string_view pattern = "dddd-dd-dd dd:dd:dd:ddd";
    if (s.size() != pattern.size()) return false;
    for (std::size_t i = 0; i < s.size(); ++i) {
        const bool digit = s[i] >= '0' && s[i] <= '9';
        if (pattern[i] == 'd' ? !digit : s[i] != pattern[i]) return false;
    }
    std::copy(s.begin(), s.end(), out.begin());
    if (!checked) return true;
    const int year = twoDigits(&s[0]) * 100 + twoDigits(&s[2]), month = twoDigits(&s[5]),
              day = twoDigits(&s[8]);
    static constexpr int kDays[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    if (month < 1 || month > 12 || day < 1 || day > kDays[month - 1] ||
        (month == 2 && day == 29 && !leap))
        return false;
    return twoDigits(&s[11]) <= 23 && twoDigits(&s[14]) <= 59 && twoDigits(&s[17]) <= 60;
}

bool readOrientation(std::string_view field, std::array<char, 2>& out) {
    for (const char* code : {"UN", "PU", "PD", "LL", "LR", "FD", "FU"}) {
        if (field == code) {
            out = {code[0], code[1]};
            return true;
        }
    }
    return false;
}

// The fields' names, 1-based as the motion text numbers them.
// clang-format off
constexpr const char* kFieldNames[kFieldsPerRecord] = {
    "acceleration x", "acceleration y", "acceleration z", "rotation x", "rotation y", "rotation z",
    "pitch", "roll", "yaw", "gravity x", "gravity y", "gravity z", "cornering event",
    "speeding event", "elevating event", "lane-changing event", "latitude", "longitude",
    "given orientation", "location speed km/h", "location time", "speed", "ItemId", "DateTime",
    "cornering penalty", "speeding penalty", "braking penalty", "elevating penalty",
    "lane-changing penalty", "cornering penalty per km", "speeding penalty per km",
    "braking penalty per km", "elevating penalty per km", "lane-changing penalty per km",
    "fuel penalty per km", "course", "horizontal accuracy", "location speed", "orientation"};
// clang-format on

/// Why field `f` (0-based) of a record cannot be read into `r`, or null when it can. Unless
/// `checked`, any value of the field's form is read.
const char* readField(std::size_t f, std::string_view text, MotionRecord& r, bool checked) {
    if (f < 12) {
        double* const vectors[4] = {r.acceleration, r.rotation, r.attitude, r.gravity};
        return readNumber(text, vectors[f / 3][f % 3]) ? nullptr : "not a number";
    }
    if (f < 16) {
        if (text.size() != 1 || std::string_view(" RLUDSB").find(text[0]) == std::string_view::npos)
            return "not one of R, L, U, D, S, B or a blank";
        r.events[f - 12] = text[0];
        return nullptr;
    }
    switch (f) {
        case 16:
        case 17: {
            double& v = f == 16 ? r.latitude : r.longitude;
            if (!readNumber(text, v)) return "not a number";
            return !checked || std::fabs(v) <= (f == 16 ? 90.0 : 180.0) ? nullptr
                   : f == 16                                            ? "beyond ±90"
                                                                        : "beyond ±180";
        }
        case 18:
            return readOrientation(text, r.orientationGiven) ? nullptr : "not an orientation code";
        case 19:
            return readNumber(text, r.locationSpeedKmh) ? nullptr : "not a number";
        case 20:
            return readRecordTime(text, r.locationTime, checked)
                       ? nullptr
                       : "not a date yyyy-MM-dd HH:mm:ss:SSS";
        case 21:
            return readNumber(text, r.currentSpeedKmh) ? nullptr : "not a number";
        case 22:
            return readInteger(text, r.itemId) ? nullptr : "not an integer";
        case 23:
            return readRecordTime(text, r.recordTime, checked)
                       ? nullptr
                       : "not a date yyyy-MM-dd HH:mm:ss:SSS";
        case 35:
            return readNumber(text, r.course) ? nullptr : "not a number";
        case 36:
            return readNumber(text, r.horizontalAccuracy) ? nullptr : "not a number";
        case 37:
            return readNumber(text, r.locationSpeed) ? nullptr : "not a number";
        case 38:
            return readOrientation(text, r.orientation) ? nullptr : "not an orientation code";
        default: {  // 24 to 34: the penalties
            double& v = f < 29 ? r.penalty[f - 24] : f < 34 ? r.penaltyPerKM[f - 29] : r.fuelPerKM;
            if (!readNumber(text, v)) return "not a number";
            if (checked && !std::isfinite(v)) return "not a finite number";
            return !checked || std::fabs(v) <= kMaxPenalty ? nullptr : "beyond any real trip";
        }
    }
}

}  // namespace

bool MotionRecord::hasFault() const {
    for (int i = 0; i < 5; ++i) {
        if (penalty[i] != 0 || penaltyPerKM[i] != 0) return true;
    }
    return false;
}

Result<std::size_t> readMotionText(std::string_view text, bool checkValues,
                                   const std::function<void(const MotionRecord&)>& take) {
    std::string_view fields[kFieldsPerRecord];
    std::size_t number = 1;
    for (; !text.empty(); ++number) {
        const std::string at = "record " + std::to_string(number);
        const std::size_t end = text.find(';');
        if (end == std::string_view::npos)
            return Result<std::size_t>::failure(at + ": no closing ';'");
        const std::size_t count = splitFields(text.substr(0, end), fields);
        text.remove_prefix(end + 1);
        if (count == std::string_view::npos)
            return Result<std::size_t>::failure(at + ": a field without its closing ','");
        if (count != kFieldsPerRecord)
            return Result<std::size_t>::failure(at + ": " + std::to_string(count) +
                                                " fields, expected 39");
        MotionRecord r;
        for (std::size_t f = 0; f < kFieldsPerRecord; ++f) {
            if (const char* why = readField(f, fields[f], r, checkValues)) {
                return Result<std::size_t>::failure(at + ", field " + std::to_string(f + 1) + " (" +
                                                    kFieldNames[f] + "): " + why);
            }
        }
        take(r);
    }
    return number - 1;
}

Result<std::vector<MotionRecord>> parseMotionText(std::string_view text, bool checkValues) {
    std::vector<MotionRecord> records;
    // One allocation for a usual bulk without counting its records first (a pass over the whole
    // text): the library's records run to some 300 bytes; shorter ones grow the vector.
    records.reserve(text.size() / 256 + 1);
    auto read =
        readMotionText(text, checkValues, [&](const MotionRecord& r) { records.push_back(r); });
    if (!read) return Result<std::vector<MotionRecord>>::failure(std::move(read.error));
    return records;
}

void appendMotionText(std::string& out, const MotionRecord& r) {
    char buffer[64];
    const auto put = [&](const char* format, auto value) {
        const int n = std::snprintf(buffer, sizeof buffer, format, value);
        out.append(buffer, static_cast<std::size_t>(std::clamp(n, 0, 63)));
    };
    for (const double* v : {r.acceleration, r.rotation, r.attitude, r.gravity}) {
        for (int i = 0; i < 3; ++i) put("%7.3f,", v[i]);
    }
    for (const char c : r.events) out.append({c, ','});
    put("%10.6f,", r.latitude);
    put("%10.6f,", r.longitude);
    out.append(r.orientationGiven.data(), 2).append(1, ',');
    put("% 4.0f,", r.locationSpeedKmh);
    out.append(r.locationTime.data(), r.locationTime.size()).append(1, ',');
    put("% 4.0f,", r.currentSpeedKmh);
    put("%7lld,", static_cast<long long>(r.itemId));
    out.append(r.recordTime.data(), r.recordTime.size()).append(1, ',');
    for (const double v : r.penalty) put("%7.3f,", v);
    for (const double v : r.penaltyPerKM) put("%7.3f,", v);
    put("%7.3f,", r.fuelPerKM);
    put("%7.3f,", r.course);
    put("% 5.0f,", r.horizontalAccuracy);
    put("%10.6f,", r.locationSpeed);
    out.append(r.orientation.data(), 2).append(",;");
}

}  // namespace kestrelvue::detail
