#include <kestrelvue/Environment.h>
#include <kestrelvue/platform/MountingAlignment.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <vector>

namespace kestrelvue::platform {
namespace {

constexpr double kG = 9.80665;
// Gravity this far (15 degrees; the cosine squared) from the settled one, sample after sample:
// the phone moved.
constexpr double kMovedCos2 = 0.966 * 0.966;
constexpr int kMovedSamples = 3;
// A still phone (below 0.05 g and 0.1 rad/s, squared): the settled gravity follows it a step
// every few samples, and the rotation is rebuilt when it has drifted by a degree.
constexpr double kStill2 = 0.05 * 0.05, kStillRotation2 = 0.1 * 0.1, kGravityFollow = 0.2;
constexpr int kSettleEvery = 4;
constexpr double kRebuildCos = 0.99985;
// A stretch between two fixes counts towards yaw when the speed changed by this much a second
// (half a metre per second squared), the car hardly turned, and the phone felt a horizontal
// acceleration agreeing with the change within a factor of two; two in a row of one sign make it
// sustained.
constexpr double kSpeedChange = 0.5, kStraightYawRate = 0.08, kLongestFixGap = 3.0;
constexpr int kSustained = 2;
// A turn (the car's yaw rate above a tenth of a radian a second) pushes the phone towards the
// turn's centre, to the car's left when turning left: the sign of the yaw rate times the
// horizontal acceleration points to the car's left whether the fixes come or not (a tunnel).
// While yaw is not known, a window of a second and a half, turning throughout, that felt at
// least 0.05 g on average gives it.
constexpr double kTurning = 0.1, kTurnSeconds = 1.5, kTurnFelt = 0.05;
// A sustained run more than 30 degrees from the yaw estimated so far starts it again.
constexpr double kSameYawCos = 0.866;

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

/// The rotation as it is handed on: its matrix and how much of it is known.
struct Rotation {
    Matrix matrix;
    bool gravityKnown = true, yawKnown = true;
};

/// Pitch and roll of an aligned sample, kept while gravity stays within a hundredth of a g:
/// the trigonometry would cost more than everything else the alignment does.
struct AttitudeCache {
    Vector3 gravity{NAN, NAN, NAN};
    double pitch = 0, roll = 0;
};

/// Writes `s` turned by `r` into `out` (never `s` itself).
void turn(const DeviceMotion& s, const Rotation& r, AttitudeCache* cache, DeviceMotion& out) {
    if (!r.gravityKnown) {
        out = s;
        return;
    }
    out.gravity = r.matrix * s.gravity;
    out.userAcceleration = r.matrix * s.userAcceleration;
    out.rotationRate = r.matrix * s.rotationRate;
    if (!r.yawKnown) {
        // Which way is forward is not known yet: only what does not depend on it goes on.
        out.userAcceleration.x = out.userAcceleration.y = 0;
        out.rotationRate.x = out.rotationRate.y = 0;
    }
    double pitch = 0, roll = 0;
    const auto near = [&](const Vector3& c) {
        const Vector3 d{s.gravity.x - c.x, s.gravity.y - c.y, s.gravity.z - c.z};
        return dot(d, d) < 1e-4;  // NaN, before the first, is never near
    };
    if (cache && near(cache->gravity)) {
        pitch = cache->pitch, roll = cache->roll;
    } else {
        const Vector3& g = out.gravity;
        const double n = norm(g);
        pitch = n > 0 ? std::asin(std::clamp(-g.y / n, -1.0, 1.0)) : 0.0;
        roll = std::atan2(-g.x, -g.z);
        if (cache) *cache = {s.gravity, pitch, roll};
    }
    out.attitude = {pitch, roll, s.attitude.z};
}

}  // namespace

/// The estimate lives on the thread that delivers samples and is touched by nothing else, so a
/// sample takes no lock: fixes wait in a mailbox it empties, and the rotation is published for
/// other threads only when it changes.
struct MountingAlignment::State {
    bool estimating = true;
    // The sample thread's.
    Rotation working;
    AttitudeCache attitude;
    // The sample handed on, written in place each time: the handler takes an optional, and
    // making one per sample would copy the sample once more.
    std::optional<DeviceMotion> out{DeviceMotion{}};
    bool gravityKnown = false, yawKnown = false;
    Vector3 gravity;      // settled gravity, phone axes, unit
    Vector3 gravityUsed;  // the one `levelled` was built from
    Matrix levelled;      // phone axes to a level frame of unknown yaw
    int moved = 0, still = 0;
    double backX = 0, backY = 0;  // the car's back in the level frame, summed over the evidence
    // Between two fixes: the level horizontal acceleration and yaw rate summed.
    double sumX = 0, sumY = 0, sumYawRate = 0;
    int samples = 0;
    std::optional<Location> lastFix;
    int runSign = 0, runLength = 0;
    double runX = 0, runY = 0;
    // The window of samples under way: the car's left summed over its turning samples.
    double turnX = 0, turnY = 0;
    int turnSamples = 0, windowSamples = 0;
    // Seconds a sample stands for (a hundredth until a session says), written by the thread
    // that starts a session while a straggling sample of the last one may still run; and the
    // samples a window holds.
    std::atomic<double> interval{0.01};
    double windowInterval = 0;  // the interval turnWindow was counted for
    int turnWindow = 1;
    double backUsedX = 0, backUsedY = 0;  // the back the rotation in use was built from, unit

