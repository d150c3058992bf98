#pragma once
// Part of the scriptable platform (platform/sim/Sim.h): safe to call from any thread.

#include <kestrelvue/platform/Clock.h>

#include <atomic>
#include <chrono>
#include <mutex>

namespace kestrelvue::sim {

/// A clock that moves only when told to.
class VirtualClock final : public platform::Clock {
public:
    /// Starts at 2018-03-05 12:00:00 UTC unless told otherwise.
    VirtualClock();
    explicit VirtualClock(platform::TimePoint start);

    platform::TimePoint now() const override;
    void setNow(platform::TimePoint value);
    void advance(std::chrono::nanoseconds by);

private:
    std::atomic<std::int64_t> nanos_;
};

}  // namespace kestrelvue::sim
