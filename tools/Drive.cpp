#include "Drive.h"

#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/posix/CurlHttpClient.h>

#include <charconv>
#include <cmath>
#include <condition_variable>
#include <istream>
#include <mutex>
#include <ostream>
#include <random>
#include <sstream>

#include "Outbox.h"
#include "platform/sim/Sim.h"

namespace kestrelvue::tools {
namespace {

bool readNumbers(std::istringstream& line, double* out, int count) {
    for (int i = 0; i < count; ++i) {
        std::string word;
        if (!(line >> word)) return false;
        auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), out[i]);
        if (ec != std::errc() || end != word.data() + word.size() || !std::isfinite(out[i])) {
            return false;
        }
    }
    std::string extra;
    return !(line >> extra);
}

}  // namespace

DriveParseResult parseDrive(std::istream& in) {
    Drive drive;
    std::string text;
    int lineNumber = 0;
    auto fail = [&](const std::string& what) {
        return DriveParseResult{std::nullopt, "line " + std::to_string(lineNumber) + ": " + what};
    };
    while (std::getline(in, text)) {
        ++lineNumber;
        if (auto hash = text.find('#'); hash != std::string::npos) text.erase(hash);
        std::istringstream line(text);
        std::string kind;
        if (!(line >> kind)) continue;
        DriveEvent event;
        if (kind == "fix") {
            double v[6];
            if (!readNumbers(line, v, 6))
                return fail("a fix needs T LAT LON SPEED COURSE ACCURACY");
            platform::Location fix;
            fix.coordinate = {v[1], v[2]};
            fix.speed = v[3];
            fix.course = v[4];
            fix.horizontalAccuracy = v[5];
            fix.verticalAccuracy = v[5];
            event.t = v[0];
            event.fix = fix;
        } else if (kind == "motion") {
            double v[13];
            if (!readNumbers(line, v, 13)) return fail("a motion sample needs T and 12 numbers");
            platform::DeviceMotion m;
            m.attitude = {v[1], v[2], v[3]};
            m.rotationRate = {v[4], v[5], v[6]};
            m.userAcceleration = {v[7], v[8], v[9]};
            m.gravity = {v[10], v[11], v[12]};
            event.t = v[0];
            event.motion = m;
        } else {
            return fail("unknown event '" + kind + "' (expected fix or motion)");
        }
        if (event.t < 0 || (!drive.events.empty() && event.t < drive.events.back().t)) {
            return fail("time goes backwards");
        }
        drive.events.push_back(event);
    }
    if (drive.events.empty()) return {std::nullopt, "the drive has no events"};
    return {std::move(drive), {}};
}

void writeDrive(std::ostream& out, const Drive& drive) {
    char line[512];
    out << "# kestrelvue drive: fix T LAT LON SPEED COURSE ACCURACY | motion T PITCH ROLL YAW RX "
           "RY "
           "RZ AX AY AZ GX GY GZ\n";
    for (const DriveEvent& e : drive.events) {
        if (e.fix) {
            const auto& f = *e.fix;
            std::snprintf(line, sizeof line, "fix %.3f %.7f %.7f %.3f %.2f %.1f\n", e.t,
                          f.coordinate.latitude, f.coordinate.longitude, f.speed, f.course,
                          f.horizontalAccuracy);
        } else if (e.motion) {
            const auto& m = *e.motion;
            std::snprintf(
                line, sizeof line,
                "motion %.3f %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f\n", e.t,
                m.attitude.x, m.attitude.y, m.attitude.z, m.rotationRate.x, m.rotationRate.y,
                m.rotationRate.z, m.userAcceleration.x, m.userAcceleration.y, m.userAcceleration.z,
                m.gravity.x, m.gravity.y, m.gravity.z);
        } else {
            continue;
        }
        out << line;
    }
}

