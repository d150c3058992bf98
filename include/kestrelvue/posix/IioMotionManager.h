#pragma once
// Device motion from Linux IIO sensors: the counterpart of a phone's motion manager.

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/Device.h>
#include <kestrelvue/platform/MotionManager.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kestrelvue::posix {

struct KESTRELVUE_EXPORT IioOptions {
    /// Where the IIO devices are; a test points this at a directory of the same shape.
    std::string root = "/sys/bus/iio/devices";
    /// Seconds over which the accelerometer corrects the gravity estimate (see MotionFusion.h).
    double gravityTimeConstant = 60.0;
};

/// One raw read of the sensors, for the manager and for those that measure it.
struct KESTRELVUE_EXPORT IioReading {
    Vector3 accel;  // m/s², specific force, device axes
    Vector3 gyro;   // rad/s
};

/// Finds an accelerometer (in_accel_{x,y,z}_raw) and a gyroscope (in_anglvel_{x,y,z}_raw) among
/// the iio:device* entries under the root (one device may hold both), scales each raw value
/// (in_accel_scale or the per-axis in_accel_x_scale, plus an optional offset), and at the
/// interval the engine sets fuses them into device-motion samples in the device's own frame: see
/// GravityFilter for the axes, the signs and the filter. Mounting alignment into the vehicle's
/// frame is not done here.
///
/// Threading contract: the MotionManager calls come from the host's thread; samples are read
/// on a thread of the manager's and posted to the engine's queue; after
/// stopDeviceMotionUpdates() or the session's end, no further sample reaches the handler.
/// A read that fails delivers an error (code 1, the file and the reason) instead of a sample.
class KESTRELVUE_EXPORT IioMotionManager final : public platform::MotionManager {
public:
    explicit IioMotionManager(IioOptions options = {});
    ~IioMotionManager() override;
    IioMotionManager(const IioMotionManager&) = delete;
    IioMotionManager& operator=(const IioMotionManager&) = delete;

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

    /// The devices found ("iio:device0" and so on; both the same for one IMU), empty when none.
    std::string accelerometer() const;
    std::string gyroscope() const;
    /// Reads the six channels once; the error names the file and the reason.
    std::optional<IioReading> read(std::string* error = nullptr) const;
    /// The orientation the latest sample's gravity shows (unknown before the first).
    platform::DeviceOrientation orientation() const;
    /// Samples delivered since construction.
    std::size_t samples() const;

private:
    struct Channels;
    void run(std::uint64_t session, const std::shared_ptr<platform::Executor>& queue,
             std::function<void(const std::optional<platform::DeviceMotion>&,
                                const std::optional<platform::MotionError>&)>
                 deliver);

    const IioOptions options_;
    std::unique_ptr<Channels> channels_;  // null when no sensors were found
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    double interval_ = 0.01;
    bool showsDisplay_ = false;
    std::uint64_t session_ = 0, lastSession_ = 0;
    platform::DeviceOrientation orientation_ = platform::DeviceOrientation::unknown;
    std::size_t samples_ = 0;
    std::thread reader_;  // last: ends before the members it uses
};

/// The device seam answered from an IIO manager's gravity.
class KESTRELVUE_EXPORT IioDevice final : public platform::Device {
public:
    explicit IioDevice(std::shared_ptr<const IioMotionManager> motion)
        : motion_(std::move(motion)) {}
    platform::DeviceOrientation orientation() const override { return motion_->orientation(); }

private:
    std::shared_ptr<const IioMotionManager> motion_;
};

}  // namespace kestrelvue::posix
