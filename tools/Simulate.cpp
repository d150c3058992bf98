#include "Simulate.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <istream>
#include <ostream>
#include <random>
#include <sstream>

#include "Events.h"

namespace kestrelvue::tools {
namespace {

constexpr double kG = 9.81;
constexpr double kStep = 0.01;  // the model's own step: every file rate samples from it
constexpr double kMetresPerDegree = 111'320.0;
constexpr const char* kTruthHeader = "kestrelvue-truth 1";

const char* const kManoeuvreNames[] = {"brake", "accelerate", "corner-left", "corner-right",
                                       "bump",  "lane-left",  "lane-right",  "fuel",
                                       "stop",  "pull-away",  "turn-left",   "turn-right"};

/// One injected manoeuvre as the accelerations it puts on the phone, `tau` seconds into it.
/// The ramps around each peak stay below the mildest band of the shipped reply, so that an
/// event is one episode; peaks start on a half second and hold one, the engine's interval.
struct Pulse {
    double ax = 0, ay = 0, rx = 0, rz = 0;
};

double injectionLength(Manoeuvre m) {
    switch (m) {
        case Manoeuvre::laneLeft:
        case Manoeuvre::laneRight:
            return 3.5;
        case Manoeuvre::fuel:
            return 3.0;
        default:
            return 1.5;
    }
}

Pulse pulse(Manoeuvre m, double magnitude, double tau, double speed) {
    auto shape = [&](double ramp, double peak) { return tau >= 0.5 && tau < 1.0 ? peak : ramp; };
    Pulse p;
    switch (m) {
        case Manoeuvre::brake:
            p.ay = shape(0.10, magnitude);  // braking pushes the phone forwards: +y
            break;
        case Manoeuvre::accelerate:
            p.ay = -shape(0.06, magnitude);
            break;
        case Manoeuvre::cornerLeft:
        case Manoeuvre::cornerRight: {
            const double side = m == Manoeuvre::cornerLeft ? 1.0 : -1.0;
            p.ax = side * shape(0.10, magnitude);
            p.rz = p.ax * kG / std::max(speed, 3.0);
            break;
        }
        case Manoeuvre::bump:
            p.rx = shape(0.2, magnitude);
            p.ay = 0.03;  // the wheels meet the bump: a little deceleration
            break;
        case Manoeuvre::laneLeft:
        case Manoeuvre::laneRight: {
            // The shipped lane-change level is a yaw rate of 1 rad/s: one swing, the swing
            // back, and the rate dying away.
            const double side = m == Manoeuvre::laneLeft ? 1.0 : -1.0;
            p.rz = side * (tau < 1.5 ? magnitude : tau < 3.0 ? -magnitude : -0.3);
            p.ax = side * (tau < 1.5 ? 0.05 : -0.05);
            break;
        }
        case Manoeuvre::fuel:
            p.ay = -(tau >= 0.5 && tau < 2.5 ? magnitude : 0.06);
            break;
        default:
            break;
    }
    return p;
}

/// The peak of an injected manoeuvre, as its truth records it.
TruthEvent peakOf(Manoeuvre m, double start, double magnitude) {
    switch (m) {
        case Manoeuvre::laneLeft:
        case Manoeuvre::laneRight:
            return {start, 3.5, m, magnitude};
        case Manoeuvre::fuel:
            return {start + 0.5, 2.0, m, magnitude};
        default:
            return {start + 0.5, 0.5, m, magnitude};
    }
}

Manoeuvre injectionFor(Kind kind, int turn) {
    switch (kind) {
        case Kind::braking:
            return Manoeuvre::brake;
        case Kind::acceleration:
            return Manoeuvre::accelerate;
        case Kind::cornering:
            return turn % 2 ? Manoeuvre::cornerRight : Manoeuvre::cornerLeft;
        case Kind::elevating:
            return Manoeuvre::bump;
        case Kind::laneChange:
            return turn % 2 ? Manoeuvre::laneRight : Manoeuvre::laneLeft;
        case Kind::fuel:
            return Manoeuvre::fuel;
    }
    return Manoeuvre::brake;
}

double injectedMagnitude(Manoeuvre m, std::mt19937& rng) {
    auto between = [&](double a, double b) { return std::uniform_real_distribution<>(a, b)(rng); };
    switch (m) {
        case Manoeuvre::brake:
            return between(0.30, 0.45);
        case Manoeuvre::accelerate:
            return between(0.28, 0.38);
        case Manoeuvre::cornerLeft:
        case Manoeuvre::cornerRight:
            return between(0.36, 0.50);
        case Manoeuvre::bump:
            return between(0.6, 0.9);
        case Manoeuvre::laneLeft:
        case Manoeuvre::laneRight:
            return between(1.15, 1.4);
        case Manoeuvre::fuel:
            return between(0.17, 0.24);
        default:
            return 0;
    }
}

enum class Mode { cruise, stopping, waiting, pulling, slowing, turning, injecting };

}  // namespace

const char* kindName(Kind kind) {
    // The table's texts are literals, so their data ends in a NUL.
    if (kind == Kind::fuel) return "fuel";
    return detail::namesOf(static_cast<detail::EventKind>(kind)).tool.data();
}

std::optional<Kind> kindNamed(const std::string& name) {
    for (Kind k : kKinds)
        if (name == kindName(k)) return k;
    return std::nullopt;
}

const char* manoeuvreName(Manoeuvre m) {
    return kManoeuvreNames[static_cast<int>(m)];
}

bool isInjected(Manoeuvre m) {
    return static_cast<int>(m) <= static_cast<int>(Manoeuvre::fuel);
}

Kind kindOf(Manoeuvre m) {
    switch (m) {
        case Manoeuvre::brake:
        case Manoeuvre::stop:
            return Kind::braking;
        case Manoeuvre::accelerate:
        case Manoeuvre::pullAway:
            return Kind::acceleration;
        case Manoeuvre::cornerLeft:
        case Manoeuvre::cornerRight:
        case Manoeuvre::turnLeft:
        case Manoeuvre::turnRight:
            return Kind::cornering;
        case Manoeuvre::bump:
            return Kind::elevating;
        case Manoeuvre::laneLeft:
        case Manoeuvre::laneRight:
            return Kind::laneChange;
        case Manoeuvre::fuel:
            return Kind::fuel;
    }
    return Kind::braking;
}

bool mayCause(Manoeuvre m, Kind kind) {
    if (kindOf(m) == kind) return true;
    // Pulling away hard is also fuel-inefficient, and the reverse.
    const Kind k = kindOf(m);
    return (k == Kind::acceleration && kind == Kind::fuel) ||
           (k == Kind::fuel && kind == Kind::acceleration);
}

Simulation simulate(const SimulationOptions& o) {
    Simulation out;
    std::mt19937 rng(o.seed);
    std::normal_distribution<double> gauss(0.0, 0.004);
    auto noise = [&] { return std::clamp(gauss(rng), -0.01, 0.01); };
    auto between = [&](double a, double b) { return std::uniform_real_distribution<>(a, b)(rng); };

    const bool city = o.profile != "motorway";
    const double cruiseSpeed = city ? 13.9 : 30.5;  // 50 and 110 km/h
    const long long steps = std::llround(o.seconds / kStep);
    const long long every = std::max(1LL, std::llround(1.0 / (std::min(o.rate, 100.0) * kStep)));

    double lat = 41.0082, lon = 28.9784, heading = 60.0, speed = 0.0;
    double target = cruiseSpeed, sinceJunction = 0, nextJunction = between(300, 600);
    double nextInjection = o.eventSpacing * between(0.6, 1.4);
    Mode mode = Mode::pulling;
    double a = between(0.08, 0.18), modeStart = 0, modeEnd = 0, turnSide = 1;
    Manoeuvre injecting = Manoeuvre::brake;
    double injectingMagnitude = 0;
    int injectedCount = 0;
    std::size_t ordinary = out.truth.size();
    out.truth.push_back({0, 0, Manoeuvre::pullAway, a});

    auto beginOrdinary = [&](Mode m, double t, Manoeuvre what, double magnitude) {
        mode = m;
        modeStart = t;
        ordinary = out.truth.size();
        out.truth.push_back({t, 0, what, magnitude});
    };
    auto endOrdinary = [&](double t) { out.truth[ordinary].duration = t - out.truth[ordinary].t; };

    for (long long step = 0; step <= steps; ++step) {
        const double t = static_cast<double>(step) * kStep;
        double ax = 0, ay = 0, rx = 0, rz = 0;
        switch (mode) {
            case Mode::cruise: {
                ay = std::clamp((speed - target) * 0.05, -0.05, 0.05);
                const bool halfSecond = step % 50 == 0;
                if (city && sinceJunction >= nextJunction) {
                    if (between(0, 1) < 0.5) {
                        a = between(0.08, 0.18);
                        beginOrdinary(Mode::stopping, t, Manoeuvre::stop, a);
                    } else {
                        a = between(0.08, 0.12);
                        turnSide = between(0, 1) < 0.5 ? 1.0 : -1.0;
                        beginOrdinary(Mode::slowing, t, Manoeuvre::stop, a);
                    }
                } else if (!o.events.empty() && t >= nextInjection && halfSecond && speed > 8.0 &&
                           (!city || nextJunction - sinceJunction > 120)) {
                    const Kind kind = o.events[injectedCount % o.events.size()];
                    injecting = injectionFor(kind, injectedCount / int(o.events.size()));
                    injectingMagnitude = injectedMagnitude(injecting, rng);
                    out.truth.push_back(peakOf(injecting, t, injectingMagnitude));
                    ++injectedCount;
                    mode = Mode::injecting;
                    modeStart = t;
                    modeEnd = t + injectionLength(injecting);
                }
                break;
            }
            case Mode::stopping:
                ay = a;
                if (speed <= 0.05) {
                    speed = 0;
                    endOrdinary(t);
                    mode = Mode::waiting;
                    modeEnd = t + between(5, 20);
                }
                break;
            case Mode::waiting:
                if (t >= modeEnd) {
                    a = between(0.08, 0.18);
                    beginOrdinary(Mode::pulling, t, Manoeuvre::pullAway, a);
                }
                break;
            case Mode::pulling:
                ay = -a;
                if (speed >= target) {
                    endOrdinary(t);
                    mode = Mode::cruise;
                    sinceJunction = 0;
                    nextJunction = between(300, 600);
                }
                break;
            case Mode::slowing:
                ay = a;
                if (speed <= 4.5) {
                    endOrdinary(t);
                    beginOrdinary(Mode::turning, t,
                                  turnSide > 0 ? Manoeuvre::turnLeft : Manoeuvre::turnRight,
                                  speed * (M_PI / 2 / 8) / kG);
                    modeEnd = t + 8;
                }
                break;
            case Mode::turning:
                rz = turnSide * (M_PI / 2 / 8);  // a quarter turn in eight seconds
                ax = speed * rz / kG;
                if (t >= modeEnd) {
                    endOrdinary(t);
                    a = between(0.08, 0.18);
                    beginOrdinary(Mode::pulling, t, Manoeuvre::pullAway, a);
                }
                break;
            case Mode::injecting: {
                const Pulse p = pulse(injecting, injectingMagnitude, t - modeStart, speed);
                ax = p.ax, ay = p.ay, rx = p.rx, rz = p.rz;
                if (t >= modeEnd - kStep / 2) {
                    mode = Mode::cruise;
                    nextInjection = t + o.eventSpacing * between(0.6, 1.4);
                }
                break;
            }
        }
        if (!city && mode == Mode::cruise && step % 6000 == 0) target = between(27.0, 33.0);

        // The noise is drawn at every model step, whatever the file's rate, so that files of
        // different rates agree wherever their instants meet.
        const double n[8] = {noise(), noise(), noise(), noise(),
                             noise(), noise(), noise(), noise()};
        if (step % 100 == 0 && !(t >= o.fixGapStart && t < o.fixGapStart + o.fixGapSeconds)) {
            platform::Location fix;
            fix.coordinate = {lat, lon};
            fix.speed = speed;
            fix.course = std::fmod(heading + 360.0, 360.0);
            fix.horizontalAccuracy = fix.verticalAccuracy = 5.0;
            DriveEvent e;
            e.t = step * 10'000'000LL;
            e.fix = fix;
            out.drive.events.push_back(e);
        }
        if (step % every == 0) {
            platform::DeviceMotion m;
            m.attitude = {n[0], n[1], heading * M_PI / 180.0};
            m.rotationRate = {rx + n[2], n[3], rz + n[4]};
            m.userAcceleration = {ax + n[5], ay + n[6], n[7]};
            m.gravity = {0.0, 0.0, -1.0};
            DriveEvent e;
            e.t = step * 10'000'000LL;
            e.motion = m;
            out.drive.events.push_back(e);
        }

        // A lane change's yaw swings out and back; the course it leaves is the same, so only
        // turns and corners move the heading.
        const bool laneChange = mode == Mode::injecting && (injecting == Manoeuvre::laneLeft ||
                                                            injecting == Manoeuvre::laneRight);
        if (!laneChange) heading -= rz * kStep * 180.0 / M_PI;
        speed = std::max(0.0, speed - ay * kG * kStep);
        const double metres = speed * kStep;
        sinceJunction += metres;
        lat += metres * std::cos(heading * M_PI / 180.0) / kMetresPerDegree;
        lon += metres * std::sin(heading * M_PI / 180.0) /
               (kMetresPerDegree * std::cos(lat * M_PI / 180.0));
    }
    if (out.truth[ordinary].duration == 0 && !isInjected(out.truth[ordinary].what))
        endOrdinary(static_cast<double>(steps) * kStep);
    std::sort(out.truth.begin(), out.truth.end(),
              [](const TruthEvent& x, const TruthEvent& y) { return x.t < y.t; });
    return out;
}

void mountPhone(Drive& drive, const platform::MountingAngles& angles, double from, double to) {
    // The car's axes turned back by yaw, then pitch, then roll: the phone's.
    auto turn = [&](Vector3 v) {
        auto plane = [](double& p, double& q, double angle) {
            const double c = std::cos(angle), s = std::sin(angle), p0 = p;
            p = c * p0 - s * q;
            q = s * p0 + c * q;
        };
        plane(v.x, v.y, -angles.yaw);
        plane(v.y, v.z, -angles.pitch);
        plane(v.z, v.x, -angles.roll);
        return v;
    };
    for (DriveEvent& e : drive.events) {
        if (!e.motion || e.seconds() < from || e.seconds() >= to) continue;
        platform::DeviceMotion& m = *e.motion;
        m.userAcceleration = turn(m.userAcceleration);
        m.rotationRate = turn(m.rotationRate);
        m.gravity = turn(m.gravity);
        // The attitude a platform derives from that gravity.
        m.attitude = {std::asin(std::clamp(-m.gravity.y, -1.0, 1.0)),
                      std::atan2(-m.gravity.x, -m.gravity.z), m.attitude.z};
    }
}

void writeTruth(std::ostream& out, const std::vector<TruthEvent>& truth) {
    out << kTruthHeader << "\n# T DURATION WHAT MAGNITUDE (g; rad/s for bump and lane-*)\n";
    char line[128];
    for (const TruthEvent& e : truth) {
        std::snprintf(line, sizeof line, "%.3f %.3f %s %.3f\n", e.t, e.duration,
                      manoeuvreName(e.what), e.magnitude);
        out << line;
    }
}

std::optional<std::vector<TruthEvent>> parseTruth(std::istream& in, std::string& error) {
    std::vector<TruthEvent> truth;
    std::string text;
    int number = 0;
    bool header = false;
    while (std::getline(in, text)) {
        ++number;
        if (auto hash = text.find('#'); hash != std::string::npos) text.erase(hash);
        if (text.find_first_not_of(" \t\r") == std::string::npos) continue;
        if (!header) {
            if (text.rfind(kTruthHeader, 0) != 0) {
                error = "line " + std::to_string(number) + ": expected '" + kTruthHeader + "'";
                return std::nullopt;
            }
            header = true;
            continue;
        }
        std::istringstream line(text);
        TruthEvent e;
        std::string what, extra;
        bool known = false;
        if (line >> e.t >> e.duration >> what >> e.magnitude && !(line >> extra)) {
            for (int m = 0; m <= static_cast<int>(Manoeuvre::turnRight); ++m) {
                if (what == kManoeuvreNames[m]) {
                    e.what = static_cast<Manoeuvre>(m);
                    known = true;
                }
            }
        }
        if (!known || !std::isfinite(e.t) || !std::isfinite(e.duration) || e.duration < 0) {
            error = "line " + std::to_string(number) + ": expected T DURATION WHAT MAGNITUDE";
            return std::nullopt;
        }
        truth.push_back(e);
    }
    if (!header) {
        error = "not a truth file (no '" + std::string(kTruthHeader) + "' line)";
        return std::nullopt;
    }
    return truth;
}

TruthComparison compareWithTruth(const std::vector<TruthEvent>& truth,
                                 const std::vector<Detection>& detections) {
    TruthComparison result;
    const std::vector<Event> events = groupEvents(detections, 0);
    for (Kind kind : kKinds) {
        KindScore& score = result.kinds[static_cast<int>(kind)];
        auto overlaps = [&](const TruthEvent& t, const Event& e) {
            return e.kind == kind && e.end >= t.t - kEventSlack &&
                   e.start <= t.t + t.duration + kEventSlack;
        };
        for (const TruthEvent& t : truth) {
            if (!isInjected(t.what) || kindOf(t.what) != kind) continue;
            ++score.injected;
            const bool hit = std::any_of(events.begin(), events.end(),
                                         [&](const Event& e) { return overlaps(t, e); });
            ++(hit ? score.hits : score.misses);
        }
        for (const Event& e : events) {
            const bool explained =
                e.kind == kind && std::any_of(truth.begin(), truth.end(), [&](const auto& t) {
                    return mayCause(t.what, kind) && overlaps(t, e);
                });
            if (e.kind == kind && !explained) ++score.extra;
        }
    }
    return result;
}

}  // namespace kestrelvue::tools
