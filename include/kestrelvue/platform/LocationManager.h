#pragma once

#include <kestrelvue/Export.h>
// The location-service seam. The engine only controls the service; the host receives the fixes
// and forwards them to DrivingInsight::didUpdateLocations().

namespace kestrelvue::platform {

/// Raw values are the platform's.
enum class AuthorizationStatus : int {
    notDetermined = 0,
    restricted = 1,
    denied = 2,
    authorizedAlways = 3,
    authorizedWhenInUse = 4,
};

/// The best accuracy for navigation, as a desired accuracy in metres.
inline constexpr double kLocationAccuracyBestForNavigation = -2.0;
/// Report every movement.
inline constexpr double kDistanceFilterNone = -1.0;

/// Threading contract: every call is made from the host's thread and returns at once; none calls
/// back into the engine.
class KESTRELVUE_EXPORT LocationManager {
public:
    virtual ~LocationManager() = default;

    /// Whether the device's location services are switched on.
    virtual bool locationServicesEnabled() const = 0;
    virtual AuthorizationStatus authorizationStatus() const = 0;
    /// Asks the user; the answer comes later through the host.
    virtual void requestWhenInUseAuthorization() = 0;

    /// Metres (or kLocationAccuracyBestForNavigation).
    virtual double desiredAccuracy() const = 0;
    virtual void setDesiredAccuracy(double metres) = 0;
    /// Metres (or kDistanceFilterNone).
    virtual double distanceFilter() const = 0;
    virtual void setDistanceFilter(double metres) = 0;

    virtual void startUpdatingLocation() = 0;
    virtual void stopUpdatingLocation() = 0;
};

}  // namespace kestrelvue::platform
