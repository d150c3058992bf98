#pragma once
// Part of the scriptable platform (platform/sim/Sim.h): safe to call from any thread.

#include <kestrelvue/platform/Executor.h>
#include <kestrelvue/platform/MotionManager.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

namespace kestrelvue::sim {

/// A motion manager whose samples the caller pushes.
class MotionSource final : public platform::MotionManager {
public:
    bool isDeviceMotionAvailable() const override;
    bool isDeviceMotionActive() const override;
    double deviceMotionUpdateInterval() const override;
    void setDeviceMotionUpdateInterval(double seconds) override;
    bool showsDeviceMovementDisplay() const override;
    void setShowsDeviceMovementDisplay(bool value) override;
    platform::AsyncRequest startDeviceMotionUpdates(platform::AttitudeReferenceFrame frame,
                                                    std::shared_ptr<platform::Executor> queue,
                                                    platform::DeviceMotionHandler handler) override;
    void stopDeviceMotionUpdates() override;

    void setDeviceMotionAvailable(bool value);
    /// Queues one sample for the running session's handler; dropped when no session runs.
    /// Returns whether it was queued.
    bool push(const platform::DeviceMotion& motion);
    /// Queues a delivery without a sample (and with `error`, when given).
    bool pushEmpty(std::optional<platform::MotionError> error = std::nullopt);

    std::optional<platform::AttitudeReferenceFrame> lastReferenceFrame() const;
    int startCount() const;
    int stopCount() const;

private:
    bool deliver(std::optional<platform::DeviceMotion> motion,
                 std::optional<platform::MotionError> error);

    mutable std::mutex mutex_;
    bool available_ = true;
    double interval_ = 0.01;
    bool showsDisplay_ = false;
    std::uint64_t session_ = 0;  // 0: not running
    std::uint64_t lastSession_ = 0;
    std::shared_ptr<platform::Executor> queue_;
    std::shared_ptr<platform::DeviceMotionHandler> handler_;
    std::optional<platform::AttitudeReferenceFrame> frame_;
    int starts_ = 0;
    int stops_ = 0;
};

}  // namespace kestrelvue::sim
