#include "Drive.h"

#include <sys/mman.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <istream>
#include <ostream>
#include <string_view>

namespace kestrelvue::tools {
namespace {

constexpr double kLongestDriveSeconds = 7 * 24 * 3600.0;
constexpr const char* kHeader = "kestrelvue-drive";

/// The words of one line, read left to right.
class Words {
public:
    explicit Words(std::string_view text) : rest_(text) {}

    // By hand: find_first_of and find_first_not_of search the set of separators once for every
    // byte, which made them most of the time spent reading a drive.
    std::optional<std::string_view> next() {
        std::size_t start = 0;
        while (start < rest_.size() && isSpace(rest_[start])) ++start;
        if (start == rest_.size()) return std::nullopt;
        std::size_t end = start;
        while (end < rest_.size() && !isSpace(rest_[end])) ++end;
        const std::string_view word = rest_.substr(start, end - start);
        rest_.remove_prefix(end);
        return word;
    }

    /// Exactly `count` finite numbers and nothing after them.
    bool numbers(double* out, int count) {
        for (int i = 0; i < count; ++i) {
            const auto word = next();
            if (!word) return false;
            auto [end, ec] = std::from_chars(word->data(), word->data() + word->size(), out[i]);
            // Bounded, so that every line writes back within a line's buffer.
            if (ec != std::errc() || end != word->data() + word->size() || !std::isfinite(out[i]) ||
                std::fabs(out[i]) > 1e9) {
                return false;
            }
        }
        return !next();
    }

private:
    static bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r'; }
    std::string_view rest_;
};

/// Asks for huge pages under a large buffer about to be filled: a long drive's events take tens of
/// megabytes, and faulting them in 4 KiB at a time costs more than reading them.
void preferHugePages(const void* data, std::size_t bytes) {
    constexpr std::uintptr_t kHuge = std::uintptr_t{2} << 20;
    const auto start = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t begin = (start + kHuge - 1) & ~(kHuge - 1);
    const std::uintptr_t end = (start + bytes) & ~(kHuge - 1);
    // The kernel takes the range as an address: no pointer can be formed from the rounding.
    if (end > begin)
        madvise(reinterpret_cast<void*>(begin),  // NOLINT(performance-no-int-to-ptr)
                end - begin, MADV_HUGEPAGE);
}

}  // namespace

std::int64_t driveTime(double seconds) {
    return std::llround(seconds * 1e9);
}

std::optional<std::int64_t> parseUtcTime(std::string_view text) {
    // Exactly "YYYY-MM-DDTHH:MM:SSZ": other spellings of ISO 8601 are refused, not guessed at.
    constexpr std::string_view kShape = "dddd-dd-ddTdd:dd:ddZ";
    if (text.size() != kShape.size()) return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) return std::nullopt;
    }
    auto number = [&](std::size_t at, std::size_t digits) {
        int value = 0;
        for (std::size_t i = at; i < at + digits; ++i) value = value * 10 + (text[i] - '0');
        return value;
    };
    std::tm tm{};
    tm.tm_year = number(0, 4) - 1900;
    tm.tm_mon = number(5, 2) - 1;
    tm.tm_mday = number(8, 2);
    tm.tm_hour = number(11, 2);
    tm.tm_min = number(14, 2);
    tm.tm_sec = number(17, 2);
    const std::tm asked = tm;
    const std::time_t seconds = timegm(&tm);
    // timegm normalises 31 November to 1 December: a date that moved did not exist.
    if (tm.tm_mday != asked.tm_mday || tm.tm_mon != asked.tm_mon || tm.tm_hour != asked.tm_hour ||
        tm.tm_min != asked.tm_min || tm.tm_sec != asked.tm_sec || tm.tm_year < 70)
        return std::nullopt;
    return static_cast<std::int64_t>(seconds);
}

