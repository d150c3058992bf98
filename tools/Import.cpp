#include "Import.h"

#include <expat.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <istream>
#include <map>
#include <ostream>
#include <string_view>

#include "platform/posix/sensors/GpsdReport.h"
#include "platform/posix/sensors/MotionFusion.h"

namespace kestrelvue::tools {
namespace {

namespace fs = std::filesystem;

// A receiver's 68 % horizontal error per unit of HDOP, for logs that give a DOP but no error.
constexpr double kMetresPerHdop = 5.0;
constexpr double kKnot = 1852.0 / 3600.0;  // m/s
constexpr double kDay = 86400.0;

/// A located problem: the importers stop at the first.
struct Failure {
    std::size_t line = 0;
    std::string reason;
};

std::optional<double> number(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '"')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '"' || text.back() == '\r'))
        text.remove_suffix(1);
    double value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> out;
    for (std::size_t start = 0;;) {
        const std::size_t at = text.find(separator, start);
        out.push_back(text.substr(start, at == std::string_view::npos ? at : at - start));
        if (at == std::string_view::npos) return out;
        start = at + 1;
    }
}

bool onGlobe(double latitude, double longitude) {
    // Latitude 0.0 exactly is the engine's "no position".
    return std::abs(latitude) <= 90 && std::abs(longitude) <= 180 && latitude != 0.0;
}

platform::DeviceMotion stillFaceUp() {
    platform::DeviceMotion m;
    m.gravity = {0, 0, -1};
    return m;
}

/// A timed fix in seconds of whatever epoch the format has.
struct TimedFix {
    double t = 0;
    platform::Location fix;
};

/// Fixes alone: each with a still, face-up sample, so that the drive replays and is measured.
ImportResult positionsOnly(std::vector<TimedFix> fixes, const std::string& name,
                           const std::string& what) {
    ImportResult result;
    if (fixes.empty()) {
        result.error = name + ": no position in the " + what;
        return result;
    }
    Drive drive;
    const double t0 = fixes.front().t;
    for (TimedFix& f : fixes) {
        DriveEvent fix;
        fix.t = driveTime(f.t - t0);
        fix.fix = f.fix;
        DriveEvent motion;
        motion.t = fix.t;
        motion.motion = stillFaceUp();
        drive.events.push_back(fix);
        drive.events.push_back(motion);
    }
    result.drive = std::move(drive);
    result.notes.push_back(
        "motion absent: the " + what +
        " holds positions only; the drive carries a device lying still, so distance and speed "
        "are scored but no manoeuvre is");
    return result;
}

ImportResult failed(const std::string& name, const Failure& f) {
    ImportResult result;
    result.error = name + ":" + std::to_string(f.line) + ": " + f.reason;
    return result;
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

/// "2024-05-01T10:00:00.5Z" (or with an offset, or no zone meaning UTC) to Unix seconds.
std::optional<double> isoSeconds(std::string_view text) {
    int y, mo, d, h, mi;
    double s;
    int used = 0;
    const std::string copy(text);
    if (std::sscanf(copy.c_str(), "%4d-%2d-%2dT%2d:%2d:%lf%n", &y, &mo, &d, &h, &mi, &s, &used) !=
            6 ||
        mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || !(s >= 0 && s < 61))
        return std::nullopt;
    double offset = 0;
    std::string_view zone = text.substr(static_cast<std::size_t>(used));
    if (zone == "Z" || zone.empty()) {
    } else if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && zone[3] == ':') {
        auto hh = number(zone.substr(1, 2)), mm = number(zone.substr(4, 2));
        if (!hh || !mm) return std::nullopt;
        offset = (zone[0] == '+' ? 1 : -1) * (*hh * 3600 + *mm * 60);
    } else {
        return std::nullopt;
    }
    return static_cast<double>(
               daysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d))) *
               kDay +
           h * 3600.0 + mi * 60.0 + s - offset;
}

// ---- NMEA 0183 ----------------------------------------------------------------------------

