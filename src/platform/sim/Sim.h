#pragma once
// The scriptable platform: a clock the caller advances, a main queue the caller drains, and
// sensors, geocoder, application and device that the caller drives. Replays and tests run the
// engine on it.
//
// Every class here is safe to call from any thread; the engine's callbacks still run only where
// the seams' contracts say (on the main queue, when the caller drains it).

#include <kestrelvue/Environment.h>
#include <kestrelvue/platform/Application.h>
#include <kestrelvue/platform/Clock.h>
#include <kestrelvue/platform/Device.h>
#include <kestrelvue/platform/Executor.h>
#include <kestrelvue/platform/Geocoder.h>
#include <kestrelvue/platform/LocationManager.h>
#include <kestrelvue/platform/MotionManager.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvue::sim {

/// A clock that moves only when told to.
class VirtualClock final : public platform::Clock {
public:
    /// Starts at 2018-03-05 12:00:00 UTC unless told otherwise.
    VirtualClock();
    explicit VirtualClock(platform::TimePoint start);

    platform::TimePoint now() const override;
    void setNow(platform::TimePoint value);
    void advance(std::chrono::nanoseconds by);

private:
    std::atomic<std::int64_t> nanos_;
};

/// Identifiers 00000001-0000-4000-8000-000000000001, ...-000000000002, ...: deterministic, in the
/// 36-character upper-case form of the real ones.
class SequentialIdGenerator final : public platform::IdGenerator {
public:
    std::string makeUuid() override;
    /// How many identifiers were handed out.
    std::uint64_t count() const { return next_.load(); }

private:
    std::atomic<std::uint64_t> next_{0};
};

/// The host's main queue, drained by whoever plays the host.
class MainQueue final : public platform::Executor {
public:
    void post(std::function<void()> task) override;
    /// Runs the oldest task; false when there was none.
    bool runOne();
    /// Runs tasks, including those posted meanwhile, until none is left; returns how many ran.
    std::size_t runUntilIdle();
    std::size_t pending() const;

private:
    mutable std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;
};
using ManualExecutor = MainQueue;

/// A motion manager whose samples the caller pushes.
class MotionSource final : public platform::MotionManager {
public:
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

    void setDeviceMotionAvailable(bool value);
    /// Queues one sample for the running session's handler; dropped when no session runs.
    /// Returns whether it was queued.
    bool push(const platform::DeviceMotion& motion);
    /// Queues a delivery without a sample (and with `error`, when given).
    bool pushEmpty(std::optional<platform::MotionError> error = std::nullopt);

    std::optional<platform::AttitudeReferenceFrame> lastReferenceFrame() const;
    int startCount() const;
    int stopCount() const;

private:
    bool deliver(std::optional<platform::DeviceMotion> motion,
                 std::optional<platform::MotionError> error);

    mutable std::mutex mutex_;
    bool available_ = true;
    double interval_ = 0.01;
    bool showsDisplay_ = false;
    std::uint64_t session_ = 0;  // 0: not running
    std::uint64_t lastSession_ = 0;
    std::shared_ptr<platform::Executor> queue_;
    std::shared_ptr<platform::DeviceMotionHandler> handler_;
    std::optional<platform::AttitudeReferenceFrame> frame_;
    int starts_ = 0;
    int stops_ = 0;
};

/// A location manager with settable state that records what the engine asked of it.
class LocationManager final : public platform::LocationManager {
public:
    bool locationServicesEnabled() const override;
    platform::AuthorizationStatus authorizationStatus() const override;
    void requestWhenInUseAuthorization() override;
    double desiredAccuracy() const override;
    void setDesiredAccuracy(double metres) override;
    double distanceFilter() const override;
    void setDistanceFilter(double metres) override;
    void startUpdatingLocation() override;
    void stopUpdatingLocation() override;

    void setLocationServicesEnabled(bool value);
    void setAuthorizationStatus(platform::AuthorizationStatus value);
    /// The status a permission request switches to (none: the request changes nothing).
    void setAuthorizationAnswer(std::optional<platform::AuthorizationStatus> value);