Drive simulateDrive(double seconds, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> noise(0.0, 0.02);
    Drive drive;
    double lat = 41.0082, lon = 28.9784, heading = 60.0, speed = 0.0;  // m/s, degrees
    constexpr double kMetresPerDegree = 111'320.0;
    for (int step = 0; step * 0.5 <= seconds; ++step) {
        double t = step * 0.5;
        // Accelerate to ~50 km/h, cruise, and now and then do something a driver regrets.
        double target = t < 20 ? t * 0.7 : 14.0;
        double ay = (speed - target) * 0.02 + noise(rng);  // braking is positive
        double ax = noise(rng), rx = noise(rng) * 0.5;
        int phase = static_cast<int>(t) % 90;
        if (t > 30 && phase == 40) ay = 0.55;                    // hard brake
        if (t > 30 && phase == 60) ax = -0.45, heading += 25.0;  // sharp right turn
        if (t > 30 && phase == 75) rx = 0.7, ay = 0.03;          // speed bump
        speed = std::max(0.0, speed - ay * 9.81 * 0.5);
        if (phase == 40) speed = std::max(0.0, speed - 3.0);
        double metres = speed * 0.5;
        lat += metres * std::cos(heading * M_PI / 180.0) / kMetresPerDegree;
        lon += metres * std::sin(heading * M_PI / 180.0) /
               (kMetresPerDegree * std::cos(lat * M_PI / 180.0));
        if (step % 2 == 0) {
            platform::Location fix;
            fix.coordinate = {lat, lon};
            fix.speed = speed;
            fix.course = std::fmod(heading, 360.0);
            fix.horizontalAccuracy = fix.verticalAccuracy = 5.0;
            drive.events.push_back({t, fix, std::nullopt});
        }
        platform::DeviceMotion m;
        m.attitude = {noise(rng), noise(rng), heading * M_PI / 180.0};
        m.rotationRate = {rx, noise(rng) * 0.5, noise(rng) * 0.5};
        m.userAcceleration = {ax, ay, noise(rng)};
        m.gravity = {0.0, 0.0, -1.0};
        drive.events.push_back({t, std::nullopt, m});
    }
    return drive;
}

namespace {

/// Hears the engine's reports and lets the replay wait for them (bounded, in real time: the
/// service answers on its own threads).
class Listener final : public DrivingInsightDelegate {
public:
    void tripDidFinish(std::shared_ptr<Trip> trip) override {
        std::lock_guard lock(mutex_);
        done_ = true;
        trip_ = std::move(trip);
        cv_.notify_all();
    }
    void tripDidFail(std::int64_t code, const std::string& title, const std::string& message,
                     std::shared_ptr<platform::Alert>) override {
        std::lock_guard lock(mutex_);
        failure_ = std::to_string(code) + " " + title + ": " + message;
        // A failure while driving (a motion bulk that did not go) is reported, not final.
        if (stopped_) done_ = true;
        cv_.notify_all();
    }
    void markStopped() {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    bool waitDone(std::chrono::milliseconds step) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, step, [&] { return done_; });
    }
    void result(ReplayResult& out) {
        std::lock_guard lock(mutex_);
        out.trip = trip_;
        out.finished = trip_ != nullptr;
        out.failure = failure_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false, stopped_ = false;
    std::shared_ptr<Trip> trip_;
    std::string failure_;
};

}  // namespace