/// "4807.038" with "N" to degrees; nullopt when malformed.
std::optional<double> nmeaAngle(std::string_view value, std::string_view hemisphere,
                                int degDigits) {
    if (value.size() < static_cast<std::size_t>(degDigits) + 2) return std::nullopt;
    auto degrees = number(value.substr(0, static_cast<std::size_t>(degDigits)));
    auto minutes = number(value.substr(static_cast<std::size_t>(degDigits)));
    if (!degrees || !minutes || *minutes < 0 || *minutes >= 60) return std::nullopt;
    const double angle = *degrees + *minutes / 60;
    if (hemisphere == "N" || hemisphere == "E") return angle;
    if (hemisphere == "S" || hemisphere == "W") return -angle;
    return std::nullopt;
}

std::optional<double> nmeaTimeOfDay(std::string_view text) {
    if (text.size() < 6) return std::nullopt;
    auto h = number(text.substr(0, 2)), m = number(text.substr(2, 2)), s = number(text.substr(4));
    if (!h || !m || !s || *h > 23 || *m > 59 || *s < 0 || *s >= 61) return std::nullopt;
    return *h * 3600 + *m * 60 + *s;
}

struct Epoch {
    double tod = -1;
    std::optional<double> latitude, longitude, hdop, speed, course, altitude;
    bool refused = false;  // an RMC said void or a GGA said no fix
};

}  // namespace

ImportResult importNmea(std::istream& in, const std::string& name) {
    std::vector<TimedFix> fixes;
    Epoch epoch;
    double dayOffset = 0, lastTime = -1;
    auto close = [&] {
        if (epoch.tod < 0 || epoch.refused || !epoch.latitude) return;
        TimedFix f;
        f.t = epoch.tod + dayOffset;
        f.fix.coordinate = {*epoch.latitude, *epoch.longitude};
        f.fix.horizontalAccuracy = epoch.hdop.value_or(1.0) * kMetresPerHdop;
        f.fix.speed = epoch.speed.value_or(-1.0);
        f.fix.course = epoch.course.value_or(-1.0);
        f.fix.altitude = epoch.altitude.value_or(0.0);
        fixes.push_back(f);
    };
    std::string line;
    std::size_t number_ = 0;
    while (std::getline(in, line)) {
        ++number_;
        std::string_view text(line);
        while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) text.remove_suffix(1);
        if (text.empty()) continue;
        auto fail = [&](std::string reason) { return failed(name, {number_, std::move(reason)}); };
        if (text[0] != '$') return fail("not an NMEA sentence (no leading '$')");
        const std::size_t star = text.rfind('*');
        if (star != std::string_view::npos) {
            unsigned char sum = 0;
            for (char c : text.substr(1, star - 1)) sum ^= static_cast<unsigned char>(c);
            unsigned given = 0;
            const std::string_view hex = text.substr(star + 1);
            auto [end, ec] = std::from_chars(hex.data(), hex.data() + hex.size(), given, 16);
            if (hex.size() != 2 || ec != std::errc() || end != hex.data() + hex.size())
                return fail("malformed checksum");
            if (given != sum) return fail("checksum mismatch");
            text = text.substr(0, star);
        }
        const auto f = split(text.substr(1), ',');
        if (f[0].size() != 5 || f[0][0] == 'P') continue;  // proprietary or unknown: not ours
        const std::string_view type = f[0].substr(2);
        if (type != "RMC" && type != "GGA" && type != "VTG") continue;
        if (type == "VTG") {
            if (f.size() < 8) return fail("VTG with fewer than 8 fields");
            if (!f[1].empty()) {
                auto course = number(f[1]);
                if (!course || *course < 0 || *course > 360) return fail("bad VTG course");
                epoch.course = *course;
            }
            if (!f[7].empty()) {
                auto kmh = number(f[7]);
                if (!kmh || *kmh < 0) return fail("bad VTG speed");
                epoch.speed = *kmh / 3.6;
            }
            continue;
        }
        const std::size_t need = type == "RMC" ? 10 : 10;
        if (f.size() < need) return fail(std::string(type) + " with too few fields");
        auto tod = nmeaTimeOfDay(f[1]);
        if (!tod) return fail("bad time of day \"" + std::string(f[1]) + "\"");
        if (*tod != epoch.tod) {
            close();
            if (lastTime >= 0 && *tod < lastTime) {
                if (lastTime - *tod > kDay / 2)
                    dayOffset += kDay;  // past midnight
                else
                    return fail("time goes backwards");
            }
            lastTime = *tod;
            epoch = Epoch{};
            epoch.tod = *tod;
        }
        const bool rmc = type == "RMC";
        const std::string_view status = rmc ? f[2] : f[6];
        if (rmc ? status != "A" : (status.empty() || status == "0")) {
            epoch.refused = true;
            continue;
        }
        const std::size_t at = rmc ? 3 : 2;
        auto lat = nmeaAngle(f[at], f[at + 1], 2), lon = nmeaAngle(f[at + 2], f[at + 3], 3);
        if (!lat || !lon || !onGlobe(*lat, *lon)) return fail("bad position");
        epoch.latitude = lat;
        epoch.longitude = lon;
        if (rmc) {
            if (!f[7].empty()) {
                auto knots = number(f[7]);
                if (!knots || *knots < 0) return fail("bad RMC speed");
                epoch.speed = *knots * kKnot;
            }
            if (!f[8].empty()) {
                auto course = number(f[8]);
                if (!course || *course < 0 || *course > 360) return fail("bad RMC course");
                epoch.course = *course;
            }
        } else {
            if (!f[8].empty()) {
                auto hdop = number(f[8]);
                if (!hdop || *hdop <= 0 || *hdop > 99.99) return fail("bad HDOP");
                epoch.hdop = hdop;
            }
            if (!f[9].empty()) {
                auto altitude = number(f[9]);
                if (!altitude) return fail("bad altitude");
                epoch.altitude = altitude;
            }
        }
    }
    close();
    return positionsOnly(std::move(fixes), name, "NMEA log");
}

