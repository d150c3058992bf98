// Starting, sampling, stopping and completing a trip.

#include <kestrelvue/platform/Application.h>
#include <kestrelvue/platform/Device.h>
#include <kestrelvue/platform/Geocoder.h>
#include <kestrelvue/platform/LocationManager.h>
#include <kestrelvue/platform/MotionManager.h>

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

/// Hours, minutes and seconds in decimal without padding, joined by ":" (0:25:13).
std::string elapsedText(const std::optional<platform::DateComponents>& c) {
    platform::DateComponents v = c.value_or(platform::DateComponents{});
    return std::to_string(v.hour) + ":" + std::to_string(v.minute) + ":" + std::to_string(v.second);
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
    if (env_.application) env_.application->setIdleTimerDisabled(true);

    std::shared_ptr<platform::MotionManager> motion = MotionManager();
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
        const platform::TimePoint now = env_.clock->now();
        drivingID = env_.ids->makeUuid();
        startDateTime = now;
        startLocation = platform::Location{};
        startLocationStr.clear();
        endLocation = platform::Location{};
        endLocationStr.clear();
        startAnnotation = std::make_shared<platform::MapPin>();
        endAnnotation = std::make_shared<platform::MapPin>();
        platform::Location placeholder;
        placeholder.horizontalAccuracy = 1000;
        placeholder.verticalAccuracy = 1000;
        placeholder.timestamp = now;
        currentLocation = placeholder;
        passedCoordinates.clear();
        timeElapsedSinceStart =
            platform::DateComponents::hourMinuteSecond(*startDateTime, env_.clock->now());
        timeElapsedSinceLastLocation =
            platform::DateComponents::hourMinuteSecond(*startDateTime, env_.clock->now());
        hoursElapsedSinceStart = hoursElapsedSinceLastLocation = 0;
        totalTraveledDistance = previousSpeed = currentSpeed = 0;
        traveledDistanceSinceLastLocation = 0;
        sharpCorneringCount = sharpSpeedingCount = sharpBrakingCount = sharpElevatingCount =
            sharpLaneChangingCount = 0;
        sharpCorneringPenalty = sharpSpeedingPenalty = sharpBrakingPenalty = sharpElevatingPenalty =
            sharpLaneChangingPenalty = 0;
        sharpCorneringPenaltyPerKM = sharpSpeedingPenaltyPerKM = sharpBrakingPenaltyPerKM =
            sharpElevatingPenaltyPerKM = sharpLaneChangingPenaltyPerKM =
                fuelEfficiencyPenaltyPerKM = 0;
        score = 0;
        temperature.reset();
        location = locationManager_;
        interval = updateInterval;
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
    std::weak_ptr<bool> alive = alive_;
    motion->startDeviceMotionUpdates(
        platform::AttitudeReferenceFrame::xArbitraryZVertical, env_.mainQueue,
        [this, alive, counter](const std::optional<platform::DeviceMotion>& sample,
                               const std::optional<platform::MotionError>&) {
            if (alive.lock()) handleMotionSample(counter, sample);
        });
    return true;
}

void DrivingInsight::Impl::handleMotionSample(const std::shared_ptr<std::int64_t>& counter,
                                              const std::optional<platform::DeviceMotion>& motion) {
    if (!motion) return;
    const int given = env_.device ? static_cast<int>(env_.device->orientation()) : 0;
    std::int64_t motionId = 0;
    bool timedOut = false;
    {
        std::lock_guard lock(mutex_);
        if (!isDriving) return;
        const platform::TimePoint now = env_.clock->now();
        const platform::TimePoint start = startDateTime.value_or(now);
        if (!hasPosition(currentLocation)) {
            if (platform::DateComponents::secondOnly(start, now).second < kNoPositionTimeoutSeconds)
                return;  // no position yet: the sample is dropped
            timedOut = true;
        } else {
            deviceOrientation = getDeviceOrientation(motion->attitude);
            deviceOrientationGiven = given;
            timeElapsedSinceStart = platform::DateComponents::hourMinuteSecond(start, now);
            hoursElapsedSinceStart =
                static_cast<double>(timeElapsedSinceStart->hour) +
                static_cast<double>(timeElapsedSinceStart->minute) / birSaatKacDakika +
                static_cast<double>(timeElapsedSinceStart->second) / birSaatKacSaniye;
            motionId = ++*counter;
        }
    }
    if (timedOut) {
        stopTrip();
        if (auto delegate = delegateSnapshot())
            delegate->tripDidFail(kErrorCode, "Sürüş Sonlandırılıyor",
                                  "Konum bilgisi alınamadığı için Sürüş Başlatılamıyor. Daha sonra "
                                  "tekrar deneyiniz",
                                  nullptr);
        return;
    }
    evaluateActionForDrivingScore(motionId, motion->attitude, motion->rotationRate,
                                  motion->userAcceleration, motion->gravity);
}

