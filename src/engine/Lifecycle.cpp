// Starting, sampling, stopping and completing a trip: the location fixes it moves on and the
// permission check its start asks.

#include <kestrelvue/platform/Alert.h>
#include <kestrelvue/platform/Application.h>
#include <kestrelvue/platform/Device.h>
#include <kestrelvue/platform/Geocoder.h>
#include <kestrelvue/platform/LocationManager.h>
#include <kestrelvue/platform/MotionManager.h>

#include <memory>
#include <string>
#include <utility>

#include "engine/EngineImpl.h"

namespace kestrelvue {

namespace {

constexpr std::int64_t kErrorCode = 1000;
constexpr double kFlatPitch = 0.35;
constexpr std::int64_t kNoPositionTimeoutSeconds = 10;

bool hasPosition(const std::optional<platform::Location>& location) {
    return location && location->coordinate.latitude != 0.0;
}

}  // namespace

int DrivingInsight::Impl::getDeviceOrientation(const Vector3& attitude) {
    const double pitch = attitude.x;
    return (-kFlatPitch < pitch && pitch < kFlatPitch)
               ? static_cast<int>(platform::DeviceOrientation::faceUp)
               : static_cast<int>(platform::DeviceOrientation::unknown);
}

std::string DrivingInsight::Impl::formatAddressFromPlacemark(const platform::Placemark& placemark) {
    std::string text;
    for (std::size_t i = 0; i < placemark.formattedAddressLines.size(); ++i) {
        if (i) text += ", ";
        text += placemark.formattedAddressLines[i];
    }
    return text;
}

bool DrivingInsight::Impl::startTrip() {
    auto counter = std::make_shared<std::int64_t>(0);
    env_.application->setIdleTimerDisabled(true);

    std::shared_ptr<platform::MotionManager> motion;
    {
        std::lock_guard lock(mutex_);
        motion = host.motionManager;
    }
    if (!motion || !motion->isDeviceMotionAvailable()) {
        if (auto delegate = delegateSnapshot())
            delegate->tripDidFail(kErrorCode, "Device Motion Desteklenmiyor",
                                  "Sürüş başlatabilmek için telefonunuzun Device Motion desteği "
                                  "bulunmuyor",
                                  nullptr);
        return false;
    }
    if (!checkLocationPermisionWhenInUse()) return false;

    std::shared_ptr<platform::LocationManager> location;
    double interval;
    {
        std::lock_guard lock(mutex_);
        // A fresh trip; only the last trip's end time stays until this one ends.
        detail::TripState next =
            detail::TripState::starting(env_.ids->makeUuid(), env_.clock->now());
        next.endDateTime = trip.endDateTime;
        trip = std::move(next);
        location = host.locationManager;
        interval = settings.updateInterval;
    }

    if (location && location->locationServicesEnabled()) {
        location->setDesiredAccuracy(platform::kLocationAccuracyBestForNavigation);
        location->setDistanceFilter(platform::kDistanceFilterNone);
        location->startUpdatingLocation();
    }
    motion->setDeviceMotionUpdateInterval(interval);
    motion->setShowsDeviceMovementDisplay(true);
    {
        std::lock_guard lock(mutex_);
        isDriving = true;
    }
    // The session's handle ends with the engine: no sample reaches it afterwards.
    requests.motionSession = motion->startDeviceMotionUpdates(
        platform::AttitudeReferenceFrame::xArbitraryZVertical, env_.mainQueue,
        [this, counter](const std::optional<platform::DeviceMotion>& sample,
                        const std::optional<platform::MotionError>&) {
            handleMotionSample(counter, sample);
        });
    return true;
}

void DrivingInsight::Impl::handleMotionSample(const std::shared_ptr<std::int64_t>& counter,
                                              const std::optional<platform::DeviceMotion>& motion) {
    if (!motion) return;
    // Read before the lock: the device is the host's and may take its own.
    const SampleAdmission admission{counter.get(), static_cast<int>(env_.device->orientation())};
    evaluate(&admission, 0, motion->attitude, motion->rotationRate, motion->userAcceleration,
             motion->gravity);
}

DrivingInsight::Impl::SampleGate DrivingInsight::Impl::admitSampleLocked(
    const SampleAdmission& admission, const Vector3& attitude, std::int64_t& motionId) {
    if (!isDriving) return SampleGate::dropped;
    const platform::TimePoint now = env_.clock->now();
    const platform::TimePoint start = trip.startDateTime.value_or(now);
    if (!hasPosition(trip.odometer.currentLocation)) {
        if (platform::DateComponents::secondOnly(start, now).second < kNoPositionTimeoutSeconds)
            return SampleGate::dropped;  // no position yet: the sample is dropped
        return SampleGate::noPosition;
    }
    evaluator.deviceOrientation = getDeviceOrientation(attitude);
    evaluator.deviceOrientationGiven = admission.givenOrientation;
    trip.timeElapsedSinceStart = platform::DateComponents::hourMinuteSecond(start, now);
    trip.hoursElapsedSinceStart =
        static_cast<double>(trip.timeElapsedSinceStart->hour) +
        static_cast<double>(trip.timeElapsedSinceStart->minute) / birSaatKacDakika +
        static_cast<double>(trip.timeElapsedSinceStart->second) / birSaatKacSaniye;
    motionId = ++*admission.counter;
    return SampleGate::admitted;
}

void DrivingInsight::Impl::endForLackOfPosition() {
    stopTrip();
    if (auto delegate = delegateSnapshot())
        delegate->tripDidFail(kErrorCode, "Sürüş Sonlandırılıyor",
                              "Konum bilgisi alınamadığı için Sürüş Başlatılamıyor. Daha sonra "
                              "tekrar deneyiniz",
                              nullptr);
}

void DrivingInsight::Impl::stopTrip() {
    std::shared_ptr<platform::MotionManager> motion;
    std::shared_ptr<platform::LocationManager> location;
    std::optional<platform::Location> end;
    bool startKnown;
    {
        std::lock_guard lock(mutex_);
        isDriving = false;
        trip.endDateTime = env_.clock->now();
        motion = host.motionManager;
        location = host.locationManager;
        end = trip.endLocation;
        startKnown = hasPosition(trip.startLocation);
    }
    env_.application->setIdleTimerDisabled(false);
    if (location) location->stopUpdatingLocation();
    if (motion && motion->isDeviceMotionActive()) motion->stopDeviceMotionUpdates();

    if (hasPosition(end)) {
        {
            std::lock_guard lock(mutex_);
            if (!trip.endAnnotation) trip.endAnnotation = std::make_shared<platform::MapPin>();
            trip.endAnnotation->coordinate = end->coordinate;
            trip.endAnnotation->subtitle = "Bitiş";
        }
        keep(env_.geocoder->reverseGeocodeLocation(
            *end, [this](const std::optional<std::vector<platform::Placemark>>& placemarks,
                         const std::optional<platform::GeocodeError>& error) {
                {
                    std::lock_guard lock(mutex_);
                    if (error)
                        trip.endLocationStr = "???";
                    else if (placemarks && !placemarks->empty())
                        trip.endLocationStr = formatAddressFromPlacemark(placemarks->front());
                    else if (trip.endLocationStr.empty())
                        // Neither an address nor an error: the trip still completes, so it
                        // reaches the history and the service.
                        trip.endLocationStr = "???";
                }
                center_.post("tripStoppedEndAnnotationSetted", &self_);
            }));
        return;
    }
    if (!startKnown) {
        if (auto delegate = delegateSnapshot()) delegate->tripDidFinish(nullptr);
        return;
    }
    {
        std::lock_guard lock(mutex_);
        if (!trip.endAnnotation) trip.endAnnotation = std::make_shared<platform::MapPin>();
        trip.endAnnotation->coordinate = platform::Coordinate{0, 0};
        trip.endLocationStr = "???";
    }
    center_.post("tripStoppedEndAnnotationSetted", &self_);
}

void DrivingInsight::Impl::geocodeStartAddress(const platform::Location& location) {
    keep(env_.geocoder->reverseGeocodeLocation(
        location, [this](const std::optional<std::vector<platform::Placemark>>& placemarks,
                         const std::optional<platform::GeocodeError>& error) {
            std::lock_guard lock(mutex_);
            if (error)
                trip.startLocationStr = "???";
            else if (placemarks && !placemarks->empty())
                trip.startLocationStr = formatAddressFromPlacemark(placemarks->front());
        }));
}

void DrivingInsight::Impl::keep(platform::AsyncRequest request) {
    std::lock_guard lock(mutex_);
    requests.keep(std::move(request));
}

std::string DrivingInsight::Impl::weatherURLLocked() const {
    const platform::Coordinate at = trip.odometer.currentLocation
                                        ? trip.odometer.currentLocation->coordinate
                                        : platform::Coordinate{};
    return urls.getWeatherInfoURL + "/" + std::to_string(host.userID) +
           "?latitude=" + platform::shortestDecimalText(at.latitude) +
           "&longitude=" + platform::shortestDecimalText(at.longitude);
}

void DrivingInsight::Impl::requestWeather(const std::string& url) {
    net.call->Get(url, "getWeatherInfo", false);
}

void DrivingInsight::Impl::tripStoppedEndAnnotationSetted(const Notification&) {
    if (net.outbox) {
        handOverStoppedTrip();
        return;
    }
    bool send = false;
    {
        std::lock_guard lock(mutex_);
        if (!uploader.buffer.isSyncingToServer) {
            uploader.buffer.isSyncingToServer = true;
            send = true;
        }
    }
    // Otherwise the upload in flight continues the flush when it succeeds.
    if (send) sendMotionDataToServer();
}

void DrivingInsight::Impl::completeStoppedTrip() {
    std::optional<std::string> unscored;
    {
        std::lock_guard lock(mutex_);
        if (trip.endLocationStr.empty()) return;
        trip.settleScore();
        const platform::TimePoint now = env_.clock->now();
        host.lastTrip = trip.record(env_, host.userID, now);
        host.tripHistory.push_back(trip.record(env_, host.userID, now));
        if (!settings.hasBands()) unscored = trip.drivingID;
    }
    // Without any band no event is charged, and the score of 100 says nothing: the host hears
    // so before the record goes, so that it never passes for a perfect drive.
    if (unscored) center_.post(kTripUnscored, &self_, Object{{"drivingID", Value(*unscored)}});
    center_.post("tripEndedSuccessfully", &self_);
}

void DrivingInsight::Impl::tripEndedSuccessfully(const Notification&) {
    CurrentTrip()->saveToServer();
}

}  // namespace kestrelvue