namespace {

// ---- GPX ----------------------------------------------------------------------------------

struct GpxReader {
    XML_Parser parser = nullptr;
    std::vector<TimedFix> fixes;
    std::optional<Failure> failure;
    bool inPoint = false;
    std::string element, text;
    TimedFix current;
    bool timed = false;
    std::size_t pointLine = 0;

    std::size_t line() const { return static_cast<std::size_t>(XML_GetCurrentLineNumber(parser)); }
    void fail(std::string reason, std::size_t at = 0) {
        if (failure) return;
        failure = Failure{at ? at : line(), std::move(reason)};
        XML_StopParser(parser, XML_FALSE);
    }

    static std::string_view local(const XML_Char* name) {
        std::string_view n(name);
        const std::size_t colon = n.rfind(':');
        return colon == std::string_view::npos ? n : n.substr(colon + 1);
    }
    static void start(void* self, const XML_Char* name, const XML_Char** attributes) {
        auto& r = *static_cast<GpxReader*>(self);
        const std::string_view n = local(name);
        if (n == "trkpt" || n == "rtept") {
            if (r.inPoint) return r.fail("a point inside a point");
            r.inPoint = true;
            r.timed = false;
            r.pointLine = r.line();
            r.current = TimedFix{};
            r.current.fix.horizontalAccuracy = kMetresPerHdop;
            std::optional<double> lat, lon;
            for (int i = 0; attributes[i]; i += 2) {
                const std::string_view key = attributes[i];
                if (key == "lat") lat = number(attributes[i + 1]);
                if (key == "lon") lon = number(attributes[i + 1]);
            }
            if (!lat || !lon || !onGlobe(*lat, *lon))
                return r.fail("a point without a usable lat and lon");
            r.current.fix.coordinate = {*lat, *lon};
        } else if (r.inPoint) {
            r.element = n;
            r.text.clear();
        }
    }
    static void characters(void* self, const XML_Char* s, int length) {
        auto& r = *static_cast<GpxReader*>(self);
        if (r.inPoint && !r.element.empty()) r.text.append(s, static_cast<std::size_t>(length));
    }
    static void end(void* self, const XML_Char* name) {
        auto& r = *static_cast<GpxReader*>(self);
        const std::string_view n = local(name);
        if (n == "trkpt" || n == "rtept") {
            if (!r.timed) return r.fail("a point without a time", r.pointLine);
            if (!r.fixes.empty() && r.current.t < r.fixes.back().t)
                return r.fail("time goes backwards", r.pointLine);
            r.fixes.push_back(r.current);
            r.inPoint = false;
            return;
        }
        if (!r.inPoint || n != r.element) return;
        if (n == "time") {
            auto t = isoSeconds(r.text);
            if (!t) return r.fail("bad time \"" + r.text + "\"");
            r.current.t = *t;
            r.timed = true;
        } else if (n == "ele") {
            auto e = number(r.text);
            if (!e) return r.fail("bad elevation");
            r.current.fix.altitude = *e;
        } else if (n == "speed") {
            auto v = number(r.text);
            if (!v || *v < 0) return r.fail("bad speed");
            r.current.fix.speed = *v;
        } else if (n == "course") {
            auto c = number(r.text);
            if (!c || *c < 0 || *c > 360) return r.fail("bad course");
            r.current.fix.course = *c;
        } else if (n == "hdop") {
            auto h = number(r.text);
            if (!h || *h <= 0) return r.fail("bad HDOP");
            r.current.fix.horizontalAccuracy = *h * kMetresPerHdop;
        }
        r.element.clear();
    }
};

}  // namespace