void DrivingInsight::Impl::stopTrip() {
    std::shared_ptr<platform::MotionManager> motion;
    std::shared_ptr<platform::LocationManager> location;
    std::optional<platform::Location> end;
    bool startKnown;
    {
        std::lock_guard lock(mutex_);
        isDriving = false;
        endDateTime = env_.clock->now();
        motion = motionManager_;
        location = locationManager_;
        end = endLocation;
        startKnown = hasPosition(startLocation);
    }
    if (env_.application) env_.application->setIdleTimerDisabled(false);
    if (location) location->stopUpdatingLocation();
    if (motion && motion->isDeviceMotionActive()) motion->stopDeviceMotionUpdates();

    if (hasPosition(end)) {
        {
            std::lock_guard lock(mutex_);
            if (!endAnnotation) endAnnotation = std::make_shared<platform::MapPin>();
            endAnnotation->coordinate = end->coordinate;
            endAnnotation->subtitle = "Bitiş";
        }
        if (!env_.geocoder) {
            // Without a geocoder the lookup fails at once.
            setEndLocationStr("???");
            center_.post("tripStoppedEndAnnotationSetted", &self_);
            return;
        }
        std::weak_ptr<bool> alive = alive_;
        env_.geocoder->reverseGeocodeLocation(
            *end, [this, alive](const std::optional<std::vector<platform::Placemark>>& placemarks,
                                const std::optional<platform::GeocodeError>& error) {
                if (!alive.lock()) return;
                {
                    std::lock_guard lock(mutex_);
                    if (error)
                        endLocationStr = "???";
                    else if (placemarks && !placemarks->empty())
                        endLocationStr = formatAddressFromPlacemark(placemarks->front());
                    else if (endLocationStr.empty())
                        // Neither an address nor an error: the trip still completes, so it
                        // reaches the history and the service.
                        endLocationStr = "???";
                }
                center_.post("tripStoppedEndAnnotationSetted", &self_);
            });
        return;
    }
    if (!startKnown) {
        if (auto delegate = delegateSnapshot()) delegate->tripDidFinish(nullptr);
        return;
    }
    {
        std::lock_guard lock(mutex_);
        if (!endAnnotation) endAnnotation = std::make_shared<platform::MapPin>();
        endAnnotation->coordinate = platform::Coordinate{0, 0};
        endLocationStr = "???";
    }
    center_.post("tripStoppedEndAnnotationSetted", &self_);
}

void DrivingInsight::Impl::geocodeStartAddress(const platform::Location& location) {
    if (!env_.geocoder) {
        setStartLocationStr("???");
        return;
    }
    std::weak_ptr<bool> alive = alive_;
    env_.geocoder->reverseGeocodeLocation(
        location, [this, alive](const std::optional<std::vector<platform::Placemark>>& placemarks,
                                const std::optional<platform::GeocodeError>& error) {
            if (!alive.lock()) return;
            std::lock_guard lock(mutex_);
            if (error)
                startLocationStr = "???";
            else if (placemarks && !placemarks->empty())
                startLocationStr = formatAddressFromPlacemark(placemarks->front());
        });
}

