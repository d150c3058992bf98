#include <kestrelvue/Environment.h>
#include <kestrelvue/platform/MountingAlignment.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <mutex>

namespace kestrelvue::platform {
namespace {

constexpr double kG = 9.80665;
// Gravity this far (cos of 25 degrees) from the settled one, sample after sample: the phone moved.
constexpr double kMovedCos = 0.906;
constexpr int kMovedSamples = 3;
// A still phone: the settled gravity follows it slowly, and the rotation is rebuilt when it has
// drifted by a degree.
constexpr double kStillAcceleration = 0.05, kStillRotation = 0.1, kGravityFollow = 0.05;
constexpr double kRebuildCos = 0.99985;
// A stretch between two fixes counts towards yaw when the speed changed by this much a second
// (half a metre per second squared), the car hardly turned, and the phone felt a horizontal
// acceleration agreeing with the change within a factor of two; two in a row of one sign make it
// sustained.
constexpr double kSpeedChange = 0.5, kStraightYawRate = 0.08, kLongestFixGap = 3.0;
constexpr int kSustained = 2;

struct Matrix {
    double m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};

    Vector3 operator*(const Vector3& v) const {
        return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z,
                m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
                m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
    }
    Matrix operator*(const Matrix& o) const {
        Matrix r;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                r.m[i][j] = m[i][0] * o.m[0][j] + m[i][1] * o.m[1][j] + m[i][2] * o.m[2][j];
        return r;
    }
};

Matrix aboutX(double a) {
    return {{{1, 0, 0}, {0, std::cos(a), -std::sin(a)}, {0, std::sin(a), std::cos(a)}}};
}
Matrix aboutY(double a) {
    return {{{std::cos(a), 0, std::sin(a)}, {0, 1, 0}, {-std::sin(a), 0, std::cos(a)}}};
}
Matrix aboutZ(double a) {
    return {{{std::cos(a), -std::sin(a), 0}, {std::sin(a), std::cos(a), 0}, {0, 0, 1}}};
}

double dot(const Vector3& a, const Vector3& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
double norm(const Vector3& v) {
    return std::sqrt(dot(v, v));
}

/// The shortest rotation taking the unit vector `g` to straight down.
Matrix levelling(const Vector3& g) {
    // v = g x down, c = g . down, R = I + [v] + [v]^2 / (1 + c).
    const Vector3 v{-g.y, g.x, 0.0};
    const double c = -g.z;
    if (c < -0.9999) return aboutX(M_PI);  // face down: turn it over
    const double k = 1.0 / (1.0 + c);
    Matrix r;
    r.m[0][0] = 1 - k * v.y * v.y;
    r.m[0][1] = k * v.x * v.y;
    r.m[0][2] = v.y;
    r.m[1][0] = k * v.x * v.y;
    r.m[1][1] = 1 - k * v.x * v.x;
    r.m[1][2] = -v.x;
    r.m[2][0] = -v.y;
    r.m[2][1] = v.x;
    r.m[2][2] = 1 - k * (v.x * v.x + v.y * v.y);
    return r;
}

}  // namespace

struct MountingAlignment::State {
    mutable std::mutex mutex;
    bool estimating = true;
    Matrix rotation;  // phone axes to car axes, complete when `yawKnown`
    bool gravityKnown = false, yawKnown = false;
    Vector3 gravity;      // settled gravity, phone axes, unit
    Vector3 gravityUsed;  // the one `levelled` was built from
    Matrix levelled;      // phone axes to a level frame of unknown yaw
    int moved = 0;
    double backX = 0, backY = 0;  // the car's back in the level frame, summed over the evidence
    // Between two fixes: the level horizontal acceleration and yaw rate summed.
    double sumX = 0, sumY = 0, sumYawRate = 0;
    int samples = 0;
    std::optional<Location> lastFix;
    int runSign = 0, runLength = 0;
    double runX = 0, runY = 0;

