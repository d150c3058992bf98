// Construction, the shared instance and the accessors of the engine.

#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/platform/Application.h>
#include <kestrelvue/platform/Device.h>
#include <kestrelvue/platform/Geocoder.h>
#include <kestrelvue/platform/LocationManager.h>
#include <kestrelvue/platform/MotionManager.h>

#include <utility>

#include "net/Outbox.h"
#include "platform/sim/Sim.h"
#include "records/TripReporter.h"

namespace kestrelvue {

DrivingInsight& DrivingInsight::sharedInstance() {
    // A function-local static is initialised exactly once even when threads race; the engine is
    // never destroyed, as hosts may hold references to it until the process ends.
    static DrivingInsight* const instance =
        new DrivingInsight(Environment::current(), &RestfulCall::sharedInstance());
    return *instance;
}

std::shared_ptr<DrivingInsightDelegate> DrivingInsight::delegateFor(
    const Environment& environment) {
    return detail::tripReporterFor(environment);
}

std::unique_ptr<DrivingInsight> DrivingInsight::makeDetached(const Environment& environment) {
    return std::unique_ptr<DrivingInsight>(new DrivingInsight(environment, nullptr));
}

DrivingInsight::DrivingInsight(const Environment& environment, RestfulCall* sharedCall)
    : getDrivingDataURL(environment.serviceURL("/api/Driving/getDriving")),
      addMotionDataURL(environment.serviceURL("/api/Driving/addMotionData")),
      getThresholdsURL(environment.serviceURL("/api/Driving/getThresholds")),
      getWeatherInfoURL(environment.serviceURL("/api/General/getWeatherDataByLatLon")),
      getSummaryURL(environment.serviceURL("/api/Driving/getDrivingSummary")),
      env_(environment),
      center_(environment.notifications ? *environment.notifications
                                        : NotificationCenter::defaultCenter()),
      restfulCall_(sharedCall),
      outbox_(detail::Outbox::forEnvironment(environment)) {
    if (!restfulCall_) {
        ownRestfulCall_ = std::make_unique<RestfulCall>(
            env_.http,
            env_.notifications
                ? env_.notifications
                : std::shared_ptr<NotificationCenter>(&NotificationCenter::defaultCenter(),
                                                      [](NotificationCenter*) {}),
            std::make_shared<Reachability>(env_.reachability));
        restfulCall_ = ownRestfulCall_.get();
    }

    // 1. Start values. Nobody else can see the engine yet, so no lock is needed.
    drivingID = env_.ids->makeUuid();
    summaryData = kestrelvue::SummaryData{};
    lastTrip = std::make_shared<Trip>(env_);
    startDateTime = env_.clock->now();
    endDateTime = env_.clock->now();
    startAnnotation = std::make_shared<platform::MapPin>();
    endAnnotation = std::make_shared<platform::MapPin>();
    {
        auto first = env_.clock->now();
        timeElapsedSinceStart =
            platform::DateComponents::hourMinuteSecond(first, env_.clock->now());
        first = env_.clock->now();
        timeElapsedSinceLastLocation =
            platform::DateComponents::hourMinuteSecond(first, env_.clock->now());
    }

    // 2. Application information. A missing or mistyped key keeps its default; a negative bulk
    // size would make every upload carry an empty bulk forever, so it is refused too.
    if (env_.applicationInfo) {
        const Object& info = *env_.applicationInfo;
        if (auto it = info.find("BulkMotionDataSize"); it != info.end()) {
            if (auto size = it->second.asInt(); size && *size >= 0) bulkMotionDataSize_ = *size;
        }
        if (auto it = info.find("CFBundleDisplayName"); it != info.end()) {
            if (const std::string* name = it->second.asString()) bundleDisplayName_ = *name;
        }
    }

    // 3. Orientations and totals.
    deviceOrientationGiven = 0;
    deviceOrientation = 0;
    eventCount = 0;

    // 4. The sensor managers; an environment without factories gets scriptable ones that never
    // deliver anything unless driven.
    motionManager_ = env_.makeMotionManager ? env_.makeMotionManager() : nullptr;
    if (!motionManager_) motionManager_ = std::make_shared<sim::MotionSource>();
    locationManager_ = env_.makeLocationManager ? env_.makeLocationManager() : nullptr;
    if (!locationManager_) locationManager_ = std::make_shared<sim::LocationManager>();

    // 5. The five handlers, for any sender.
    center_.addObserver(this, "motionDataSynced",
                        [this](const Notification& n) { MotionDataSynced(n); });
    center_.addObserver(this, "motionDataSyncFailed",
                        [this](const Notification& n) { MotionDataSyncFailed(n); });
    center_.addObserver(this, getThresholdsObserverName,
                        [this](const Notification& n) { getThresholds(n); });
    center_.addObserver(this, "tripStoppedEndAnnotationSetted",
                        [this](const Notification& n) { tripStoppedEndAnnotationSetted(n); });
    center_.addObserver(this, "tripEndedSuccessfully",
                        [this](const Notification& n) { tripEndedSuccessfully(n); });

    // 6. The bands and settings; the reply arrives later as "getThresholds".
    getThresholdsFromServer();

    // From now on trips made over this environment report their uploads to this engine.
    detail::registerTripReporter(env_, this, [this] { return drivingInsightDelegate(); });
}

DrivingInsight::~DrivingInsight() {
    detail::unregisterTripReporter(env_, this);
    *alive_ = false;
    center_.removeObserver(this);
    std::shared_ptr<platform::MotionManager> motion;
    {
        std::lock_guard lock(mutex_);
        motion = motionManager_;
    }
    // The sensor's handler refers to this engine; make sure it cannot run after us.
    if (motion && motion->isDeviceMotionActive()) motion->stopDeviceMotionUpdates();
}

std::shared_ptr<DrivingInsightDelegate> DrivingInsight::delegateSnapshot() const {
    std::lock_guard lock(mutex_);
    return drivingInsightDelegate_;
}

// ---- Host-settable fields ---------------------------------------------------------------------

std::int64_t DrivingInsight::bulkMotionDataSize() const {
    std::lock_guard lock(mutex_);
    return bulkMotionDataSize_;
}
void DrivingInsight::setBulkMotionDataSize(std::int64_t value) {
    std::lock_guard lock(mutex_);
    bulkMotionDataSize_ = value;
}
std::string DrivingInsight::bundleDisplayName() const {
    std::lock_guard lock(mutex_);
    return bundleDisplayName_;
}
void DrivingInsight::setBundleDisplayName(std::string value) {
    std::lock_guard lock(mutex_);
    bundleDisplayName_ = std::move(value);
}
std::shared_ptr<platform::MotionManager> DrivingInsight::MotionManager() const {
    std::lock_guard lock(mutex_);
    return motionManager_;
}
void DrivingInsight::setMotionManager(std::shared_ptr<platform::MotionManager> value) {
    std::lock_guard lock(mutex_);
    motionManager_ = std::move(value);
}
std::shared_ptr<platform::LocationManager> DrivingInsight::LocationManager() const {
    std::lock_guard lock(mutex_);
    return locationManager_;
}
void DrivingInsight::setLocationManager(std::shared_ptr<platform::LocationManager> value) {
    std::lock_guard lock(mutex_);
    locationManager_ = std::move(value);
}
std::shared_ptr<HistoryDataDelegate> DrivingInsight::historyDataDelegate() const {
    std::lock_guard lock(mutex_);
    return historyDataDelegate_;
}
void DrivingInsight::setHistoryDataDelegate(std::shared_ptr<HistoryDataDelegate> value) {
    std::lock_guard lock(mutex_);
    historyDataDelegate_ = std::move(value);
}
std::shared_ptr<DrivingInsightDelegate> DrivingInsight::drivingInsightDelegate() const {
    return delegateSnapshot();
}
void DrivingInsight::setDrivingInsightDelegate(std::shared_ptr<DrivingInsightDelegate> value) {
    std::lock_guard lock(mutex_);
    drivingInsightDelegate_ = std::move(value);
}

// ---- Accessors --------------------------------------------------------------------------------

#define KV_GETTER(Type, Name, field)    \
    Type DrivingInsight::Name() const { \
        std::lock_guard lock(mutex_);   \
        return field;                   \
    }
#define KV_SETTER(Type, Name, field)        \
    void DrivingInsight::Name(Type value) { \
        std::lock_guard lock(mutex_);       \
        (field) = std::move(value);         \
    }

KV_GETTER(std::int64_t, UserID, userID)
KV_SETTER(std::int64_t, setUserID, userID)
KV_GETTER(std::string, DrivingID, drivingID)
KV_GETTER(bool, IsDriving, isDriving)
KV_GETTER(std::shared_ptr<Trip>, LastTrip, lastTrip)
KV_GETTER(std::vector<std::shared_ptr<Trip>>, TripHistory, tripHistory)
KV_SETTER(std::vector<std::shared_ptr<Trip>>, setTripHistory, tripHistory)
KV_GETTER(kestrelvue::SummaryData, getSummaryDataRecord, summaryData)
KV_GETTER(ThresholdList, FuelEfficiencyLevel, fuelEfficiencyLevel)
KV_SETTER(ThresholdList, setFuelEfficiencyLevel, fuelEfficiencyLevel)
KV_GETTER(std::optional<platform::TimePoint>, StartDateTime, startDateTime)
KV_SETTER(std::optional<platform::TimePoint>, setStartDateTime, startDateTime)
KV_GETTER(std::optional<platform::TimePoint>, EndDateTime, endDateTime)
KV_SETTER(std::optional<platform::TimePoint>, setEndDateTime, endDateTime)
KV_GETTER(std::optional<platform::Location>, StartLocation, startLocation)
KV_SETTER(std::optional<platform::Location>, setStartLocation, startLocation)
KV_GETTER(std::optional<platform::Location>, EndLocation, endLocation)
KV_SETTER(std::optional<platform::Location>, setEndLocation, endLocation)
KV_GETTER(std::string, StartLocationStr, startLocationStr)
KV_SETTER(std::string, setStartLocationStr, startLocationStr)
KV_GETTER(std::string, EndLocationStr, endLocationStr)
KV_SETTER(std::string, setEndLocationStr, endLocationStr)
KV_GETTER(std::optional<platform::Location>, CurrentLocation, currentLocation)
KV_GETTER(platform::MapPinRef, StartAnnotation, startAnnotation)
KV_SETTER(platform::MapPinRef, setStartAnnotation, startAnnotation)
KV_GETTER(platform::MapPinRef, EndAnnotation, endAnnotation)
KV_SETTER(platform::MapPinRef, setEndAnnotation, endAnnotation)
KV_GETTER(std::vector<platform::Coordinate>, PassedCoordinates, passedCoordinates)
KV_SETTER(std::vector<platform::Coordinate>, setPassedCoordinates, passedCoordinates)
KV_GETTER(std::optional<platform::DateComponents>, TimeElapsedSinceStart, timeElapsedSinceStart)
KV_SETTER(std::optional<platform::DateComponents>, setTimeElapsedSinceStart, timeElapsedSinceStart)
KV_GETTER(std::optional<platform::DateComponents>, TimeElapsedSinceLastLocation,
          timeElapsedSinceLastLocation)
KV_SETTER(std::optional<platform::DateComponents>, setTimeElapsedSinceLastLocation,
          timeElapsedSinceLastLocation)
KV_GETTER(double, HoursElapsedSinceStart, hoursElapsedSinceStart)
KV_SETTER(double, setHoursElapsedSinceStart, hoursElapsedSinceStart)
KV_GETTER(double, HoursElapsedSinceLastLocation, hoursElapsedSinceLastLocation)
KV_SETTER(double, setHoursElapsedSinceLastLocation, hoursElapsedSinceLastLocation)
KV_GETTER(double, TotalTraveledDistance, totalTraveledDistance)
KV_SETTER(double, setTotalTraveledDistance, totalTraveledDistance)
KV_GETTER(double, TraveledDistanceSinceLastLocation, traveledDistanceSinceLastLocation)
KV_GETTER(double, CurrentSpeed, currentSpeed)
KV_GETTER(double, Score, score)
KV_SETTER(double, setScore, score)
KV_GETTER(std::optional<double>, Temperature, temperature)
KV_SETTER(std::optional<double>, setTemperature, temperature)

#undef KV_GETTER
#undef KV_SETTER

void DrivingInsight::setSummaryDataRecord(const kestrelvue::SummaryData& value) {
    std::lock_guard lock(mutex_);
    summaryData = value;
}

void DrivingInsight::setCurrentLocation(std::optional<platform::Location> value) {
    std::lock_guard lock(mutex_);
    setCurrentLocationLocked(value);
}

void DrivingInsight::setTraveledDistanceSinceLastLocation(double value) {
    std::lock_guard lock(mutex_);
    setTraveledDistanceSinceLastLocationLocked(value);
}

void DrivingInsight::setCurrentSpeed(double value) {
    std::lock_guard lock(mutex_);
    setCurrentSpeedLocked(value);
}

std::shared_ptr<Trip> DrivingInsight::CurrentTrip() const {
    std::lock_guard lock(mutex_);
    return makeCurrentTripLocked();
}

}  // namespace kestrelvue