void DrivingInsight::Impl::requestWeather() {
    std::string url;
    {
        std::lock_guard lock(mutex_);
        const platform::Coordinate at =
            currentLocation ? currentLocation->coordinate : platform::Coordinate{};
        url = getWeatherInfoURL + "/" + std::to_string(userID) +
              "?latitude=" + platform::shortestDecimalText(at.latitude) +
              "&longitude=" + platform::shortestDecimalText(at.longitude);
    }
    restfulCall_->Get(url, "getWeatherInfo", false);
}

void DrivingInsight::Impl::tripStoppedEndAnnotationSetted(const Notification&) {
    if (outbox_) {
        handOverStoppedTrip();
        return;
    }
    bool send = false;
    {
        std::lock_guard lock(mutex_);
        if (!tripMotion.isSyncingToServer) {
            tripMotion.isSyncingToServer = true;
            send = true;
        }
    }
    // Otherwise the upload in flight continues the flush when it succeeds.
    if (send) sendMotionDataToServer();
}

void DrivingInsight::Impl::completeStoppedTrip() {
    {
        std::lock_guard lock(mutex_);
        if (endLocationStr.empty()) return;
        score = calculateScore();
        lastTrip = makeCurrentTripLocked();
        tripHistory.push_back(makeCurrentTripLocked());
    }
    center_.post("tripEndedSuccessfully", &self_);
}

void DrivingInsight::Impl::tripEndedSuccessfully(const Notification&) {
    CurrentTrip()->saveToServer();
}

std::shared_ptr<Trip> DrivingInsight::Impl::makeCurrentTripLocked() const {
    auto trip = std::make_shared<Trip>(env_);
    trip->UserID = userID;
    trip->DrivingID = drivingID;
    if (startDateTime) trip->StartDateTime = *startDateTime;
    trip->StartDateTime_Formatted = Trip::formatDateTime(trip->StartDateTime);
    trip->StartLocation = startLocationStr;
    if (startLocation) {
        trip->StartLocationLat = startLocation->coordinate.latitude;
        trip->StartLocationLong = startLocation->coordinate.longitude;
    }
    if (endDateTime) trip->EndDateTime = *endDateTime;
    trip->EndLocation = endLocationStr;
    if (endLocation) {
        trip->EndLocationLat = endLocation->coordinate.latitude;
        trip->EndLocationLong = endLocation->coordinate.longitude;
    }
    trip->StartAnnotation = startAnnotation;
    trip->EndAnnotation = endAnnotation;
    trip->Score = score;
    trip->SharpCorneringCount = sharpCorneringCount;
    trip->SharpSpeedingCount = sharpSpeedingCount;
    trip->SharpBrakingCount = sharpBrakingCount;
    trip->SharpElevatingCount = sharpElevatingCount;
    trip->SharpLaneChangingCount = sharpLaneChangingCount;
    trip->SharpCorneringPenalty = sharpCorneringPenalty;
    trip->SharpSpeedingPenalty = sharpSpeedingPenalty;
    trip->SharpBrakingPenalty = sharpBrakingPenalty;
    trip->SharpElevatingPenalty = sharpElevatingPenalty;
    trip->SharpLaneChangingPenalty = sharpLaneChangingPenalty;
    trip->SharpCorneringPenaltyPerKM = sharpCorneringPenaltyPerKM;
    trip->SharpSpeedingPenaltyPerKM = sharpSpeedingPenaltyPerKM;
    trip->SharpBrakingPenaltyPerKM = sharpBrakingPenaltyPerKM;
    trip->SharpElevatingPenaltyPerKM = sharpElevatingPenaltyPerKM;
    trip->SharpLaneChangingPenaltyPerKM = sharpLaneChangingPenaltyPerKM;
    trip->FuelEfficiencyPenaltyPerKM = fuelEfficiencyPenaltyPerKM;
    trip->PassedCoordinates = passedCoordinates;
    trip->TimeElapsed = elapsedText(timeElapsedSinceStart);
    trip->TotalDistance = totalTraveledDistance;
    trip->TimeElapsedTotalDistance_Formatted =
        Trip::formatTimeElapsedTotalDistance(trip->TimeElapsed, trip->TotalDistance);
    trip->SentToServer = false;
    trip->SystemDate = env_.clock->now();
    return trip;
}

}  // namespace kestrelvue
