#pragma once
// A motion manager that turns each sample from the phone's axes into the car's before the engine
// sees it. The detectors read the phone's axes as if it lay face up with its top towards the
// front (x to the left, y to the back, z up); a phone in a holder lies at any angle. Opt-in: an
// engine given the platform's manager unwrapped reads the axes as they come.

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/MotionManager.h>

#include <memory>
#include <optional>

namespace kestrelvue {
struct Environment;
}

namespace kestrelvue::platform {

/// How the phone lies in the car, in radians: turned by `yaw` about the car's vertical (to the
/// left), then tilted by `pitch` about its own x axis (top up), then by `roll` about its own
/// y axis. All zero: face up, top to the front.
struct KESTRELVUE_EXPORT MountingAngles {
    double pitch = 0, roll = 0, yaw = 0;
};

/// Wraps any motion manager. With fixed angles it rotates every sample by them. Estimating, it
/// takes pitch and roll from gravity while the phone is still, and yaw from the first sustained
/// straight acceleration or braking whose speed change the fixes confirm, or from the first turn
/// (its sideways push points to the turn's centre; no fix needed, as in a tunnel); until yaw is
/// known it passes only what does not depend on it (vertical acceleration, yaw rate), so nothing
/// is charged to the wrong kind. A jump in gravity (the phone moved in its holder) starts the
/// estimate again. The attitude handed on is the aligned one (pitch and roll from the aligned
/// gravity, the yaw as measured).
///
/// Threading: as the inner manager; samples are aligned on the thread that delivers them, fixes
/// may come from any thread.
class KESTRELVUE_EXPORT MountingAlignment final : public MotionManager {
public:
    /// Rotates by fixed angles.
    MountingAlignment(std::shared_ptr<MotionManager> inner, MountingAngles angles);
    /// Estimates the rotation from the samples and the fixes (locationsDidUpdate).
    explicit MountingAlignment(std::shared_ptr<MotionManager> inner);
    ~MountingAlignment() override;

    /// The rotation in use: the fixed angles, or the estimate; nullopt while estimating until
    /// both gravity and yaw are known.
    std::optional<MountingAngles> rotation() const;

    /// A sample as it would be handed on now.
    DeviceMotion align(const DeviceMotion& sample) const;

    bool isDeviceMotionAvailable() const override;
    bool isDeviceMotionActive() const override;
    double deviceMotionUpdateInterval() const override;
    void setDeviceMotionUpdateInterval(double seconds) override;
    bool showsDeviceMovementDisplay() const override;
    void setShowsDeviceMovementDisplay(bool value) override;
    AsyncRequest startDeviceMotionUpdates(AttitudeReferenceFrame frame,
                                          std::shared_ptr<Executor> queue,
                                          DeviceMotionHandler handler) override;
    void stopDeviceMotionUpdates() override;
    void locationsDidUpdate(const std::vector<Location>& fixes) override;

    struct State;

private:
    std::shared_ptr<MotionManager> inner_;
    std::shared_ptr<State> state_;
};

/// Wraps every motion manager `environment` makes: with `angles` fixed, else estimating.
KESTRELVUE_EXPORT void useMountingAlignment(Environment& environment,
                                            std::optional<MountingAngles> angles);

}  // namespace kestrelvue::platform
