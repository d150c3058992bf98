#pragma once
// Part of the scriptable platform (platform/sim/Sim.h): safe to call from any thread.

#include <kestrelvue/platform/Executor.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

namespace kestrelvue::sim {

/// The host's main queue, drained by whoever plays the host.
class MainQueue final : public platform::Executor {
public:
    void post(std::function<void()> task) override;
    /// Runs the oldest task; false when there was none.
    bool runOne();
    /// Runs tasks, including those posted meanwhile, until none is left; returns how many ran.
    std::size_t runUntilIdle();
    std::size_t pending() const;

private:
    mutable std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;
};
using ManualExecutor = MainQueue;

}  // namespace kestrelvue::sim
