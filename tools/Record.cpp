#include "Record.h"

#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/posix/GpsdLocationManager.h>
#include <kestrelvue/posix/IioMotionManager.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "platform/sim/Sim.h"

namespace kestrelvue::tools {
namespace {

using namespace std::chrono;

class Recorder final : public LiveHost {
public:
    explicit Recorder(RecordSources sources) : sources_(std::move(sources)) {}

    void install(Environment& env, const std::shared_ptr<sim::MainQueue>& queue) override {
        env.clock = clock_;
        if (sources_.locationDrive) {
            env.makeLocationManager = [l = fixedLocation_] { return l; };
        } else {
            gpsd_ = std::make_shared<posix::GpsdLocationManager>(
                posix::GpsdEndpoint{sources_.gpsdHost, sources_.gpsdPort}, queue);
            env.makeLocationManager = [g = gpsd_] { return g; };
        }
        if (sources_.motionDrive) {
            env.makeMotionManager = [m = driveMotion_] { return m; };
            env.device = driveDevice_;
        } else {
            posix::IioOptions options;
            options.root = sources_.iioRoot;
            iio_ = std::make_shared<posix::IioMotionManager>(options);
            env.makeMotionManager = [m = iio_] { return m; };
            env.device = std::make_shared<posix::IioDevice>(iio_);
        }
    }

    bool waitForPosition(sim::MainQueue& queue,
                         const std::function<void(const std::string&)>& say) override {
        if (!gpsd_) return true;
        const auto end = sources_.seconds
                             ? steady_clock::now() + duration_cast<steady_clock::duration>(
                                                         duration<double>(*sources_.seconds))
                             : steady_clock::time_point::max();
        bool located = false;  // set on `queue`, which only this thread drains
        gpsd_->setFixHandler([&](const std::vector<platform::Location>& batch) {
            for (const platform::Location& fix : batch)  // current, as the engine takes them
                located |=
                    fix.horizontalAccuracy < 1000 && fix.timestamp >= clock_->now() - seconds(1);
        });
        gpsd_->startUpdatingLocation();
        say("waiting for a position from gpsd at " + sources_.gpsdHost + ":" + sources_.gpsdPort);
        while (!located && !(sources_.stop && sources_.stop->load()) && steady_clock::now() < end) {
            queue.runUntilIdle();
            std::this_thread::sleep_for(milliseconds(50));
        }
        gpsd_->setFixHandler({});
        return located;
    }

    void run(DrivingInsight& engine, sim::MainQueue& queue, ReplayResult& result) override {
        platform::MotionManager& motion =
            iio_ ? static_cast<platform::MotionManager&>(*iio_) : *driveMotion_;
        result.interval = motion.deviceMotionUpdateInterval();
        if (gpsd_) {
            gpsd_->setFixHandler([&](const std::vector<platform::Location>& batch) {
                engine.didUpdateLocations(batch);
                result.fixes += batch.size();
            });
        }
        const auto interval =
            duration_cast<steady_clock::duration>(duration<double>(result.interval));
        const auto start = steady_clock::now();
        const auto end =
            sources_.seconds
                ? start + duration_cast<steady_clock::duration>(duration<double>(*sources_.seconds))
                : steady_clock::time_point::max();
        const std::vector<DriveEvent>* fixes =
            sources_.locationDrive ? &sources_.locationDrive->events : nullptr;
        const std::vector<DriveEvent>* samples =
            sources_.motionDrive ? &sources_.motionDrive->events : nullptr;
        std::size_t nextFix = 0, nextSample = 0;
        const DriveEvent* latest = nullptr;
        auto tick = start;
        while (!(sources_.stop && sources_.stop->load())) {
            const auto now = steady_clock::now();
            if (now >= end) break;
            const std::int64_t elapsed = duration_cast<nanoseconds>(now - start).count();
            if (fixes) {
                for (; nextFix < fixes->size() && (*fixes)[nextFix].t <= elapsed; ++nextFix) {
                    const DriveEvent& e = (*fixes)[nextFix];
                    if (!e.fix) continue;
                    platform::Location fix = *e.fix;
                    fix.timestamp = clock_->now();
                    engine.didUpdateLocations({fix});
                    ++result.fixes;
                }
                if (nextFix == fixes->size()) break;  // the drive has ended
            }
            if (samples && now >= tick) {
                for (; nextSample < samples->size() && (*samples)[nextSample].t <= elapsed;
                     ++nextSample)
                    if ((*samples)[nextSample].motion) latest = &(*samples)[nextSample];
                if (latest) {
                    driveDevice_->setOrientation(latest->orientation);
                    driveMotion_->push(*latest->motion);
                    ++result.samples;
                }
                if (nextSample == samples->size()) break;
                tick += interval;
            }
            queue.runUntilIdle();
            // Wake for the next sample, and often enough for gpsd's batches and the service's
            // answers, which arrive on the queue at any time.
            std::this_thread::sleep_until(
                std::min({samples ? tick : now + milliseconds(50), now + milliseconds(50), end}));
        }
        queue.runUntilIdle();
        if (gpsd_) gpsd_->setFixHandler({});
        if (iio_) result.samples = iio_->samples();
    }

private:
    RecordSources sources_;
    std::shared_ptr<platform::SystemClock> clock_ = std::make_shared<platform::SystemClock>();
    std::shared_ptr<sim::LocationManager> fixedLocation_ = std::make_shared<sim::LocationManager>();
    std::shared_ptr<sim::MotionSource> driveMotion_ = std::make_shared<sim::MotionSource>();
    std::shared_ptr<sim::Device> driveDevice_ = std::make_shared<sim::Device>();
    std::shared_ptr<posix::GpsdLocationManager> gpsd_;
    std::shared_ptr<posix::IioMotionManager> iio_;
};

}  // namespace

std::shared_ptr<LiveHost> makeLiveHost(RecordSources sources) {
    return std::make_shared<Recorder>(std::move(sources));
}

std::string defaultOutboxDirectory() {
    auto env = [](const char* name) -> std::string {
        const char* value = std::getenv(name);
        return value ? value : "";
    };
    // systemd may give several directories separated by colons: the first is ours.
    if (std::string state = env("STATE_DIRECTORY"); !state.empty())
        return state.substr(0, state.find(':')) + "/outbox";
    if (std::string xdg = env("XDG_STATE_HOME"); !xdg.empty()) return xdg + "/kestrelvue/outbox";
    if (std::string home = env("HOME"); !home.empty())
        return home + "/.local/state/kestrelvue/outbox";
    return "kestrelvue-outbox";
}

}  // namespace kestrelvue::tools