// ---- Location fixes
// ------------------------------------------------------------------------------ Location fixes:
// which one the engine keeps, and the distance and speed between two of them.

namespace kestrelvue {

void DrivingInsight::Impl::didUpdateLocations(const std::vector<platform::Location>& locations) {
    const platform::TimePoint now = env_.clock->now();
    std::string weather;  // the weather's address, while the trip has no temperature
    std::shared_ptr<platform::MotionManager> motion;
    {
        std::lock_guard lock(mutex_);
        if (!isDriving) return;
        motion = host.motionManager;
        if (const platform::Location* best =
                trip.odometer.select(locations, now, settings.distanceFilter))
            trip.odometer.moveTo(*best, settings.distanceFilterForSpeed);
        if (!trip.temperature) weather = weatherURLLocked();
    }
    if (motion) motion->locationsDidUpdate(locations);
    if (!weather.empty()) requestWeather(weather);
}

}  // namespace kestrelvue

// ---- Permission check
// ---------------------------------------------------------------------------- The location
// permission check that a trip start asks, with the alerts handed to the host.

namespace kestrelvue {
namespace {

// Two buttons: one that opens this application's page in the device settings, one that only
// closes the alert.
std::shared_ptr<platform::Alert> makePermissionAlert(
    std::string title, std::string message, std::string settingsTitle,
    std::shared_ptr<platform::Application> application) {
    auto alert = std::make_shared<platform::Alert>();
    alert->title = std::move(title);
    alert->message = std::move(message);
    alert->preferredStyle = platform::Alert::Style::alert;
    alert->actions.push_back(
        platform::AlertAction{std::move(settingsTitle), platform::AlertAction::Style::defaultStyle,
                              [application = std::move(application)] {
                                  const std::string settings = application->openSettingsURLString();
                                  // Without a settings address the button does nothing.
                                  if (!settings.empty()) application->openURL(settings);
                              }});
    alert->actions.push_back(
        platform::AlertAction{"Vazgeç", platform::AlertAction::Style::cancel, nullptr});
    return alert;
}

}  // namespace

bool DrivingInsight::Impl::checkLocationPermisionWhenInUse() {
    std::shared_ptr<platform::LocationManager> manager;
    std::string displayName;
    {
        std::lock_guard lock(mutex_);
        manager = host.locationManager;
        displayName = host.bundleDisplayName;
    }

    std::shared_ptr<platform::Alert> alert;
    bool allowed = false;
    // An engine without a location manager cannot locate at all: treated as services off.
    if (!manager || !manager->locationServicesEnabled()) {
        alert = makePermissionAlert("Konum Servisleri Kapalı",
                                    "Sürüş başlatabilmek için Konum Servislerini açarak " +
                                        displayName + " uygulamasına izin veriniz",
                                    "Ayarlara Git", env_.application);
    } else {
        auto status = manager->authorizationStatus();
        if (status == platform::AuthorizationStatus::notDetermined) {
            // The answer comes later; the host starts the trip again once the user has answered.
            manager->requestWhenInUseAuthorization();
        } else if (status == platform::AuthorizationStatus::restricted ||
                   status == platform::AuthorizationStatus::denied) {
            alert = makePermissionAlert("Konum Erişim Yetkisi Bulunmuyor",
                                        "Sürüş başlatabilmek için Konum Servisleri'nden " +
                                            displayName + " uygulamasına izin veriniz",
                                        "Ayarlara  Git", env_.application);
        }
        allowed = status == platform::AuthorizationStatus::authorizedWhenInUse ||
                  status == platform::AuthorizationStatus::authorizedAlways;
    }

    if (alert) {
        if (auto delegate = delegateSnapshot())
            delegate->tripDidFail(1000, alert->title, alert->message, alert);
        return false;
    }
    return allowed;
}

}  // namespace kestrelvue
