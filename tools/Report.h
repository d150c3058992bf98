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
    std::int64_t count = 0;  // samples charged
    double penalty = 0;      // fixed penalties, summed
    double perKM = 0;        // per-kilometre penalties, per kilometre
};
/// The six kinds as the trip record and the records' charges give them (fuel has only a
/// per-kilometre charge; its count is the samples charged).
std::vector<KindLine> kindLines(const ReplayResult& result);

/// The process's exit code for a replay: 0 when the trip was uploaded and every record
/// confirmed (or kept in the outbox), 1 otherwise.
int exitCodeOf(const ReplayResult& result);

void printReport(std::ostream& out, const ReplayResult& result, const std::string& server,
                 const std::optional<TruthComparison>& truth);
/// The same as one JSON object, on one line.
void printJsonReport(std::ostream& out, const ReplayResult& result, const std::string& server,
                     const std::optional<TruthComparison>& truth);

/// The route with its start and end, every fault point coloured by kind, a legend and a scale
/// bar, as a standalone SVG document.
void writeMapSvg(std::ostream& out, const Trip& trip, const Trip::Route& route);

}  // namespace kestrelvue::tools