    bool isUpdating() const;
    int authorizationRequestCount() const;
    int startCount() const;
    int stopCount() const;

private:
    mutable std::mutex mutex_;
    bool enabled_ = true;
    platform::AuthorizationStatus status_ = platform::AuthorizationStatus::authorizedWhenInUse;
    std::optional<platform::AuthorizationStatus> answer_;
    double desiredAccuracy_ = 100.0;
    double distanceFilter_ = platform::kDistanceFilterNone;
    bool updating_ = false;
    int requests_ = 0;
    int starts_ = 0;
    int stops_ = 0;
};

/// A geocoder that answers from a script, later, through the main queue.
class Geocoder final : public platform::Geocoder {
public:
    struct Answer {
        std::optional<std::vector<platform::Placemark>> placemarks;
        std::optional<platform::GeocodeError> error;
    };
    using Answerer = std::function<Answer(const platform::Location&)>;

    explicit Geocoder(std::shared_ptr<platform::Executor> mainQueue);

    platform::AsyncRequest reverseGeocodeLocation(const platform::Location& location,
                                                  platform::GeocodeCompletion completion) override;

    /// Answers used by the next lookups, first in first out.
    void enqueueAnswer(Answer answer);
    /// Answers lookups once the queued answers are used up. The default names the coordinate:
    /// one placemark with the single line "<latitude>, <longitude>".
    void setAnswerer(Answerer answerer);

    /// Every location asked about, in order.
    std::vector<platform::Location> requests() const;

    static Answer placemark(std::vector<std::string> lines);
    static Answer failure(std::int64_t code = 2, std::string description = "network");
    static Answer nothing();

private:
    std::shared_ptr<platform::Executor> mainQueue_;
    mutable std::mutex mutex_;
    std::deque<Answer> script_;
    Answerer answerer_;
    std::vector<platform::Location> requests_;
};

/// An application that records the idle-timer changes and the addresses it was asked to open.
class Application final : public platform::Application {
public:
    bool isIdleTimerDisabled() const override;
    void setIdleTimerDisabled(bool value) override;
    std::string openSettingsURLString() const override;
    bool openURL(const std::string& url) override;

    void setOpenSettingsURLString(std::string value);
    std::vector<bool> idleTimerChanges() const;
    std::vector<std::string> openedURLs() const;

private:
    mutable std::mutex mutex_;
    bool idleTimerDisabled_ = false;
    std::string settingsURL_ = "app-settings:";
    std::vector<bool> idleChanges_;
    std::vector<std::string> opened_;
};

/// A device whose orientation the caller sets.
class Device final : public platform::Device {
public:
    platform::DeviceOrientation orientation() const override;
    void setOrientation(platform::DeviceOrientation value);

private:
    std::atomic<int> orientation_{0};
};

/// Every simulated part, made once and wired into an Environment in one place, so the tests and
/// the replay tool play the same host.
struct Platform {
    std::shared_ptr<VirtualClock> clock = std::make_shared<VirtualClock>();
    std::shared_ptr<SequentialIdGenerator> ids = std::make_shared<SequentialIdGenerator>();
    std::shared_ptr<MainQueue> queue = std::make_shared<MainQueue>();
    std::shared_ptr<MotionSource> motion = std::make_shared<MotionSource>();
    std::shared_ptr<LocationManager> location = std::make_shared<LocationManager>();
    std::shared_ptr<Geocoder> geocoder = std::make_shared<Geocoder>(queue);
    std::shared_ptr<Application> application = std::make_shared<Application>();
    std::shared_ptr<Device> device = std::make_shared<Device>();

    /// Points the environment's clock, identifiers, main queue, sensors, geocoder, application
    /// and device at these parts; HTTP, reachability, notifications and application information
    /// are the caller's.
    void installInto(Environment& env) const;
};

}  // namespace kestrelvue::sim
