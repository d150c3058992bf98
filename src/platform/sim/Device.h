#pragma once
// Part of the scriptable platform (platform/sim/Sim.h): safe to call from any thread.

#include <kestrelvue/platform/Device.h>

#include <atomic>

namespace kestrelvue::sim {

/// A device whose orientation the caller sets.
class Device final : public platform::Device {
public:
    platform::DeviceOrientation orientation() const override;
    void setOrientation(platform::DeviceOrientation value);

private:
    std::atomic<int> orientation_{0};
};

}  // namespace kestrelvue::sim
