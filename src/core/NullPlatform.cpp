// The null objects. Each one answers as the core answered, before it had them, for a member the
// host left empty: the same reports, in the same order, on the same thread.

#include "core/NullPlatform.h"

#include <kestrelvue/platform/Application.h>
#include <kestrelvue/platform/Device.h>
#include <kestrelvue/platform/Geocoder.h>
#include <kestrelvue/platform/LocationManager.h>
#include <kestrelvue/platform/MotionManager.h>

#include <memory>
#include <utility>

namespace kestrelvue::detail {
namespace {

// Every request fails at once, inside send(), with neither a response nor an error: callers
// report "no response" (1007 for a bulk, 1017 for a trip record) before send() returns.
class NullHttpClient final : public platform::HttpClient {
public:
    platform::AsyncRequest send(platform::HttpRequest,
                                platform::HttpCompletion completion) override {
        completion(platform::HttpResult{});
        return {};
    }
};

// A route the outbox may retry on, but not one a call goes out on (a connection would first have
// to be made): calls report offline, and the outbox keeps trying as it would with no probe.
class NullReachabilityProbe final : public platform::ReachabilityProbe {
public:
    std::optional<std::uint32_t> defaultRouteFlags() override {
        return platform::kReachabilityFlagsReachable |
               platform::kReachabilityFlagsConnectionRequired;
    }
};

// Nobody drains it: what is posted never runs.
class NullExecutor final : public platform::Executor {
public:
    void post(std::function<void()>) override {}
};

// Every lookup fails at once, inside the call, so an address becomes "???" before the caller
// goes on.
class NullGeocoder final : public platform::Geocoder {
public:
    platform::AsyncRequest reverseGeocodeLocation(const platform::Location&,
                                                  platform::GeocodeCompletion completion) override {
        completion(std::nullopt, platform::GeocodeError{});
        return {};
    }
};

class NullApplication final : public platform::Application {
public:
    bool isIdleTimerDisabled() const override { return false; }
    void setIdleTimerDisabled(bool) override {}
    // No settings address: a permission alert's settings button does nothing.
    std::string openSettingsURLString() const override { return {}; }
    bool openURL(const std::string&) override { return false; }
};

class NullDevice final : public platform::Device {
public:
    platform::DeviceOrientation orientation() const override {
        return platform::DeviceOrientation::unknown;
    }
};

// No motion hardware: a trip start reports device motion unsupported.
class NullMotionManager final : public platform::MotionManager {
public:
    bool isDeviceMotionAvailable() const override { return false; }
    bool isDeviceMotionActive() const override { return false; }
    double deviceMotionUpdateInterval() const override { return 0; }
    void setDeviceMotionUpdateInterval(double) override {}
    bool showsDeviceMovementDisplay() const override { return false; }
    void setShowsDeviceMovementDisplay(bool) override {}
    platform::AsyncRequest startDeviceMotionUpdates(platform::AttitudeReferenceFrame,
                                                    std::shared_ptr<platform::Executor>,
                                                    platform::DeviceMotionHandler) override {
        return {};
    }
    void stopDeviceMotionUpdates() override {}
};

// No location services: a trip start hands the host the "services off" alert.
class NullLocationManager final : public platform::LocationManager {
public:
    bool locationServicesEnabled() const override { return false; }
    platform::AuthorizationStatus authorizationStatus() const override {
        return platform::AuthorizationStatus::notDetermined;
    }
    void requestWhenInUseAuthorization() override {}
    double desiredAccuracy() const override { return 0; }
    void setDesiredAccuracy(double) override {}
    double distanceFilter() const override { return 0; }
    void setDistanceFilter(double) override {}
    void startUpdatingLocation() override {}
    void stopUpdatingLocation() override {}
};

// The null objects keep no state, so one of each serves every environment. Never destroyed:
// environments outlive static destruction.
template <class Interface, class Null>
const std::shared_ptr<Interface>& one() {
    static const auto* const instance = new std::shared_ptr<Interface>(std::make_shared<Null>());
    return *instance;
}

template <class T>
void fill(std::shared_ptr<T>& member, const std::shared_ptr<T>& null) {
    if (!member) member = null;
}

}  // namespace

void fillMissing(Environment& env) {
    fill(env.clock, one<platform::Clock, platform::SystemClock>());
    fill(env.ids, one<platform::IdGenerator, platform::RandomIdGenerator>());
    fill(env.http, one<platform::HttpClient, NullHttpClient>());
    fill(env.reachability, one<platform::ReachabilityProbe, NullReachabilityProbe>());
    fill(env.mainQueue, one<platform::Executor, NullExecutor>());
    // The centre the engine and a trip's route request always fell back to.
    if (!env.notifications)
        env.notifications = NotificationCenter::defaultCenter().shared_from_this();
    if (!env.makeMotionManager) {
        env.makeMotionManager = [] { return one<platform::MotionManager, NullMotionManager>(); };
    }
    if (!env.makeLocationManager) {
        env.makeLocationManager = [] {
            return one<platform::LocationManager, NullLocationManager>();
        };
    }
    fill(env.geocoder, one<platform::Geocoder, NullGeocoder>());
    fill(env.application, one<platform::Application, NullApplication>());
    fill(env.device, one<platform::Device, NullDevice>());
}

}  // namespace kestrelvue::detail