ImportResult importGpx(std::istream& in, const std::string& name) {
    GpxReader reader;
    reader.parser = XML_ParserCreate(nullptr);
    XML_SetUserData(reader.parser, &reader);
    XML_SetElementHandler(reader.parser, &GpxReader::start, &GpxReader::end);
    XML_SetCharacterDataHandler(reader.parser, &GpxReader::characters);
    char buffer[1 << 14];
    bool ok = true;
    while (ok && !reader.failure) {
        in.read(buffer, sizeof buffer);
        const auto n = in.gcount();
        const bool last = n < static_cast<std::streamsize>(sizeof buffer);
        if (XML_Parse(reader.parser, buffer, static_cast<int>(n), last) == XML_STATUS_ERROR) {
            if (!reader.failure)
                reader.failure =
                    Failure{reader.line(), XML_ErrorString(XML_GetErrorCode(reader.parser))};
            ok = false;
        }
        if (last) break;
    }
    XML_ParserFree(reader.parser);
    if (reader.failure) return failed(name, *reader.failure);
    return positionsOnly(std::move(reader.fixes), name, "GPX track");
}

ImportResult importGpsd(std::istream& in, const std::string& name) {
    std::vector<TimedFix> fixes;
    std::string line;
    std::size_t n = 0;
    while (std::getline(in, line)) {
        ++n;
        std::string_view text(line);
        while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) text.remove_suffix(1);
        if (text.empty()) continue;
        if (text.front() != '{' || text.back() != '}')
            return failed(name, {n, "not a gpsd JSON report"});
        auto fix = posix::fixFromJsonLine(text);
        if (!fix) {
            if (text.find("\"TPV\"") != std::string_view::npos)
                return failed(name, {n, "a TPV report libgps cannot read"});
            continue;  // SKY, VERSION, DEVICES, WATCH...: nothing to place
        }
        if (fix->coordinate.latitude == 0.0) continue;  // no position yet
        const double t = std::chrono::duration<double>(fix->timestamp.time_since_epoch()).count();
        if (!fixes.empty() && t < fixes.back().t) return failed(name, {n, "time goes backwards"});
        fixes.push_back({t, *fix});
    }
    return positionsOnly(std::move(fixes), name, "gpsd capture");
}

