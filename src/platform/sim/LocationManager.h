#pragma once
// Part of the scriptable platform (platform/sim/Sim.h): safe to call from any thread.

#include <kestrelvue/platform/LocationManager.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace kestrelvue::sim {

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

}  // namespace kestrelvue::sim