    void restart(const Vector3& g) {
        gravity = gravityUsed = g;
        gravityKnown = true;
        yawKnown = false;
        levelled = rotation = levelling(g);
        backX = backY = sumX = sumY = sumYawRate = runX = runY = 0;
        samples = runLength = runSign = moved = 0;
    }

    void settle(const Vector3& g) {
        Vector3 mixed{gravity.x + (g.x - gravity.x) * kGravityFollow,
                      gravity.y + (g.y - gravity.y) * kGravityFollow,
                      gravity.z + (g.z - gravity.z) * kGravityFollow};
        const double n = norm(mixed);
        if (!(n > 0)) return;
        gravity = {mixed.x / n, mixed.y / n, mixed.z / n};
        if (dot(gravity, gravityUsed) < kRebuildCos) {
            gravityUsed = gravity;
            levelled = levelling(gravity);
            rotation = yawKnown ? aboutZ(std::atan2(backX, backY)) * levelled : levelled;
        }
    }

    /// Learns from a sample and returns it aligned. Under the mutex.
    DeviceMotion take(const DeviceMotion& s) {
        if (estimating) {
            const double n = norm(s.gravity);
            if (n > 0.5 && n < 1.5) {
                const Vector3 g{s.gravity.x / n, s.gravity.y / n, s.gravity.z / n};
                if (!gravityKnown) {
                    restart(g);
                } else if (dot(g, gravity) < kMovedCos) {
                    if (++moved >= kMovedSamples) restart(g);
                } else {
                    moved = 0;
                    if (norm(s.userAcceleration) < kStillAcceleration &&
                        norm(s.rotationRate) < kStillRotation)
                        settle(g);
                }
            }
            if (gravityKnown) {
                const Vector3 a = levelled * s.userAcceleration;
                sumX += a.x;
                sumY += a.y;
                const Vector3 up{levelled.m[2][0], levelled.m[2][1], levelled.m[2][2]};
                sumYawRate += std::fabs(dot(s.rotationRate, up));
                ++samples;
            }
        }
        return aligned(s);
    }

    DeviceMotion aligned(const DeviceMotion& s) const {
        if (estimating && !gravityKnown) return s;
        DeviceMotion out;
        out.gravity = rotation * s.gravity;
        out.userAcceleration = rotation * s.userAcceleration;
        out.rotationRate = rotation * s.rotationRate;
        if (estimating && !yawKnown) {
            // Which way is forward is not known yet: only what does not depend on it goes on.
            out.userAcceleration.x = out.userAcceleration.y = 0;
            out.rotationRate.x = out.rotationRate.y = 0;
        }
        const Vector3& g = out.gravity;
        const double n = norm(g);
        out.attitude = {n > 0 ? std::asin(std::clamp(-g.y / n, -1.0, 1.0)) : 0.0,
                        std::atan2(-g.x, -g.z), s.attitude.z};
        return out;
    }

