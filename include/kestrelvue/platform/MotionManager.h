#pragma once
// The device-motion seam.

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/AsyncRequest.h>
#include <kestrelvue/platform/Executor.h>
#include <kestrelvue/platform/Location.h>
#include <kestrelvue/platform/Vector3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvue::platform {

/// One device-motion sample. The attitude holds (pitch, roll, yaw) in radians; rotation rates are
/// in radians per second; accelerations in units of g (userAcceleration has gravity removed).
struct KESTRELVUE_EXPORT DeviceMotion {
    Vector3 attitude;
    Vector3 rotationRate;
    Vector3 userAcceleration;
    Vector3 gravity;
};

/// The reference frame of the attitude. The engine always asks for xArbitraryZVertical.
enum class AttitudeReferenceFrame {
    xArbitraryZVertical,
    xArbitraryCorrectedZVertical,
    xMagneticNorthZVertical,
    xTrueNorthZVertical,
};

struct KESTRELVUE_EXPORT MotionError {
    std::int64_t code = 0;
    std::string description;
};

/// Receives every sample; either argument may be absent.
using DeviceMotionHandler = std::function<void(const std::optional<DeviceMotion>& motion,
                                               const std::optional<MotionError>& error)>;

/// Threading contract: called from the host's thread. startDeviceMotionUpdates() returns at once;
/// the handler runs later, once per sample, as a task posted to `queue` (never inside a call of
/// this interface). After stopDeviceMotionUpdates() returns, no further sample of that session
/// reaches the handler, including samples already queued.
/// Lifetime: the session returned by startDeviceMotionUpdates() owns the handler. Once it is
/// destroyed or cancelled, the handler is not called again (and a call running on another thread
/// has returned), whether or not the updates were stopped.
class KESTRELVUE_EXPORT MotionManager {
public:
    virtual ~MotionManager() = default;

    virtual bool isDeviceMotionAvailable() const = 0;
    virtual bool isDeviceMotionActive() const = 0;

    /// Seconds between samples.
    virtual double deviceMotionUpdateInterval() const = 0;
    virtual void setDeviceMotionUpdateInterval(double seconds) = 0;

    virtual bool showsDeviceMovementDisplay() const = 0;
    virtual void setShowsDeviceMovementDisplay(bool value) = 0;

    /// Replaces any running session.
    virtual AsyncRequest startDeviceMotionUpdates(AttitudeReferenceFrame frame,
                                                  std::shared_ptr<Executor> queue,
                                                  DeviceMotionHandler handler) = 0;
    virtual void stopDeviceMotionUpdates() = 0;

    /// The fixes the engine was given while a trip runs, after it took them. A manager that reads
    /// them (the mounting alignment takes speed changes from them) overrides this; the others
    /// ignore them.
    virtual void locationsDidUpdate(const std::vector<Location>& fixes) { (void)fixes; }
};

}  // namespace kestrelvue::platform