namespace {

// ---- The phone sensor-logger export ---------------------------------------------------------

/// One CSV file's rows as numbers, by the header's column names.
struct Table {
    std::string file;
    std::vector<std::string> columns;
    std::vector<std::vector<double>> rows;
    std::vector<std::size_t> lines;

    std::optional<std::size_t> column(std::string_view name) const {
        for (std::size_t i = 0; i < columns.size(); ++i)
            if (columns[i] == name) return i;
        return std::nullopt;
    }
};

std::optional<Table> readTable(const fs::path& path, const std::vector<std::string>& needed,
                               Failure& failure, std::string& file) {
    file = path.string();
    std::ifstream in(path);
    if (!in) {
        failure = {0, "cannot open"};
        return std::nullopt;
    }
    Table table;
    table.file = file;
    std::string line;
    std::size_t n = 0;
    while (std::getline(in, line)) {
        ++n;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) continue;
        const auto cells = split(line, ',');
        if (table.columns.empty()) {
            for (std::string_view c : cells) {
                while (!c.empty() && (c.front() == '"' || c.front() == ' ')) c.remove_prefix(1);
                while (!c.empty() && (c.back() == '"' || c.back() == ' ')) c.remove_suffix(1);
                table.columns.emplace_back(c);
            }
            for (const std::string& need : needed)
                if (!table.column(need)) {
                    failure = {n, "no column \"" + need + "\""};
                    return std::nullopt;
                }
            continue;
        }
        if (cells.size() != table.columns.size()) {
            failure = {n, std::to_string(cells.size()) + " fields where the header has " +
                              std::to_string(table.columns.size())};
            return std::nullopt;
        }
        std::vector<double> row(cells.size(), std::nan(""));
        for (const std::string& need : needed) {
            const std::size_t i = *table.column(need);
            auto v = number(cells[i]);
            if (!v) {
                failure = {n, "\"" + need + "\" is not a number"};
                return std::nullopt;
            }
            row[i] = *v;
        }
        if (!table.rows.empty() &&
            row[*table.column("time")] < table.rows.back()[*table.column("time")]) {
            failure = {n, "time goes backwards"};
            return std::nullopt;
        }
        table.rows.push_back(std::move(row));
        table.lines.push_back(n);
    }
    return table;
}

std::optional<Phone> phoneFromMetadata(const fs::path& directory) {
    std::ifstream in(directory / "Metadata.csv");
    std::string header, values;
    if (!std::getline(in, header) || !std::getline(in, values)) return std::nullopt;
    const auto names = split(header, ','), cells = split(values, ',');
    for (std::size_t i = 0; i < names.size() && i < cells.size(); ++i) {
        if (names[i].find("platform") == std::string_view::npos) continue;
        std::string v(cells[i]);
        std::transform(v.begin(), v.end(), v.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        if (v.find("android") != std::string::npos) return Phone::android;
        if (v.find("ios") != std::string::npos) return Phone::ios;
    }
    return std::nullopt;
}

}  // namespace