    // The mailbox of fixes.
    std::atomic<bool> fixesWaiting{false};
    std::mutex fixesMutex;
    std::vector<Location> fixes;
    std::vector<Location> arrived;  // the sample thread's, swapped with `fixes`

    // What other threads read.
    mutable std::mutex publishedMutex;
    Rotation published;

    void publish() {
        working.gravityKnown = gravityKnown;
        working.yawKnown = yawKnown;
        working.matrix = levelled;
        if (yawKnown) {
            // Turned about the vertical until the back lies along y: the cosine and sine of
            // that angle are the back's own components.
            const double r = std::sqrt(backX * backX + backY * backY);
            backUsedX = backX / r, backUsedY = backY / r;
            working.matrix =
                Matrix{{{backUsedY, -backUsedX, 0}, {backUsedX, backUsedY, 0}, {0, 0, 1}}} *
                levelled;
        }
        attitude = {};
        std::lock_guard lock(publishedMutex);
        published = working;
    }

    void restart(const Vector3& g) {
        gravity = gravityUsed = g;
        gravityKnown = true;
        yawKnown = false;
        levelled = levelling(g);
        backX = backY = sumX = sumY = sumYawRate = runX = runY = turnX = turnY = 0;
        samples = runLength = runSign = moved = still = turnSamples = windowSamples = 0;
        publish();
    }

    void settle(const Vector3& g) {
        const Vector3 mixed{gravity.x + (g.x - gravity.x) * kGravityFollow,
                            gravity.y + (g.y - gravity.y) * kGravityFollow,
                            gravity.z + (g.z - gravity.z) * kGravityFollow};
        const double n = norm(mixed);
        if (!(n > 0)) return;
        gravity = {mixed.x / n, mixed.y / n, mixed.z / n};
        if (dot(gravity, gravityUsed) < kRebuildCos) {
            gravityUsed = gravity;
            levelled = levelling(gravity);
            publish();
        }
    }

    /// Turns a sample into `out`, learning from it while estimating. On the sample thread.
    void take(const DeviceMotion& s) {
        if (estimating) learn(s);
        turn(s, working, &attitude, *out);
    }

    /// Learns from a sample. On the sample thread.
    void learn(const DeviceMotion& s) {
        if (fixesWaiting.load(std::memory_order_acquire)) {
            {
                std::lock_guard lock(fixesMutex);
                arrived.swap(fixes);
                fixesWaiting.store(false, std::memory_order_relaxed);
            }
            for (const Location& fix : arrived) takeFix(fix);
            arrived.clear();  // both keep their room: no allocation after the first fixes
        }
        const double n2 = dot(s.gravity, s.gravity);
        if (n2 > 0.25 && n2 < 2.25) {
            if (!gravityKnown) {
                const double n = std::sqrt(n2);
                restart({s.gravity.x / n, s.gravity.y / n, s.gravity.z / n});
            } else if (const double c = dot(s.gravity, gravity); c < 0 || c * c < kMovedCos2 * n2) {
                if (++moved >= kMovedSamples) {
                    const double n = std::sqrt(n2);
                    restart({s.gravity.x / n, s.gravity.y / n, s.gravity.z / n});
                }
            } else {
                moved = 0;
                // Gravity follows the phone while it is still, a step every few samples.
                if (dot(s.userAcceleration, s.userAcceleration) < kStill2 &&
                    dot(s.rotationRate, s.rotationRate) < kStillRotation2 &&
                    ++still % kSettleEvery == 0) {
                    const double n = std::sqrt(n2);
                    settle({s.gravity.x / n, s.gravity.y / n, s.gravity.z / n});
                }
            }
        }
        if (gravityKnown) {
            const auto& m = levelled.m;
            const Vector3& a = s.userAcceleration;
            const double x = m[0][0] * a.x + m[0][1] * a.y + m[0][2] * a.z;
            const double y = m[1][0] * a.x + m[1][1] * a.y + m[1][2] * a.z;
            const double yawRate = m[2][0] * s.rotationRate.x + m[2][1] * s.rotationRate.y +
                                   m[2][2] * s.rotationRate.z;
            sumX += x;
            sumY += y;
            sumYawRate += std::fabs(yawRate);
            ++samples;
            // Turns matter only until yaw is known (a push into a turn is bent by braking; the
            // fixes refine it). Summed towards the car's left while turning, without branches
            // (noisy yaw rates would mispredict them sample after sample); looked at once a
            // window.
            if (!yawKnown) {
                const bool turning = std::fabs(yawRate) >= kTurning;
                const double side = turning ? std::copysign(1.0, yawRate) : 0.0;
                turnX += side * x;
                turnY += side * y;
                turnSamples += turning ? 1 : 0;
                if (const double seconds = interval.load(std::memory_order_relaxed);
                    seconds != windowInterval) {
                    windowInterval = seconds;
                    turnWindow =
                        std::max(1, static_cast<int>(std::ceil(kTurnSeconds / seconds - 1e-9)));
                }
                if (++windowSamples >= turnWindow) takeWindow();
            }
        }
    }

