#include "Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <ostream>

namespace kestrelvue::tools {
namespace {

std::string format(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

/// "1 h 02 min 05 s", from whole seconds.
std::string durationText(double seconds) {
    const long long s = std::llround(std::max(0.0, seconds));
    char text[48];
    if (s >= 3600)
        std::snprintf(text, sizeof text, "%lld h %02lld min %02lld s", s / 3600, s / 60 % 60,
                      s % 60);
    else
        std::snprintf(text, sizeof text, "%lld min %02lld s", s / 60, s % 60);
    return text;
}

/// Seconds into the drive as "M:SS" or "H:MM:SS", whole seconds as the clock shows them.
std::string offsetText(double seconds) {
    const long long s = static_cast<long long>(std::floor(std::max(0.0, seconds)));
    char text[32];
    if (s >= 3600)
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60);
    else
        std::snprintf(text, sizeof text, "%lld:%02lld", s / 60, s % 60);
    return text;
}

/// The time of day `offset` seconds into the drive, on the host's clock as the trip's dates are.
std::string clockText(const ReplayResult& r, double offset) {
    const auto at = static_cast<std::time_t>(r.startUnix + std::llround(std::floor(offset)));
    std::tm tm{};
    localtime_r(&at, &tm);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &tm);
    return text;
}

std::string utcText(const ReplayResult& r, double offset) {
    return utcTimeText(r.startUnix + std::llround(std::floor(offset)));
}

/// The unit of what a kind's detector reads.
const char* unitOf(Kind k) {
    return k == Kind::elevating || k == Kind::laneChange ? "rad/s" : "g";
}

double tripSeconds(const Trip& t) {
    return std::chrono::duration<double>(t.EndDateTime - t.StartDateTime).count();
}

/// Printable in JSON whatever the engine holds: JSON has no infinities.
double finite(double v) {
    return std::isfinite(v) ? v : 0.0;
}

struct Colour {
    const char* fill;
    const char* label;
};
// One colour per kind, told apart also by people with red-green blindness.
Colour colourOf(Kind kind) {
    switch (kind) {
        case Kind::braking:
            return {"#d62728", "braking"};
        case Kind::acceleration:
            return {"#ff7f0e", "acceleration"};
        case Kind::cornering:
            return {"#9467bd", "cornering"};
        case Kind::elevating:
            return {"#8c564b", "elevating"};
        case Kind::laneChange:
            return {"#1f77b4", "lane change"};
        case Kind::fuel:
            return {"#2ca02c", "fuel"};
    }
    return {"#000000", "?"};
}

std::string escapeXml(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

double bytesPerHour(const ReplayResult& r) {
    const double hours = r.drivingHours();
    return hours > 0 ? static_cast<double>(r.bytesSent) / hours : 0.0;
}

}  // namespace

std::vector<KindLine> kindLines(const ReplayResult& result) {
    std::vector<KindLine> lines(kKindCount);  // by kind, then in the order shown
    for (int k = 0; k < kKindCount; ++k) lines[k].kind = static_cast<Kind>(k);
    if (result.trip) {
        const Trip& t = *result.trip;
        auto set = [&](Kind k, std::int64_t samples, double penalty, double perKM) {
            lines[static_cast<int>(k)] = {k, 0, samples, penalty, perKM};
        };
        set(Kind::braking, t.SharpBrakingCount, t.SharpBrakingPenalty, t.SharpBrakingPenaltyPerKM);
        set(Kind::acceleration, t.SharpSpeedingCount, t.SharpSpeedingPenalty,
            t.SharpSpeedingPenaltyPerKM);
        set(Kind::cornering, t.SharpCorneringCount, t.SharpCorneringPenalty,
            t.SharpCorneringPenaltyPerKM);
        set(Kind::elevating, t.SharpElevatingCount, t.SharpElevatingPenalty,
            t.SharpElevatingPenaltyPerKM);
        set(Kind::laneChange, t.SharpLaneChangingCount, t.SharpLaneChangingPenalty,
            t.SharpLaneChangingPenaltyPerKM);
        set(Kind::fuel, 0, 0, t.FuelEfficiencyPenaltyPerKM);
    }
    for (const Detection& d : result.detections)
        if (d.kind == Kind::fuel) ++lines[static_cast<int>(Kind::fuel)].samples;
    for (const Event& e : result.events) ++lines[static_cast<int>(e.kind)].events;
    std::vector<KindLine> shown;
    shown.reserve(lines.size());
    for (Kind k : kKinds) shown.push_back(lines[static_cast<int>(k)]);
    return shown;
}

namespace {

std::size_t recordsLost(const ReplayResult& r) {
    const std::size_t safe = r.recordsConfirmed + r.recordsWaiting;
    return r.records > safe ? r.records - safe : 0;
}

const char* tripState(const ReplayResult& r) {
    return r.finished ? "delivered" : r.tripsWaiting > 0 ? "kept for later" : "lost";
}

}  // namespace

int exitCodeOf(const ReplayResult& result) {
    return (result.finished || result.tripsWaiting > 0) && recordsLost(result) == 0 ? 0 : 1;
}

void printReport(std::ostream& out, const ReplayResult& r, const std::string& server,
                 const std::optional<TruthComparison>& truth, bool timeline) {
    if (r.serviceUnreachable) {
        out << "not played: " << r.failureMessage << "\n";
        return;
    }
    if (r.trip) {
        const Trip& t = *r.trip;
        out << "Trip " << t.DrivingID << " uploaded to " << server << "\n"
            << "  score      " << format("%.1f", t.Score)
            << (r.unscored ? "  (NOT SCORED: no bands, none downloaded or kept)" : "") << "\n"
            << "  distance   " << format("%.2f km", t.TotalDistance / 1000.0) << " in "
            << durationText(tripSeconds(t)) << "  (the library's text: \""
            << t.TimeElapsedTotalDistance_Formatted << "\")\n"
            << "  from       " << t.StartLocation << "  (\"" << t.StartDateTime_Formatted << "\")\n"
            << "  to         " << t.EndLocation << "\n\n";
        out << "  kind          events  samples    penalty     per km\n";
        for (const KindLine& line : kindLines(r)) {
            char text[128];
            std::snprintf(
                text, sizeof text, "  %-12s %7lld %8lld %10s %10.3f\n", kindName(line.kind),
                static_cast<long long>(line.events), static_cast<long long>(line.samples),
                line.kind == Kind::fuel ? "-" : format("%.2f", line.penalty).c_str(), line.perKM);
            out << text;
        }
        out << "\n";
    } else {
        out << "Trip not uploaded\n";
    }
    if (r.mounting)
        out << "  mounting   pitch " << std::lround(r.mounting->pitch * 180 / M_PI) << ", roll "
            << std::lround(r.mounting->roll * 180 / M_PI) << ", yaw "
            << std::lround(r.mounting->yaw * 180 / M_PI) << " degrees\n";
    for (const FixGap& gap : r.fixGaps)
        out << "  no fix     for " << durationText(gap.length) << " from " << offsetText(gap.start)
            << " into the drive (" << clockText(r, gap.start) << ")\n";
    if (timeline && !r.events.empty()) {
        out << "\n  events        at     clock  kind           length         peak  penalty\n";
        for (const Event& e : r.events) {
            char text[160];
            std::snprintf(text, sizeof text, "  %12s  %8s  %-12s %6.1f s %6.2f %-5s %8.2f\n",
                          offsetText(e.start).c_str(), clockText(r, e.start).c_str(),
                          kindName(e.kind), e.duration, e.peak, unitOf(e.kind), e.penalty);
            out << text;
        }
        out << "\n";
    }
    out << "  samples    " << r.samples << " delivered every " << format("%g", r.interval) << " s, "
        << r.fixes << " fixes; " << r.records << " records made, " << r.recordsConfirmed
        << " confirmed\n"
        << "  uploads    " << r.bulksUploaded << " motion bulks, " << r.uploadsRetried
        << " retried; " << r.bytesSent << " bytes sent" << (r.compressed ? " compressed" : "")
        << ", " << format("%.2f", bytesPerHour(r) / 1e6) << " MB per driving hour\n";
    out << "  records    " << r.recordsConfirmed << " delivered, " << r.recordsWaiting
        << " kept for later, " << recordsLost(r) << " lost\n"
        << "  trip       " << tripState(r) << "\n";
    if (r.recordsWaiting || r.tripsWaiting)
        out << "  outbox     kestrelvue outbox DIR sends what is kept\n";
    if (!r.outboxProblem.empty()) out << "  outbox     " << r.outboxProblem << "\n";
    if (!r.failure().empty()) out << "  failure    " << r.failure() << "\n";
    if (truth) {
        out << "\n  against the truth    injected   hits  misses  extra\n";
        for (Kind k : kKinds) {
            const KindScore& s = truth->kinds[static_cast<int>(k)];
            char text[128];
            std::snprintf(text, sizeof text, "  %-20s %8d %6d %7d %6d\n", kindName(k), s.injected,
                          s.hits, s.misses, s.extra);
            out << text;
        }
    }
}

void printJsonReport(std::ostream& out, const ReplayResult& r, const std::string& server,
                     const std::optional<TruthComparison>& truth) {
    nlohmann::ordered_json j;
    j["server"] = server;
    j["uploaded"] = r.finished;
    if (r.trip) {
        const Trip& t = *r.trip;
        j["trip"] = t.DrivingID;
        j["score"] = finite(t.Score);
        j["distance_m"] = finite(t.TotalDistance);
        j["duration_s"] = finite(tripSeconds(t));
        j["library_text"] = t.TimeElapsedTotalDistance_Formatted;
        j["start"] = {{"address", t.StartLocation},
                      {"latitude", finite(t.StartLocationLat)},
                      {"longitude", finite(t.StartLocationLong)},
                      {"time", t.StartDateTime_Formatted}};
        j["end"] = {{"address", t.EndLocation},
                    {"latitude", finite(t.EndLocationLat)},
                    {"longitude", finite(t.EndLocationLong)}};
    }
    j["start_time"] = utcText(r, 0);
    nlohmann::ordered_json kinds = nlohmann::ordered_json::object();
    for (const KindLine& line : kindLines(r))
        kinds[kindName(line.kind)] = {{"events", line.events},
                                      {"samples", line.samples},
                                      {"penalty", finite(line.penalty)},
                                      {"penalty_per_km", finite(line.perKM)}};
    j["kinds"] = kinds;
    nlohmann::ordered_json events = nlohmann::ordered_json::array();
    for (const Event& e : r.events)
        events.push_back({{"kind", kindName(e.kind)},
                          {"start_s", e.start},
                          {"time", utcText(r, e.start)},
                          {"duration_s", e.duration},
                          {"peak", finite(e.peak)},
                          {"unit", unitOf(e.kind)},
                          {"penalty", finite(e.penalty)},
                          {"samples", e.samples},
                          {"latitude", e.where.latitude},
                          {"longitude", e.where.longitude}});
    j["events"] = events;
    nlohmann::ordered_json gaps = nlohmann::ordered_json::array();
    for (const FixGap& g : r.fixGaps)
        gaps.push_back(
            {{"start_s", g.start}, {"time", utcText(r, g.start)}, {"length_s", g.length}});
    j["fix_gaps"] = gaps;
    if (r.mounting)
        j["mounting_deg"] = {{"pitch", r.mounting->pitch * 180 / M_PI},
                             {"roll", r.mounting->roll * 180 / M_PI},
                             {"yaw", r.mounting->yaw * 180 / M_PI}};
    j["interval_s"] = r.interval;
    j["fixes"] = r.fixes;
    j["samples"] = r.samples;
    j["records"] = r.records;
    j["records_confirmed"] = r.recordsConfirmed;
    j["bulks_uploaded"] = r.bulksUploaded;
    j["uploads_retried"] = r.uploadsRetried;
    j["bytes_sent"] = r.bytesSent;
    j["bytes_per_driving_hour"] = finite(bytesPerHour(r));
    j["compressed"] = r.compressed;
    j["scored"] = !r.unscored;
    j["outbox"] = {{"records", r.recordsWaiting}, {"trips", r.tripsWaiting}};
    j["outbox"] = {{"records", r.recordsWaiting},
                   {"trips", r.tripsWaiting},
                   {"problem", r.outboxProblem.empty() ? nlohmann::ordered_json()
                                                       : nlohmann::ordered_json(r.outboxProblem)}};
    j["records_lost"] = recordsLost(r);
    j["trip_state"] = tripState(r);
    if (r.route)
        j["route"] = {{"points", r.route->PassedCoordinates.size()},
                      {"faults", r.route->Faults.size()},
                      {"fuel_points", std::count_if(r.route->FuelDefficiencies.begin(),
                                                    r.route->FuelDefficiencies.end(),
                                                    [](const Trip::FuelInefficiencyStruct& f) {
                                                        return f.FuelEfficiencyPenalty > 0;
                                                    })}};
    if (r.failure().empty())
        j["failure"] = nullptr;
    else
        j["failure"] = {
            {"code", r.failureCode}, {"title", r.failureTitle}, {"message", r.failureMessage}};
    if (truth) {
        nlohmann::ordered_json t = nlohmann::ordered_json::object();
        for (Kind k : kKinds) {
            const KindScore& s = truth->kinds[static_cast<int>(k)];
            t[kindName(k)] = {{"injected", s.injected},
                              {"hits", s.hits},
                              {"misses", s.misses},
                              {"extra", s.extra}};
        }
        j["truth"] = t;
    }
    j["wall_s"] = r.wallSeconds;
    // Texts the library received from outside are not trusted to be UTF-8.
    out << j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
}

void writeMapSvg(std::ostream& out, const ReplayResult& result, const Trip::Route& route) {
    const Trip& trip = *result.trip;
    constexpr double kWidth = 960, kHeight = 680, kMargin = 40;
    std::vector<platform::Coordinate> all = route.PassedCoordinates;
    for (const Event& e : result.events) all.push_back(e.where);
    all.push_back({trip.StartLocationLat, trip.StartLocationLong});
    all.push_back({trip.EndLocationLat, trip.EndLocationLong});
    all.erase(std::remove_if(all.begin(), all.end(),
                             [](const platform::Coordinate& c) {
                                 return !std::isfinite(c.latitude) || !std::isfinite(c.longitude) ||
                                        (c.latitude == 0 && c.longitude == 0);
                             }),
              all.end());
    double minLat = 90, maxLat = -90, minLon = 180, maxLon = -180;
    for (const auto& c : all) {
        minLat = std::min(minLat, c.latitude), maxLat = std::max(maxLat, c.latitude);
        minLon = std::min(minLon, c.longitude), maxLon = std::max(maxLon, c.longitude);
    }
    if (all.empty()) minLat = maxLat = minLon = maxLon = 0;
    // An equirectangular view around the middle latitude: true to scale at city sizes.
    const double metresPerDegreeLat = 111'320.0;
    const double metresPerDegreeLon =
        metresPerDegreeLat * std::cos((minLat + maxLat) / 2 * M_PI / 180);
    const double spanX = std::max((maxLon - minLon) * metresPerDegreeLon, 50.0);
    const double spanY = std::max((maxLat - minLat) * metresPerDegreeLat, 50.0);
    const double scale = std::min((kWidth - 2 * kMargin) / spanX, (kHeight - 2 * kMargin) / spanY);
    const double offsetX = (kWidth - spanX * scale) / 2, offsetY = (kHeight - spanY * scale) / 2;
    auto x = [&](const platform::Coordinate& c) {
        return offsetX + (c.longitude - minLon) * metresPerDegreeLon * scale;
    };
    auto y = [&](const platform::Coordinate& c) {
        return kHeight - offsetY - (c.latitude - minLat) * metresPerDegreeLat * scale;
    };
    char text[256];
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"960\" height=\"680\" "
           "viewBox=\"0 0 960 680\" font-family=\"sans-serif\" font-size=\"13\">\n"
        << "<title>Trip " << escapeXml(trip.DrivingID) << "</title>\n"
        << "<rect width=\"960\" height=\"680\" fill=\"#f7f7f4\"/>\n";
    out << "<polyline class=\"route\" fill=\"none\" stroke=\"#555\" stroke-width=\"3\" "
           "stroke-linejoin=\"round\" points=\"";
    for (const auto& c : route.PassedCoordinates) {
        std::snprintf(text, sizeof text, "%.1f,%.1f ", x(c), y(c));
        out << text;
    }
    out << "\"/>\n";

    int counts[kKindCount] = {};
    for (const Event& e : result.events) {
        if (e.where.latitude == 0 && e.where.longitude == 0) continue;  // before any fix
        const int k = static_cast<int>(e.kind);
        ++counts[k];
        std::snprintf(text, sizeof text,
                      "<circle class=\"fault %s\" cx=\"%.1f\" cy=\"%.1f\" r=\"6\" fill=\"%s\" "
                      "fill-opacity=\"0.85\" stroke=\"#fff\">",
                      kindName(e.kind), x(e.where), y(e.where), colourOf(e.kind).fill);
        out << text;
        // The tooltip a browser shows on the marker.
        std::snprintf(text, sizeof text,
                      "<title>%s at %s (%s into the drive), %.1f s, peak %.2f %s, penalty "
                      "%.2f</title></circle>\n",
                      colourOf(e.kind).label, clockText(result, e.start).c_str(),
                      offsetText(e.start).c_str(), e.duration, e.peak, unitOf(e.kind), e.penalty);
        out << text;
    }

    auto pin = [&](const platform::Coordinate& c, const char* cls, const char* fill,
                   const std::string& label) {
        std::snprintf(text, sizeof text,
                      "<g class=\"%s\"><path d=\"M%.1f %.1f l-9 -22 a10 10 0 1 1 18 0 z\" "
                      "fill=\"%s\" stroke=\"#222\"/>",
                      cls, x(c), y(c), fill);
        out << text;
        // Labels near the right edge run leftwards, so that they stay on the map.
        const bool leftwards = x(c) > kWidth * 0.65;
        std::snprintf(text, sizeof text,
                      "<text x=\"%.1f\" y=\"%.1f\" font-weight=\"bold\" text-anchor=\"%s\">",
                      leftwards ? x(c) - 12 : x(c) + 12, y(c) - 22, leftwards ? "end" : "start");
        out << text << escapeXml(label) << "</text></g>\n";
    };
    pin({trip.StartLocationLat, trip.StartLocationLong}, "start", "#2e7d32",
        "Start: " + trip.StartLocation);
    pin({trip.EndLocationLat, trip.EndLocationLong}, "end", "#c62828", "End: " + trip.EndLocation);

    // The legend, top left.
    out << "<g class=\"legend\"><rect x=\"12\" y=\"12\" width=\"230\" height=\""
        << 44 + 20 * kKindCount << "\" fill=\"#fff\" fill-opacity=\"0.9\" stroke=\"#aaa\"/>\n";
    std::snprintf(text, sizeof text,
                  "<text x=\"24\" y=\"34\" font-weight=\"bold\">Score %.1f, %.1f km</text>\n",
                  trip.Score, trip.TotalDistance / 1000.0);
    out << text;
    for (int i = 0; i < kKindCount; ++i) {
        const Colour colour = colourOf(kKinds[i]);
        std::snprintf(text, sizeof text,
                      "<circle cx=\"30\" cy=\"%d\" r=\"6\" fill=\"%s\"/><text x=\"44\" "
                      "y=\"%d\">%s: %d</text>\n",
                      54 + 20 * i, colour.fill, 58 + 20 * i, colour.label,
                      counts[static_cast<int>(kKinds[i])]);
        out << text;
    }
    out << "</g>\n";

    // A scale bar of a round length near a fifth of the width.
    const double target = (kWidth / 5) / scale;
    double length = std::pow(10.0, std::floor(std::log10(target)));
    for (double step : {2.0, 5.0})
        if (length * step <= target) length = std::pow(10.0, std::floor(std::log10(target))) * step;
    const double px = length * scale;
    const std::string label =
        length >= 1000 ? format("%g km", length / 1000) : format("%g m", length);
    std::snprintf(text, sizeof text,
                  "<g class=\"scale\"><path d=\"M20 650 v8 h%.1f v-8\" fill=\"none\" "
                  "stroke=\"#222\" stroke-width=\"2\"/><text x=\"20\" y=\"642\">%s</text></g>\n",
                  px, label.c_str());
    out << text << "</svg>\n";
}

bool writeMapFile(const ReplayResult& result, const std::string& path, const char* command) {
    std::string missing;
    if (!result.finished)
        missing = "the trip was not uploaded, so the service has no route for it";
    else if (!result.route)
        missing = result.routeProblem;
    else if (result.route->PassedCoordinates.empty())
        missing = "the service returned the trip's route without a single point";
    if (!missing.empty()) {
        std::fprintf(stderr, "kestrelvue %s: no map: %s\n", command, missing.c_str());
        return false;
    }
    std::ofstream svg(path);
    writeMapSvg(svg, result, *result.route);
    svg.close();
    if (!svg) {
        std::fprintf(stderr, "kestrelvue %s: cannot write %s\n", command, path.c_str());
        return false;
    }
    std::fprintf(stderr, "map written to %s\n", path.c_str());
    return true;
}

}  // namespace kestrelvue::tools