ImportResult importSensorLogger(const std::string& directory, std::optional<Phone> phone) {
    const fs::path dir(directory);
    if (!phone) phone = phoneFromMetadata(dir);
    if (!phone) {
        ImportResult r;
        r.error = directory +
                  ": which phone recorded it? Metadata.csv names no platform; give --phone "
                  "ios or --phone android";
        return r;
    }
    Failure failure;
    std::string file;
    auto fail = [&] {
        ImportResult r;
        r.error = file + ":" + std::to_string(failure.line) + ": " + failure.reason;
        return r;
    };
    const std::vector<std::string> xyz{"time", "x", "y", "z"};
    auto accel = readTable(dir / "Accelerometer.csv", xyz, failure, file);
    if (!accel) return fail();
    auto gyro = readTable(dir / "Gyroscope.csv", xyz, failure, file);
    if (!gyro) return fail();
    auto gravity = readTable(dir / "Gravity.csv", xyz, failure, file);
    if (!gravity) return fail();
    auto attitude =
        readTable(dir / "Orientation.csv", {"time", "roll", "pitch", "yaw"}, failure, file);
    if (!attitude) return fail();
    auto location =
        readTable(dir / "Location.csv", {"time", "latitude", "longitude"}, failure, file);
    if (!location) return fail();
    if (accel->rows.empty() || location->rows.empty()) {
        ImportResult r;
        r.error =
            directory + ": no " + (accel->rows.empty() ? "acceleration" : "location") + " rows";
        return r;
    }

    // Accelerations in m/s² (whatever the phone) become g; Android's point the other way.
    const double sign = *phone == Phone::android ? -1.0 : 1.0;
    const double yawSense = *phone == Phone::android ? -1.0 : 1.0;
    auto vec = [](const Table& t, std::size_t row, double k) {
        const auto& r = t.rows[row];
        return Vector3{k * r[*t.column("x")], k * r[*t.column("y")], k * r[*t.column("z")]};
    };
    const double toG = sign / posix::kStandardGravity;
    const auto timeOf = [](const Table& t, std::size_t row) {
        return t.rows[row][*t.column("time")];
    };
    const double t0 = std::min(timeOf(*accel, 0), timeOf(*location, 0));

    std::vector<DriveEvent> events;
    // Each acceleration row is a sample, with the latest gyroscope, gravity and attitude rows
    // at or before it (the first row of each when none is yet).
    std::size_t g = 0, v = 0, a = 0;
    auto latest = [&](const Table& t, std::size_t& i, double ns) {
        while (i + 1 < t.rows.size() && timeOf(t, i + 1) <= ns) ++i;
        return i;
    };
    for (std::size_t i = 0; i < accel->rows.size(); ++i) {
        const double ns = timeOf(*accel, i);
        if (gyro->rows.empty() || gravity->rows.empty() || attitude->rows.empty()) break;
        platform::DeviceMotion m;
        m.userAcceleration = vec(*accel, i, toG);
        m.rotationRate = vec(*gyro, latest(*gyro, g, ns), 1.0);
        m.gravity = vec(*gravity, latest(*gravity, v, ns), toG);
        const auto& o = attitude->rows[latest(*attitude, a, ns)];
        m.attitude = {o[*attitude->column("pitch")], o[*attitude->column("roll")],
                      yawSense * o[*attitude->column("yaw")]};
        DriveEvent e;
        e.t = static_cast<std::int64_t>(std::llround(ns - t0));
        e.motion = m;
        e.orientation = posix::orientationFromGravity(m.gravity);
        events.push_back(e);
    }
    const Table& loc = *location;
    for (std::size_t i = 0; i < loc.rows.size(); ++i) {
        const auto& r = loc.rows[i];
        auto col = [&](const char* name, double fallback) {
            auto c = loc.column(name);
            return c && std::isfinite(r[*c]) ? r[*c] : fallback;
        };
        DriveEvent e;
        e.t = static_cast<std::int64_t>(std::llround(timeOf(loc, i) - t0));
        platform::Location fix;
        fix.coordinate = {r[*loc.column("latitude")], r[*loc.column("longitude")]};
        if (!onGlobe(fix.coordinate.latitude, fix.coordinate.longitude)) {
            ImportResult out;
            out.error = loc.file + ":" + std::to_string(loc.lines[i]) + ": bad position";
            return out;
        }
        fix.horizontalAccuracy = col("horizontalAccuracy", kMetresPerHdop);
        fix.speed = col("speed", -1.0);
        fix.course = col("bearing", col("course", -1.0));
        fix.altitude = col("altitude", 0.0);
        e.fix = fix;
        events.push_back(e);
    }
    // Fixes first at equal times, as the drive reader orders them.
    std::stable_sort(events.begin(), events.end(), [](const DriveEvent& x, const DriveEvent& y) {
        return x.t < y.t || (x.t == y.t && x.fix && !y.fix);
    });
    ImportResult result;
    result.drive = Drive{std::move(events), std::nullopt};
    return result;
}