    /// A fix: the speed change since the last one, against what the phone felt. Under the mutex.
    void takeFix(const Location& fix) {
        const std::optional<Location> last = lastFix;
        const double x = sumX, y = sumY, yawRate = sumYawRate;
        const int n = samples;
        lastFix = fix;
        sumX = sumY = sumYawRate = 0;
        samples = 0;
        if (!estimating || !gravityKnown || !last || n == 0 || fix.speed < 0 || last->speed < 0)
            return;
        const double dt = std::chrono::duration<double>(fix.timestamp - last->timestamp).count();
        if (!(dt > 0) || dt > kLongestFixGap) return;
        const double change = (fix.speed - last->speed) / dt;  // m/s^2
        const double feltX = x / n, feltY = y / n, felt = std::hypot(feltX, feltY) * kG;
        const bool counts = std::fabs(change) >= kSpeedChange && yawRate / n < kStraightYawRate &&
                            felt > std::fabs(change) / 2 && felt < std::fabs(change) * 2;
        const int sign = change < 0 ? 1 : -1;  // braking pushes the phone to the car's back
        if (!counts || sign != runSign) {
            runLength = 0;
            runX = runY = 0;
        }
        runSign = counts ? sign : 0;
        if (!counts) return;
        runX += sign * feltX;
        runY += sign * feltY;
        if (++runLength < kSustained) return;
        backX += runX;
        backY += runY;
        runX = runY = 0;
        runLength = 0;
        yawKnown = true;
        rotation = aboutZ(std::atan2(backX, backY)) * levelled;
    }
};

MountingAlignment::MountingAlignment(std::shared_ptr<MotionManager> inner, MountingAngles angles)
    : inner_(std::move(inner)), state_(std::make_shared<State>()) {
    state_->estimating = false;
    // The phone's axes in the car's are aboutZ(yaw) aboutX(pitch) aboutY(roll); a sample is
    // turned back by the same product.
    state_->rotation = aboutZ(angles.yaw) * aboutX(angles.pitch) * aboutY(angles.roll);
}

MountingAlignment::MountingAlignment(std::shared_ptr<MotionManager> inner)
    : inner_(std::move(inner)), state_(std::make_shared<State>()) {}

MountingAlignment::~MountingAlignment() = default;

std::optional<MountingAngles> MountingAlignment::rotation() const {
    std::lock_guard lock(state_->mutex);
    if (state_->estimating && !state_->yawKnown) return std::nullopt;
    const auto& m = state_->rotation.m;
    return MountingAngles{std::asin(std::clamp(m[2][1], -1.0, 1.0)), std::atan2(-m[2][0], m[2][2]),
                          std::atan2(-m[0][1], m[1][1])};
}

DeviceMotion MountingAlignment::align(const DeviceMotion& sample) const {
    std::lock_guard lock(state_->mutex);
    return state_->aligned(sample);
}

bool MountingAlignment::isDeviceMotionAvailable() const {
    return inner_->isDeviceMotionAvailable();
}
bool MountingAlignment::isDeviceMotionActive() const {
    return inner_->isDeviceMotionActive();
}
double MountingAlignment::deviceMotionUpdateInterval() const {
    return inner_->deviceMotionUpdateInterval();
}
void MountingAlignment::setDeviceMotionUpdateInterval(double seconds) {
    inner_->setDeviceMotionUpdateInterval(seconds);
}
bool MountingAlignment::showsDeviceMovementDisplay() const {
    return inner_->showsDeviceMovementDisplay();
}
void MountingAlignment::setShowsDeviceMovementDisplay(bool value) {
    inner_->setShowsDeviceMovementDisplay(value);
}
void MountingAlignment::stopDeviceMotionUpdates() {
    inner_->stopDeviceMotionUpdates();
}

AsyncRequest MountingAlignment::startDeviceMotionUpdates(AttitudeReferenceFrame frame,
                                                         std::shared_ptr<Executor> queue,
                                                         DeviceMotionHandler handler) {
    // The inner session owns this handler: ending it ends ours.
    return inner_->startDeviceMotionUpdates(
        frame, std::move(queue),
        [state = state_, handler = std::move(handler)](const std::optional<DeviceMotion>& motion,
                                                       const std::optional<MotionError>& error) {
            if (!motion) return handler(motion, error);
            std::optional<DeviceMotion> aligned;
            {
                std::lock_guard lock(state->mutex);
                aligned = state->take(*motion);
            }
            handler(aligned, error);
        });
}

void MountingAlignment::locationsDidUpdate(const std::vector<Location>& fixes) {
    {
        std::lock_guard lock(state_->mutex);
        for (const Location& fix : fixes) state_->takeFix(fix);
    }
    inner_->locationsDidUpdate(fixes);
}

void useMountingAlignment(Environment& environment, std::optional<MountingAngles> angles) {
    auto make = environment.makeMotionManager;
    environment.makeMotionManager = [make = std::move(make),
                                     angles]() -> std::shared_ptr<MotionManager> {
        std::shared_ptr<MotionManager> inner = make ? make() : nullptr;
        if (!inner) return inner;
        if (angles) return std::make_shared<MountingAlignment>(std::move(inner), *angles);
        return std::make_shared<MountingAlignment>(std::move(inner));
    };
}

}  // namespace kestrelvue::platform
