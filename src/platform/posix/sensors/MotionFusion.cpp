#include "platform/posix/sensors/MotionFusion.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kestrelvue::posix {

namespace {

Vector3 operator+(Vector3 a, Vector3 b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
Vector3 operator-(Vector3 a, Vector3 b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
Vector3 operator*(double k, Vector3 a) {
    return {k * a.x, k * a.y, k * a.z};
}
double dot(Vector3 a, Vector3 b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
Vector3 cross(Vector3 a, Vector3 b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
double norm(Vector3 a) {
    return std::sqrt(dot(a, a));
}

/// `v` turned by `angle` about the unit `axis` (Rodrigues).
Vector3 rotate(Vector3 v, Vector3 axis, double angle) {
    const double c = std::cos(angle), s = std::sin(angle);
    return c * v + s * cross(axis, v) + (1 - c) * dot(axis, v) * axis;
}

}  // namespace

GravityFilter::GravityFilter(double timeConstantSeconds, double rejectAboveG)
    : timeConstant_(timeConstantSeconds), rejectAbove_(rejectAboveG) {}

void GravityFilter::reset() {
    gravity_.reset();
    yaw_ = 0;
}

platform::DeviceMotion GravityFilter::update(const ImuReading& reading, double dt) {
    // The phone platforms give the total acceleration with gravity down: minus specific force.
    const Vector3 total = (-1.0 / kStandardGravity) * reading.accel;
    const double magnitude = norm(total);
    const double trust = std::clamp(1.0 - std::abs(magnitude - 1.0) / rejectAbove_, 0.0, 1.0);
    if (!gravity_) {
        // The first reading near 1 g sets the estimate (a vehicle computer starts with the
        // ignition, before the vehicle moves); until then each reading stands for itself.
        const Vector3 guess = magnitude > 0.1 ? (1.0 / magnitude) * total : Vector3{0, 0, -1};
        if (trust > 0) gravity_ = guess;
        return sample(reading, total, guess);
    }
    if (dt > 0 && std::isfinite(dt)) {
        // A direction fixed in the world turns the other way in a frame turning at omega.
        const double rate = norm(reading.gyro);
        if (rate > 0 && std::isfinite(rate))
            gravity_ = rotate(*gravity_, (1.0 / rate) * reading.gyro, -rate * dt);
        const double weight = std::min(1.0, dt / timeConstant_) * trust;
        if (weight > 0) {
            const Vector3 pulled = *gravity_ + weight * ((1.0 / magnitude) * total - *gravity_);
            if (const double n = norm(pulled); n > 0) gravity_ = (1.0 / n) * pulled;
        }
        // Rotation about the vertical (up is minus gravity), counter-clockwise positive.
        yaw_ = std::remainder(yaw_ - dot(reading.gyro, *gravity_) * dt, 2 * std::numbers::pi);
    }
    return sample(reading, total, *gravity_);
}

platform::DeviceMotion GravityFilter::sample(const ImuReading& reading, const Vector3& total,
                                             const Vector3& g) const {
    platform::DeviceMotion out;
    out.gravity = g;
    out.userAcceleration = total - g;
    out.rotationRate = reading.gyro;
    out.attitude = {std::asin(std::clamp(-g.y, -1.0, 1.0)), std::atan2(-g.x, -g.z), yaw_};
    return out;
}

platform::DeviceOrientation orientationFromGravity(const Vector3& gravity) {
    using O = platform::DeviceOrientation;
    // Mostly along one axis: at least cos 30° of the whole.
    constexpr double kMostly = 0.866;
    const double n = norm(gravity);
    if (!(n > 0)) return O::unknown;
    const Vector3 u = (1.0 / n) * gravity;
    if (u.z <= -kMostly) return O::faceUp;
    if (u.z >= kMostly) return O::faceDown;
    if (u.y <= -kMostly) return O::portrait;
    if (u.y >= kMostly) return O::portraitUpsideDown;
    if (u.x <= -kMostly) return O::landscapeLeft;
    if (u.x >= kMostly) return O::landscapeRight;
    return O::unknown;
}

}  // namespace kestrelvue::posix