std::optional<ImportFormat> guessFormat(const std::string& path) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) return ImportFormat::sensorLogger;
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (ext == ".nmea" || ext == ".nma" || ext == ".log" || ext == ".txt")
        return ImportFormat::nmea;
    if (ext == ".gpx") return ImportFormat::gpx;
    if (ext == ".json" || ext == ".jsonl") return ImportFormat::gpsd;
    return std::nullopt;
}

ImportResult importFile(const std::string& path, ImportFormat format, std::optional<Phone> phone) {
    if (format == ImportFormat::sensorLogger) return importSensorLogger(path, phone);
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        ImportResult r;
        r.error = path + ": cannot open";
        return r;
    }
    switch (format) {
        case ImportFormat::nmea:
            return importNmea(in, path);
        case ImportFormat::gpx:
            return importGpx(in, path);
        default:
            return importGpsd(in, path);
    }
}

namespace {

void sentence(std::ostream& out, const std::string& body) {
    unsigned char sum = 0;
    for (char c : body) sum ^= static_cast<unsigned char>(c);
    char tail[8];
    std::snprintf(tail, sizeof tail, "*%02X\r\n", sum);
    out << '$' << body << tail;
}

std::string nmeaAngleText(double value, bool latitude) {
    const double a = std::abs(value);
    const int degrees = static_cast<int>(a);
    char text[32];
    std::snprintf(text, sizeof text, latitude ? "%02d%09.6f,%c" : "%03d%09.6f,%c", degrees,
                  (a - degrees) * 60, latitude ? (value < 0 ? 'S' : 'N') : (value < 0 ? 'W' : 'E'));
    return text;
}

}  // namespace

void writeNmea(std::ostream& out, const Drive& drive, std::chrono::system_clock::time_point start) {
    using namespace std::chrono;
    for (const DriveEvent& e : drive.events) {
        if (!e.fix) continue;
        const auto at = start + duration_cast<system_clock::duration>(nanoseconds(e.t));
        const auto day = floor<days>(at);
        const year_month_day ymd(day);
        const hh_mm_ss tod(duration_cast<milliseconds>(at - day));
        char time[16], date[8], body[160];
        std::snprintf(time, sizeof time, "%02d%02d%02d.%02d", static_cast<int>(tod.hours().count()),
                      static_cast<int>(tod.minutes().count()),
                      static_cast<int>(tod.seconds().count()),
                      static_cast<int>(tod.subseconds().count() / 10));
        std::snprintf(date, sizeof date, "%02u%02u%02d", static_cast<unsigned>(ymd.day()),
                      static_cast<unsigned>(ymd.month()), static_cast<int>(ymd.year()) % 100);
        const platform::Location& f = *e.fix;
        const std::string lat = nmeaAngleText(f.coordinate.latitude, true);
        const std::string lon = nmeaAngleText(f.coordinate.longitude, false);
        const double speed = std::max(f.speed, 0.0), course = std::max(f.course, 0.0);
        std::snprintf(body, sizeof body, "GPRMC,%s,A,%s,%s,%.3f,%.2f,%s,,,A", time, lat.c_str(),
                      lon.c_str(), speed / kKnot, course, date);
        sentence(out, body);
        std::snprintf(body, sizeof body, "GPGGA,%s,%s,%s,1,10,%.2f,%.1f,M,0.0,M,,", time,
                      lat.c_str(), lon.c_str(),
                      std::max(f.horizontalAccuracy, 0.5) / kMetresPerHdop, f.altitude);
        sentence(out, body);
        std::snprintf(body, sizeof body, "GPVTG,%.2f,T,,M,%.3f,N,%.3f,K,A", course, speed / kKnot,
                      speed * 3.6);
        sentence(out, body);
    }
}

}  // namespace kestrelvue::tools
