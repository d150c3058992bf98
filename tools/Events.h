#pragma once
// A drive told as people tell it: events rather than charged samples, when they happened, and
// where the position was lost.

#include <kestrelvue/platform/Location.h>
#include <kestrelvue/platform/MotionManager.h>

#include <vector>

#include "Drive.h"
#include "Simulate.h"

namespace kestrelvue::tools {

/// Charged samples of one kind within this many seconds of each other are one event.
inline constexpr double kEventSlack = 1.0;

struct Event {
    Kind kind = Kind::braking;
    double start = 0;     // seconds since the start of the drive: the first charged sample
    double end = 0;       // the last charged sample
    double duration = 0;  // to the end of the last sample's interval
    double peak = 0;      // the largest value a detector read (g; rad/s for elevating, lanes)
    double penalty = 0;   // points charged, fixed and per-kilometre shares together
    int samples = 0;
    platform::Coordinate where{};  // the last fix before it (filled by the replay)
};

/// The detections as events, by start time. `interval` is the seconds each sample stands for.
std::vector<Event> groupEvents(const std::vector<Detection>& detections, double interval);

struct FixGap {
    double start = 0;   // seconds since the start of the drive: the last fix before the gap
    double length = 0;  // seconds to the next fix
};
/// Stretches of more than `longest` seconds between two fixes of the drive.
std::vector<FixGap> fixGaps(const Drive& drive, double longest = 5.0);

/// What the detector of `kind` reads from a sample, as a magnitude: the value its bands are
/// looked up with.
double detectorValue(Kind kind, const platform::DeviceMotion& sample);

}  // namespace kestrelvue::tools