std::string utcTimeText(std::int64_t unixSeconds) {
    const auto seconds = static_cast<std::time_t>(unixSeconds);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

DriveParseResult parseDrive(std::istream& in) {
    Drive drive;
    // A file's size tells roughly how many events it holds (a line is 45 to 100 bytes): one
    // allocation instead of a copy of every event at each doubling.
    if (const auto here = in.tellg(); here >= 0 && in.seekg(0, std::ios::end)) {
        const auto size = static_cast<std::size_t>(in.tellg() - here);
        in.seekg(here);
        drive.events.reserve(std::min<std::size_t>(size / 70, std::size_t{1} << 24));
        preferHugePages(drive.events.data(), drive.events.capacity() * sizeof(DriveEvent));
    }
    in.clear();
    std::string text;
    int lineNumber = 0, version = 0;
    bool anyFix = false, anyMotion = false;
    auto fail = [&](const std::string& what) {
        return DriveParseResult::failure("line " + std::to_string(lineNumber) + ": " + what);
    };
    while (std::getline(in, text)) {
        ++lineNumber;
        if (auto hash = text.find('#'); hash != std::string::npos) text.erase(hash);
        Words line(text);
        const auto word = line.next();
        if (!word) continue;
        const std::string_view kind = *word;
        if (kind == kHeader) {
            if (version != 0 || !drive.events.empty()) return fail("the header must come first");
            const auto number = line.next();
            if (!number || (*number != "1" && *number != "2"))
                return fail("unsupported drive format '" + text +
                            "' (this tool reads versions 1 and 2)");
            version = (*number)[0] - '0';
            if (const auto start = line.next()) {
                constexpr std::string_view kStart = "start=";
                const auto at = start->substr(0, kStart.size()) == kStart && version == 2
                                    ? parseUtcTime(start->substr(kStart.size()))
                                    : std::nullopt;
                if (!at || line.next())
                    return fail("after the version, only start=YYYY-MM-DDTHH:MM:SSZ may follow");
                drive.start = at;
            }
            continue;
        }
        if (version == 0) version = 1;  // files from before the header
        DriveEvent event;
        double t = 0;
        if (kind == "fix") {
            double v[6];
            if (!line.numbers(v, 6))
                return fail("a fix needs T LAT LON SPEED COURSE ACCURACY, all finite numbers");
            if (std::fabs(v[1]) > 90 || std::fabs(v[2]) > 180)
                return fail("latitude must lie in [-90, 90] and longitude in [-180, 180]");
            platform::Location fix;
            fix.coordinate = {v[1], v[2]};
            fix.speed = v[3];
            fix.course = v[4];
            fix.horizontalAccuracy = v[5];
            fix.verticalAccuracy = v[5];
            t = v[0];
            event.fix = fix;
            anyFix = true;
        } else if (kind == "motion") {
            const int count = version == 2 ? 14 : 13;
            double v[14];
            if (!line.numbers(v, count))
                return fail(version == 2
                                ? "a motion sample needs T, 12 finite numbers and an orientation"
                                : "a motion sample needs T and 12 finite numbers");
            platform::DeviceMotion m;
            m.attitude = {v[1], v[2], v[3]};
            m.rotationRate = {v[4], v[5], v[6]};
            m.userAcceleration = {v[7], v[8], v[9]};
            m.gravity = {v[10], v[11], v[12]};
            if (version == 2) {
                if (v[13] != std::floor(v[13]) || v[13] < 0 || v[13] > 6)
                    return fail("the orientation must be a whole number from 0 to 6");
                event.orientation = static_cast<platform::DeviceOrientation>(int(v[13]));
            }
            t = v[0];
            event.motion = m;
            anyMotion = true;
        } else {
            return fail("unknown event '" + std::string(kind) + "' (expected fix or motion)");
        }
        if (t < 0 || t > kLongestDriveSeconds)
            return fail("the time must lie between 0 and a week, in seconds");
        event.t = driveTime(t);
        if (!drive.events.empty() && event.t < drive.events.back().t)
            return fail("time goes backwards");
        drive.events.push_back(event);
    }
    if (drive.events.empty()) return DriveParseResult::failure("the drive has no events");
    if (!anyFix) return DriveParseResult::failure("the drive has no location fix");
    if (!anyMotion) return DriveParseResult::failure("the drive has no motion sample");
    drive.version = version;
    return drive;
}

void writeDrive(std::ostream& out, const Drive& drive) {
    char line[512];
    out << kHeader << ' ' << kDriveFormatVersion;
    if (drive.start) out << " start=" << utcTimeText(*drive.start);
    out << "\n# fix T LAT LON SPEED COURSE ACCURACY\n"
           "# motion T PITCH ROLL YAW RX RY RZ AX AY AZ GX GY GZ ORIENTATION\n";
    for (const DriveEvent& e : drive.events) {
        // Times to the nanosecond, so that a written drive reads back to the same instants.
        const long long whole = e.t / 1'000'000'000, nanos = e.t % 1'000'000'000;
        char time[40];
        if (nanos % 1'000'000 == 0)
            std::snprintf(time, sizeof time, "%lld.%03lld", whole, nanos / 1'000'000);
        else
            std::snprintf(time, sizeof time, "%lld.%09lld", whole, nanos);
        if (e.fix) {
            const auto& f = *e.fix;
            std::snprintf(line, sizeof line, "fix %s %.7f %.7f %.3f %.2f %.1f\n", time,
                          f.coordinate.latitude, f.coordinate.longitude, f.speed, f.course,
                          f.horizontalAccuracy);
        } else if (e.motion) {
            const auto& m = *e.motion;
            std::snprintf(line, sizeof line,
                          "motion %s %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f "
                          "%d\n",
                          time, m.attitude.x, m.attitude.y, m.attitude.z, m.rotationRate.x,
                          m.rotationRate.y, m.rotationRate.z, m.userAcceleration.x,
                          m.userAcceleration.y, m.userAcceleration.z, m.gravity.x, m.gravity.y,
                          m.gravity.z, static_cast<int>(e.orientation));
        } else {
            continue;
        }
        out << line;
    }
}

}  // namespace kestrelvue::tools