ReplayResult replay(const Drive& drive, const ReplayOptions& options) {
    using namespace std::chrono;
    ReplayResult result;
    auto say = [&](const std::string& line) {
        if (options.progress) options.progress(line);
    };

    // The simulated phone, as the tests build it; the replay adds a real HTTP client and random
    // trip identifiers, and starts the clock at the present second.
    sim::Platform phone;
    phone.clock->setNow(
        time_point_cast<system_clock::duration>(floor<seconds>(system_clock::now())));
    phone.device->setOrientation(platform::DeviceOrientation(5));
    const auto& clock = phone.clock;
    const auto& queue = phone.queue;
    const auto& motion = phone.motion;

    Environment env;
    phone.installInto(env);
    env.ids = std::make_shared<platform::RandomIdGenerator>();
    env.http = std::make_shared<posix::CurlHttpClient>();
    // The replay talks to a server it was pointed at; no default route is needed for that.
    env.reachability =
        std::make_shared<platform::FixedReachabilityProbe>(platform::kReachabilityFlagsReachable);
    env.notifications = NotificationCenter::make();
    Object info{{std::string(kBaseURLKey), options.baseURL},
                {"CFBundleShortVersionString", "kestrelvue-replay"},
                {"CFBundleDisplayName", "Kestrelvue"}};
    if (options.bulkMotionDataSize) info.emplace("BulkMotionDataSize", *options.bulkMotionDataSize);
    env.applicationInfo = std::move(info);
    if (!options.outboxDirectory.empty()) useOutbox(env, options.outboxDirectory);

    std::mutex thresholdMutex;
    std::condition_variable thresholdCv;
    bool thresholdsDone = false;
    ObserverToken thresholdToken =
        env.notifications->addObserver("thresholdsGot", [&](const Notification& n) {
            std::lock_guard lock(thresholdMutex);
            thresholdsDone = true;
            result.thresholdsArrived = !n.userInfo.has_value();
            thresholdCv.notify_all();
        });

    std::vector<ObserverToken> traces;
    if (options.verbose) {
        for (const char* name : {"motionDataSynced", "motionDataSyncFailed", "getWeatherInfo",
                                 "tripStoppedEndAnnotationSetted", "tripEndedSuccessfully"}) {
            traces.push_back(env.notifications->addObserver(name, [say](const Notification& n) {
                std::string line = "  [" + n.name + "]";
                if (n.userInfo) {
                    if (auto it = n.userInfo->find("error"); it != n.userInfo->end()) {
                        if (const std::string* text = it->second.asString()) line += " " + *text;
                    }
                }
                say(line);
            }));
        }
    }

    auto engine = DrivingInsight::makeDetached(env);
    // Play the host: keep the temperature the weather request brings, so the engine stops asking.
    std::mutex weatherMutex;
    std::condition_variable weatherCv;
    bool weatherAnswered = false;
    ObserverToken weather = env.notifications->addObserver(
        "getWeatherInfo", [&, engine = engine.get()](const Notification& n) {
            {
                std::lock_guard lock(weatherMutex);
                weatherAnswered = true;
            }
            weatherCv.notify_all();
            const Value* data = nullptr;
            if (n.userInfo) {
                auto it = n.userInfo->find("Data");
                if (it != n.userInfo->end()) data = &it->second;
            }
            const Value* t = data ? data->find("Temperature") : nullptr;
            if (auto celsius = t ? t->asNumber() : std::nullopt) engine->setTemperature(*celsius);
        });
    auto listener = std::make_shared<Listener>();
    engine->setDrivingInsightDelegate(listener);
    engine->setUserID(options.userID);
    {
        std::unique_lock lock(thresholdMutex);
        thresholdCv.wait_for(lock, options.serviceTimeout, [&] { return thresholdsDone; });
    }
    say(result.thresholdsArrived ? "bands received from the service"
                                 : "no bands from the service: nothing will be charged");

    const auto start = clock->now();
    if (!engine->startTrip()) {
        listener->result(result);
        if (result.failure.empty()) result.failure = "the trip did not start";
        return result;
    }
    double nextReport = 60.0;
    for (const DriveEvent& e : drive.events) {
        clock->setNow(start + duration_cast<system_clock::duration>(duration<double>(e.t)));
        if (e.fix) {
            platform::Location fix = *e.fix;
            fix.timestamp = clock->now();
            engine->didUpdateLocations({fix});
            if (result.fixes++ == 0) {
                // In real time the weather reply lands long before the next fix; give the
                // first one that chance, so the engine does not ask again at every fix.
                std::unique_lock lock(weatherMutex);
                weatherCv.wait_for(lock, milliseconds(2000), [&] { return weatherAnswered; });
            }
        }
        if (e.motion) {
            motion->push(*e.motion);
            ++result.samples;
        }
        queue->runUntilIdle();
        if (e.t >= nextReport) {
            char line[160];
            std::snprintf(line, sizeof line, "%5.0f s  %7.2f km  %5.1f km/h", e.t,
                          engine->TotalTraveledDistance() / 1000.0, engine->CurrentSpeed());
            say(line);
            nextReport += 60.0;
        }
    }
    engine->stopTrip();
    listener->markStopped();
    say("trip stopped; uploading");
    const auto deadline = steady_clock::now() + options.serviceTimeout;
    while (steady_clock::now() < deadline) {
        queue->runUntilIdle();  // geocoder answers arrive through the main queue
        if (listener->waitDone(milliseconds(20))) break;
    }
    queue->runUntilIdle();
    listener->result(result);
    if (!result.finished && result.failure.empty()) result.failure = "no answer from the service";
    return result;
}

}  // namespace kestrelvue::tools
