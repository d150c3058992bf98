#pragma once
// Synthetic drives with ground truth: what was done, when, and how hard, so that a replay can
// be checked against it.

#include <kestrelvue/platform/MountingAlignment.h>

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "Drive.h"
#include "records/EventKinds.h"

namespace kestrelvue::tools {

/// The kinds of risky driving the engine reports: its counted kinds, in their order, then fuel.
enum class Kind : int {
    cornering = static_cast<int>(detail::EventKind::cornering),
    acceleration = static_cast<int>(detail::EventKind::speeding),
    braking = static_cast<int>(detail::EventKind::braking),
    elevating = static_cast<int>(detail::EventKind::elevating),
    laneChange = static_cast<int>(detail::EventKind::laneChanging),
    fuel = static_cast<int>(detail::kEventKindCount),
};
inline constexpr int kKindCount = static_cast<int>(Kind::fuel) + 1;
/// The order the tool shows them in.
inline constexpr Kind kKinds[kKindCount] = {Kind::braking,   Kind::acceleration, Kind::cornering,
                                            Kind::elevating, Kind::laneChange,   Kind::fuel};
/// "braking", "acceleration", "cornering", "elevating", "lane-change", "fuel".
const char* kindName(Kind kind);
std::optional<Kind> kindNamed(const std::string& name);

/// What the simulated driver did. The first eight are injected on purpose; the rest are the
/// ordinary driving around them.
enum class Manoeuvre : int {
    brake,
    accelerate,
    cornerLeft,
    cornerRight,
    bump,
    laneLeft,
    laneRight,
    fuel,
    stop,
    pullAway,
    turnLeft,
    turnRight,
};
const char* manoeuvreName(Manoeuvre m);  // "brake", ..., "pull-away", "turn-right"
bool isInjected(Manoeuvre m);
/// The kind an injected manoeuvre must be detected as.
Kind kindOf(Manoeuvre m);
/// Whether a detection of `kind` during `m` is explained by it (a hard pull-away is also
/// fuel-inefficient, a stop may brake harder than the mildest band).
bool mayCause(Manoeuvre m, Kind kind);

struct TruthEvent {
    double t = 0;         // seconds since the start of the drive
    double duration = 0;  // seconds
    Manoeuvre what = Manoeuvre::brake;
    double magnitude = 0;  // g, or rad/s for bumps and lane changes
};

struct SimulationOptions {
    std::string profile = "city";  // "city" or "motorway"
    double seconds = 600;
    std::uint32_t seed = 1;
    /// Kinds to inject; every kind by default.
    std::vector<Kind> events{kKinds, kKinds + kKindCount};
    /// Seconds between injected events, on average.
    double eventSpacing = 45;
    /// Motion samples per second in the file (the fixes come once a second).
    double rate = 10;
    /// No fixes from `fixGapStart` for `fixGapSeconds` (a tunnel, a garage).
    double fixGapStart = 0, fixGapSeconds = 0;
};

struct Simulation {
    Drive drive;
    std::vector<TruthEvent> truth;
};

/// A drive around Istanbul on the phone lying face up. The same options give the same drive,
/// and drives that differ only in `rate` agree on every instant they share.
Simulation simulate(const SimulationOptions& options);

/// The drive's samples as a phone mounted at `angles` in the car would have measured them (see
/// platform::MountingAngles), from `from` seconds until `to`: the simulator's phone lies face up.
void mountPhone(Drive& drive, const platform::MountingAngles& angles, double from = 0,
                double to = 1e18);

void writeTruth(std::ostream& out, const std::vector<TruthEvent>& truth);
/// Reads what writeTruth wrote; on a bad line, nullopt and "line N: what is wrong".
std::optional<std::vector<TruthEvent>> parseTruth(std::istream& in, std::string& error);

/// One evaluated sample charged for a kind.
struct Detection {
    double t = 0;  // seconds since the start of the drive
    Kind kind = Kind::braking;
    double value = 0;    // what the detector read (see detectorValue in Events.h)
    double penalty = 0;  // what the sample was charged, fixed and per-kilometre shares together
};

struct KindScore {
    int injected = 0, hits = 0, misses = 0, extra = 0;
};
struct TruthComparison {
    KindScore kinds[kKindCount];
};
/// Injected events against detected ones (groupEvents in Events.h), per kind. An injected event
/// is hit when an event of its kind overlaps it, give or take a second; an event that nothing in
/// the truth explains is extra.
TruthComparison compareWithTruth(const std::vector<TruthEvent>& truth,
                                 const std::vector<Detection>& detections);

}  // namespace kestrelvue::tools
