#include "Events.h"

#include <algorithm>
#include <cmath>

namespace kestrelvue::tools {

std::vector<Event> groupEvents(const std::vector<Detection>& detections, double interval) {
    std::vector<Detection> sorted = detections;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const Detection& a, const Detection& b) { return a.t < b.t; });
    std::vector<Event> events;
    int open[kKindCount];  // each kind's latest event, -1 before the first
    std::fill(std::begin(open), std::end(open), -1);
    for (const Detection& d : sorted) {
        int& at = open[static_cast<int>(d.kind)];
        if (at < 0 || d.t - events[static_cast<std::size_t>(at)].end > kEventSlack) {
            at = static_cast<int>(events.size());
            events.push_back({d.kind, d.t, d.t});
        }
        Event& e = events[static_cast<std::size_t>(at)];
        e.end = d.t;
        e.duration = e.end - e.start + interval;
        e.peak = std::max(e.peak, d.value);
        e.penalty += d.penalty;
        ++e.samples;
    }
    return events;
}

std::vector<FixGap> fixGaps(const Drive& drive, double longest) {
    std::vector<FixGap> gaps;
    const DriveEvent* last = nullptr;
    for (const DriveEvent& e : drive.events) {
        if (!e.fix) continue;
        if (last && e.seconds() - last->seconds() > longest)
            gaps.push_back({last->seconds(), e.seconds() - last->seconds()});
        last = &e;
    }
    return gaps;
}

double detectorValue(Kind kind, const platform::DeviceMotion& sample) {
    switch (kind) {
        case Kind::braking:
        case Kind::acceleration:
        case Kind::fuel:
            return std::fabs(sample.userAcceleration.y);
        case Kind::cornering:
            return std::fabs(sample.userAcceleration.x);
        case Kind::elevating:
            return std::fabs(sample.rotationRate.x);
        case Kind::laneChange:
            return std::fabs(sample.rotationRate.z);
    }
    return 0;
}

}  // namespace kestrelvue::tools
