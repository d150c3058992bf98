#include "platform/sim/VirtualClock.h"

#include <chrono>

namespace kestrelvue::sim {

using namespace std::chrono;

VirtualClock::VirtualClock() : VirtualClock(platform::TimePoint(seconds(1520251200))) {}

VirtualClock::VirtualClock(platform::TimePoint start)
    : nanos_(duration_cast<nanoseconds>(start.time_since_epoch()).count()) {}

platform::TimePoint VirtualClock::now() const {
    return platform::TimePoint(
        duration_cast<platform::TimePoint::duration>(nanoseconds(nanos_.load())));
}

void VirtualClock::setNow(platform::TimePoint value) {
    nanos_.store(duration_cast<nanoseconds>(value.time_since_epoch()).count());
}

void VirtualClock::advance(nanoseconds by) {
    nanos_.fetch_add(by.count());
}

}  // namespace kestrelvue::sim
