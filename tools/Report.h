#pragma once
// What the tool tells a person about a replayed drive: the report (text or JSON) and the map.

#include <iosfwd>
#include <optional>
#include <string>

#include "Replay.h"
#include "Simulate.h"

namespace kestrelvue::tools {

struct KindLine {
    Kind kind;
    std::int64_t events = 0;   // charged samples grouped as people count them (Events.h)
    std::int64_t samples = 0;  // samples charged
    double penalty = 0;        // fixed penalties, summed
    double perKM = 0;          // per-kilometre penalties, per kilometre
};
/// The six kinds as the trip record and the records' charges give them (fuel has only a
/// per-kilometre charge; its samples are those the records charged).
std::vector<KindLine> kindLines(const ReplayResult& result);

/// The process's exit code for a replay: 0 when the trip was uploaded and every record
/// confirmed (or kept in the outbox), 1 otherwise.
int exitCodeOf(const ReplayResult& result);

/// `timeline` adds every event with its time, duration, peak and penalty.
void printReport(std::ostream& out, const ReplayResult& result, const std::string& server,
                 const std::optional<TruthComparison>& truth, bool timeline = false);
/// The same as one JSON object, on one line.
void printJsonReport(std::ostream& out, const ReplayResult& result, const std::string& server,
                     const std::optional<TruthComparison>& truth);

/// The route with its start and end, every event coloured by kind with its time as a tooltip,
/// a legend and a scale bar, as a standalone SVG document.
void writeMapSvg(std::ostream& out, const ReplayResult& result, const Trip::Route& route);
/// Writes the map to `path`; a trip without a route would make a map that passes for one, so
/// then no file is written and the reason goes to standard error as "kestrelvue COMMAND: no map:
/// ...". False when no map was written.
bool writeMapFile(const ReplayResult& result, const std::string& path, const char* command);

}  // namespace kestrelvue::tools