    /// A window of samples: a turn if every one of them turned, and its push towards the car's
    /// left, if any. On the sample thread.
    void takeWindow() {
        const double x = turnX, y = turnY, n = turnSamples;
        const bool turn = turnSamples == windowSamples;
        turnX = turnY = 0;
        turnSamples = windowSamples = 0;
        if (!turn) return;
        // Turning in place (a car hardly moving, or the phone turned in its holder) pushes
        // nothing sideways: the average push, n times over, against the least.
        if (x * x + y * y < kTurnFelt * kTurnFelt * n * n) return;
        // The back is the left turned a quarter clockwise; the average push weighed by the
        // seconds it covers (the sum times the interval), as a run of fixes is.
        learnBack(-y * windowInterval, x * windowInterval);
    }

    /// Evidence of where the car's back lies in the level frame.
    void learnBack(double x, double y) {
        // Evidence far from the yaw known so far: the phone was turned in its holder, which
        // gravity does not show when it turns about the vertical, and the new evidence alone
        // counts.
        // Angles are compared as squared cosines: no root on the way.
        const double known2 = backX * backX + backY * backY, agree = backX * x + backY * y;
        if (known2 > 0 &&
            (agree < 0 || agree * agree < kSameYawCos * kSameYawCos * known2 * (x * x + y * y))) {
            backX = backY = 0;
        }
        backX += x;
        backY += y;
        const double r2 = backX * backX + backY * backY;
        if (!(r2 > 0)) return;
        // Evidence mostly agrees with what is known: the rotation is rebuilt only when it moved
        // the yaw by a degree, as for gravity.
        const double kept = backX * backUsedX + backY * backUsedY;
        if (yawKnown && kept > 0 && kept * kept >= kRebuildCos * kRebuildCos * r2) return;
        yawKnown = true;
        publish();
    }

    /// A fix: the speed change since the last one, against what the phone felt. On the sample
    /// thread.
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
        const double feltX = x / n, feltY = y / n,
                     felt = std::sqrt(feltX * feltX + feltY * feltY) * kG;
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
        learnBack(runX, runY);
        runX = runY = 0;
        runLength = 0;
    }
};

MountingAlignment::MountingAlignment(std::shared_ptr<MotionManager> inner, MountingAngles angles)
    : inner_(std::move(inner)), state_(std::make_shared<State>()) {
    state_->estimating = false;
    // The phone's axes in the car's are aboutZ(yaw) aboutX(pitch) aboutY(roll); a sample is
    // turned back by the same product.
    state_->working.matrix = aboutZ(angles.yaw) * aboutX(angles.pitch) * aboutY(angles.roll);
    state_->published = state_->working;
}

MountingAlignment::MountingAlignment(std::shared_ptr<MotionManager> inner)
    : inner_(std::move(inner)), state_(std::make_shared<State>()) {
    state_->working.gravityKnown = state_->working.yawKnown = false;
    state_->published = state_->working;
}

MountingAlignment::~MountingAlignment() = default;

std::optional<MountingAngles> MountingAlignment::rotation() const {
    Rotation r;
    {
        std::lock_guard lock(state_->publishedMutex);
        r = state_->published;
    }
    if (!r.gravityKnown || !r.yawKnown) return std::nullopt;
    const auto& m = r.matrix.m;
    return MountingAngles{std::asin(std::clamp(m[2][1], -1.0, 1.0)), std::atan2(-m[2][0], m[2][2]),
                          std::atan2(-m[0][1], m[1][1])};
}

DeviceMotion MountingAlignment::align(const DeviceMotion& sample) const {
    Rotation r;
    {
        std::lock_guard lock(state_->publishedMutex);
        r = state_->published;
    }
    DeviceMotion out;
    turn(sample, r, nullptr, out);
    return out;
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
    // The interval is set before a session starts; samples come only after.
    if (const double interval = inner_->deviceMotionUpdateInterval(); interval > 0)
        state_->interval.store(interval, std::memory_order_relaxed);
    // The inner session owns this handler: ending it ends ours.
    return inner_->startDeviceMotionUpdates(
        frame, std::move(queue),
        [state = state_, handler = std::move(handler)](const std::optional<DeviceMotion>& motion,
                                                       const std::optional<MotionError>& error) {
            if (!motion) return handler(motion, error);
            state->take(*motion);
            handler(state->out, error);
        });
}

void MountingAlignment::locationsDidUpdate(const std::vector<Location>& fixes) {
    if (state_->estimating && !fixes.empty()) {
        std::lock_guard lock(state_->fixesMutex);
        state_->fixes.insert(state_->fixes.end(), fixes.begin(), fixes.end());
        state_->fixesWaiting.store(true, std::memory_order_release);
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
