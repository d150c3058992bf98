#pragma once
// From an IMU's raw specific force and rates to the phone platforms' device-motion sample.

#include <kestrelvue/platform/Device.h>
#include <kestrelvue/platform/MotionManager.h>

#include <optional>

namespace kestrelvue::posix {

/// Standard gravity, m/s² per g.
inline constexpr double kStandardGravity = 9.80665;

/// One IMU reading in the device's own axes, as IIO gives it: specific force in m/s² (lying
/// still face up, z reads about +9.81) and rotation rates in rad/s, right-handed.
struct ImuReading {
    Vector3 accel;
    Vector3 gyro;
};

/// A complementary filter over gravity's direction in the device frame.
///
/// Each step turns the last gravity estimate by the measured rotation (the gyroscope is trusted
/// over the short term), then pulls it towards the measured acceleration with a weight of
/// dt / timeConstant (the accelerometer is trusted over the long term). While the acceleration's
/// magnitude is far from 1 g the vehicle is braking, accelerating or turning hard, and the pull
/// fades to nothing, so a manoeuvre does not tilt the estimate.
///
/// Output in the phone platforms' meaning: gravity and user acceleration in g with gravity
/// pointing down (face up: (0, 0, -1)), user acceleration = total - gravity, attitude (pitch,
/// roll, yaw) with pitch = asin(-gravity.y), roll = atan2(-gravity.x, -gravity.z) and yaw the
/// rotation about the vertical integrated from the rates (counter-clockwise from above positive,
/// starting at 0: the reference frame is xArbitraryZVertical).
class GravityFilter {
public:
    explicit GravityFilter(double timeConstantSeconds = 60.0, double rejectAboveG = 0.05);

    /// `dt` is the time since the previous reading in seconds (ignored for the first).
    platform::DeviceMotion update(const ImuReading& reading, double dt);
    void reset();

private:
    double timeConstant_, rejectAbove_;
    std::optional<Vector3> gravity_;  // unit, pointing down, device frame
    double yaw_ = 0;

    platform::DeviceMotion sample(const ImuReading& reading, const Vector3& total,
                                  const Vector3& gravity) const;
};

/// The device's orientation as its gravity shows it: face up or down when gravity is mostly
/// along z, portrait or landscape when mostly along y or x, unknown in between.
platform::DeviceOrientation orientationFromGravity(const Vector3& gravity);

}  // namespace kestrelvue::posix
