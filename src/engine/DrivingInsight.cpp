// Construction, the shared instance, the accessors of the engine, and the download of its
// penalty bands and settings.

#include <kestrelvue/platform/Application.h>
#include <kestrelvue/platform/Device.h>
#include <kestrelvue/platform/Geocoder.h>
#include <kestrelvue/platform/LocationManager.h>
#include <kestrelvue/platform/MotionManager.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

#include "core/Json.h"
#include "core/Locked.h"
#include "engine/EngineImpl.h"
#include "net/EncodedUpload.h"
#include "net/Outbox.h"
#include "records/EnvironmentServices.h"

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
    return environment.services().tripReporter();
}

std::unique_ptr<DrivingInsight> DrivingInsight::makeDetached(const Environment& environment) {
    return std::unique_ptr<DrivingInsight>(new DrivingInsight(environment, nullptr));
}

DrivingInsight::DrivingInsight(const Environment& environment, RestfulCall* sharedCall)
    : impl_(std::make_unique<Impl>(*this, environment, sharedCall)) {}

DrivingInsight::~DrivingInsight() = default;

DrivingInsight::Impl::Impl(DrivingInsight& self, const Environment& environment,
                           RestfulCall* sharedCall)
    : self_(self),
      urls{environment.serviceURL("/api/Driving/getDriving"),
           environment.serviceURL("/api/Driving/addMotionData"),
           environment.serviceURL("/api/Driving/getThresholds"),
           environment.serviceURL("/api/General/getWeatherDataByLatLon"),
           environment.serviceURL("/api/Driving/getDrivingSummary")},
      env_(environment),
      center_(*environment.notifications),
      net{sharedCall, nullptr, environment.services().outbox(), nullptr} {
    if (!net.outbox && env_.uploadsCompressed())
        net.deflater = std::make_unique<detail::Deflater>();
    if (!net.call) {
        net.ownCall = std::make_unique<RestfulCall>(
            env_.http, env_.notifications, std::make_shared<Reachability>(env_.reachability));
        net.call = net.ownCall.get();
    }

    // 1. Start values. Nobody else can see the engine yet, so no lock is needed.
    trip.drivingID = env_.ids->makeUuid();
    host.summaryData = kestrelvue::SummaryData{};
    host.lastTrip = std::make_shared<Trip>(env_);
    trip.startDateTime = env_.clock->now();
    trip.endDateTime = env_.clock->now();
    trip.startAnnotation = std::make_shared<platform::MapPin>();
    trip.endAnnotation = std::make_shared<platform::MapPin>();
    {
        auto first = env_.clock->now();
        trip.timeElapsedSinceStart =
            platform::DateComponents::hourMinuteSecond(first, env_.clock->now());
        first = env_.clock->now();
        trip.odometer.timeElapsedSinceLastLocation =
            platform::DateComponents::hourMinuteSecond(first, env_.clock->now());
    }

    // 2. Application information. A missing or mistyped key keeps its default; a negative bulk
    // size would make every upload carry an empty bulk forever, so it is refused too.
    if (env_.applicationInfo) {
        const Object& info = *env_.applicationInfo;
        if (auto it = info.find("BulkMotionDataSize"); it != info.end()) {
            if (auto size = it->second.asInt(); size && *size >= 0) host.bulkMotionDataSize = *size;
        }
        if (auto it = info.find("CFBundleDisplayName"); it != info.end()) {
            if (const std::string* name = it->second.asString()) host.bundleDisplayName = *name;
        }
    }

    // 3. Orientations and totals start at zero (the evaluator's own start values).

    // 4. The sensor managers the environment makes.
    host.motionManager = env_.makeMotionManager();
    host.locationManager = env_.makeLocationManager();

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

    // 6. The bands and settings; the reply arrives later as "getThresholds". Until then, with the
    // outbox on, the reply kept from an earlier run serves.
    applyKeptBands();
    getThresholdsFromServer();

    // From now on trips made over this environment report their uploads to this engine.
    env_.services().registerTripReporter(this, [this] { return delegateSnapshot(); });
}

DrivingInsight::Impl::~Impl() {
    env_.services().unregisterTripReporter(this);
    center_.removeObserver(this);
    std::shared_ptr<platform::MotionManager> motion;
    {
        std::lock_guard lock(mutex_);
        motion = host.motionManager;
    }
    // The session's handle (a member) keeps samples from reaching the engine once it ends; the
    // sensor is stopped as well, as it would be at the end of a trip.
    if (motion && motion->isDeviceMotionActive()) motion->stopDeviceMotionUpdates();
}

std::shared_ptr<DrivingInsightDelegate> DrivingInsight::Impl::delegateSnapshot() const {
    return detail::lockedRead(mutex_, host.drivingInsightDelegate);
}

// ---- Accessors: each reads a copy of its field, or replaces it, under the engine's lock
// ------------------------

std::int64_t DrivingInsight::bulkMotionDataSize() const {
    return detail::lockedRead(impl_->mutex_, impl_->host.bulkMotionDataSize);
}
void DrivingInsight::setBulkMotionDataSize(std::int64_t value) {
    detail::lockedWrite(impl_->mutex_, impl_->host.bulkMotionDataSize, value);
}
std::string DrivingInsight::bundleDisplayName() const {
    return detail::lockedRead(impl_->mutex_, impl_->host.bundleDisplayName);
}
void DrivingInsight::setBundleDisplayName(std::string value) {
    detail::lockedWrite(impl_->mutex_, impl_->host.bundleDisplayName, std::move(value));
}
std::shared_ptr<platform::MotionManager> DrivingInsight::MotionManager() const {
    return detail::lockedRead(impl_->mutex_, impl_->host.motionManager);
}
void DrivingInsight::setMotionManager(std::shared_ptr<platform::MotionManager> value) {
    detail::lockedWrite(impl_->mutex_, impl_->host.motionManager, std::move(value));
}
std::shared_ptr<platform::LocationManager> DrivingInsight::LocationManager() const {
    return detail::lockedRead(impl_->mutex_, impl_->host.locationManager);
}
void DrivingInsight::setLocationManager(std::shared_ptr<platform::LocationManager> value) {
    detail::lockedWrite(impl_->mutex_, impl_->host.locationManager, std::move(value));
}
std::shared_ptr<HistoryDataDelegate> DrivingInsight::historyDataDelegate() const {
    return detail::lockedRead(impl_->mutex_, impl_->host.historyDataDelegate);
}
void DrivingInsight::setHistoryDataDelegate(std::shared_ptr<HistoryDataDelegate> value) {
    detail::lockedWrite(impl_->mutex_, impl_->host.historyDataDelegate, std::move(value));
}
std::shared_ptr<DrivingInsightDelegate> DrivingInsight::drivingInsightDelegate() const {
    return detail::lockedRead(impl_->mutex_, impl_->host.drivingInsightDelegate);
}
void DrivingInsight::setDrivingInsightDelegate(std::shared_ptr<DrivingInsightDelegate> value) {
    detail::lockedWrite(impl_->mutex_, impl_->host.drivingInsightDelegate, std::move(value));
}
std::int64_t DrivingInsight::UserID() const {
    return detail::lockedRead(impl_->mutex_, impl_->host.userID);
}
void DrivingInsight::setUserID(std::int64_t value) {
    detail::lockedWrite(impl_->mutex_, impl_->host.userID, value);
}
std::string DrivingInsight::DrivingID() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.drivingID);
}
bool DrivingInsight::IsDriving() const {
    return detail::lockedRead(impl_->mutex_, impl_->isDriving);
}
std::shared_ptr<Trip> DrivingInsight::LastTrip() const {
    return detail::lockedRead(impl_->mutex_, impl_->host.lastTrip);
}
std::vector<std::shared_ptr<Trip>> DrivingInsight::TripHistory() const {
    return detail::lockedRead(impl_->mutex_, impl_->host.tripHistory);
}
void DrivingInsight::setTripHistory(std::vector<std::shared_ptr<Trip>> value) {
    detail::lockedWrite(impl_->mutex_, impl_->host.tripHistory, std::move(value));
}
kestrelvue::SummaryData DrivingInsight::getSummaryDataRecord() const {
    return detail::lockedRead(impl_->mutex_, impl_->host.summaryData);
}
ThresholdList DrivingInsight::FuelEfficiencyLevel() const {
    return detail::lockedRead(impl_->mutex_, impl_->settings.fuelEfficiencyLevel);
}
void DrivingInsight::setFuelEfficiencyLevel(ThresholdList value) {
    detail::lockedWrite(impl_->mutex_, impl_->settings.fuelEfficiencyLevel, std::move(value));
}
std::optional<platform::TimePoint> DrivingInsight::StartDateTime() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.startDateTime);
}
void DrivingInsight::setStartDateTime(std::optional<platform::TimePoint> value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.startDateTime, value);
}
std::optional<platform::TimePoint> DrivingInsight::EndDateTime() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.endDateTime);
}
void DrivingInsight::setEndDateTime(std::optional<platform::TimePoint> value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.endDateTime, value);
}
std::optional<platform::Location> DrivingInsight::StartLocation() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.startLocation);
}
void DrivingInsight::setStartLocation(std::optional<platform::Location> value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.startLocation, value);
}
std::optional<platform::Location> DrivingInsight::EndLocation() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.endLocation);
}
void DrivingInsight::setEndLocation(std::optional<platform::Location> value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.endLocation, value);
}
std::string DrivingInsight::StartLocationStr() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.startLocationStr);
}
void DrivingInsight::setStartLocationStr(std::string value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.startLocationStr, std::move(value));
}
std::string DrivingInsight::EndLocationStr() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.endLocationStr);
}
void DrivingInsight::setEndLocationStr(std::string value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.endLocationStr, std::move(value));
}
std::optional<platform::Location> DrivingInsight::CurrentLocation() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.odometer.currentLocation);
}
platform::MapPinRef DrivingInsight::StartAnnotation() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.startAnnotation);
}
void DrivingInsight::setStartAnnotation(platform::MapPinRef value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.startAnnotation, std::move(value));
}
platform::MapPinRef DrivingInsight::EndAnnotation() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.endAnnotation);
}
void DrivingInsight::setEndAnnotation(platform::MapPinRef value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.endAnnotation, std::move(value));
}
std::vector<platform::Coordinate> DrivingInsight::PassedCoordinates() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.passedCoordinates);
}
void DrivingInsight::setPassedCoordinates(std::vector<platform::Coordinate> value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.passedCoordinates, std::move(value));
}
std::optional<platform::DateComponents> DrivingInsight::TimeElapsedSinceStart() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.timeElapsedSinceStart);
}
void DrivingInsight::setTimeElapsedSinceStart(std::optional<platform::DateComponents> value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.timeElapsedSinceStart, value);
}
std::optional<platform::DateComponents> DrivingInsight::TimeElapsedSinceLastLocation() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.odometer.timeElapsedSinceLastLocation);
}
void DrivingInsight::setTimeElapsedSinceLastLocation(
    std::optional<platform::DateComponents> value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.odometer.timeElapsedSinceLastLocation, value);
}
double DrivingInsight::HoursElapsedSinceStart() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.hoursElapsedSinceStart);
}
void DrivingInsight::setHoursElapsedSinceStart(double value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.hoursElapsedSinceStart, value);
}
double DrivingInsight::HoursElapsedSinceLastLocation() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.odometer.hoursElapsedSinceLastLocation);
}
void DrivingInsight::setHoursElapsedSinceLastLocation(double value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.odometer.hoursElapsedSinceLastLocation, value);
}
double DrivingInsight::TotalTraveledDistance() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.odometer.totalTraveledDistance);
}
void DrivingInsight::setTotalTraveledDistance(double value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.odometer.totalTraveledDistance, value);
}
double DrivingInsight::TraveledDistanceSinceLastLocation() const {
    return detail::lockedRead(impl_->mutex_,
                              impl_->trip.odometer.traveledDistanceSinceLastLocation);
}
double DrivingInsight::CurrentSpeed() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.odometer.currentSpeed);
}
double DrivingInsight::Score() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.score);
}
void DrivingInsight::setScore(double value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.score, value);
}
std::optional<double> DrivingInsight::Temperature() const {
    return detail::lockedRead(impl_->mutex_, impl_->trip.temperature);
}
void DrivingInsight::setTemperature(std::optional<double> value) {
    detail::lockedWrite(impl_->mutex_, impl_->trip.temperature, value);
}

void DrivingInsight::setSummaryDataRecord(const kestrelvue::SummaryData& value) {
    detail::lockedWrite(impl_->mutex_, impl_->host.summaryData, value);
}

// These three move the odometer by its own rules rather than storing the value as given.
void DrivingInsight::setCurrentLocation(std::optional<platform::Location> value) {
    Impl& impl = *impl_;
    detail::withLock(impl.mutex_, [&] {
        impl.trip.odometer.moveTo(value, impl.settings.distanceFilterForSpeed);
    });
}

void DrivingInsight::setTraveledDistanceSinceLastLocation(double value) {
    detail::withLock(impl_->mutex_, [&] { impl_->trip.odometer.addLeg(value); });
}

void DrivingInsight::setCurrentSpeed(double value) {
    detail::withLock(impl_->mutex_, [&] { impl_->trip.odometer.setSpeed(value); });
}

std::shared_ptr<Trip> DrivingInsight::Impl::CurrentTrip() const {
    return detail::withLock(mutex_,
                            [this] { return trip.record(env_, host.userID, env_.clock->now()); });
}

// ---- The public engine forwards to its implementation ----------------------------------------

const std::string& DrivingInsight::getDrivingDataURL() const {
    return impl_->urls.getDrivingDataURL;
}
const std::string& DrivingInsight::addMotionDataURL() const {
    return impl_->urls.addMotionDataURL;
}
const std::string& DrivingInsight::getThresholdsURL() const {
    return impl_->urls.getThresholdsURL;
}
const std::string& DrivingInsight::getWeatherInfoURL() const {
    return impl_->urls.getWeatherInfoURL;
}
const std::string& DrivingInsight::getSummaryURL() const {
    return impl_->urls.getSummaryURL;
}
RestfulCall& DrivingInsight::restfulCall() const {
    return *impl_->net.call;
}
const Environment& DrivingInsight::environment() const {
    return impl_->env_;
}

std::shared_ptr<Trip> DrivingInsight::CurrentTrip() const {
    return impl_->CurrentTrip();
}

bool DrivingInsight::startTrip() {
    return impl_->startTrip();
}

void DrivingInsight::stopTrip() {
    impl_->stopTrip();
}

void DrivingInsight::didUpdateLocations(const std::vector<platform::Location>& locations) {
    impl_->didUpdateLocations(locations);
}

void DrivingInsight::evaluateActionForDrivingScore(std::int64_t motionId, const Vector3& attitude,
                                                   const Vector3& rotationRate,
                                                   const Vector3& userAcceleration,
                                                   const Vector3& gravity) {
    impl_->evaluateActionForDrivingScore(motionId, attitude, rotationRate, userAcceleration,
                                         gravity);
}

void DrivingInsight::getTripHistory() {
    impl_->getTripHistory();
}

void DrivingInsight::getSummaryData(std::int64_t for_) {
    impl_->getSummaryData(for_);
}

}  // namespace kestrelvue

// ---- Settings download
// --------------------------------------------------------------------------- The download of the
// penalty bands and scalar settings.
//
// A reply is applied whole or not at all: every element that names a setting or list is checked
// first, and one malformed element turns the whole reply into a failure (the settings keep their
// values and the host hears "thresholdsGot" with the error text). Elements without a name, or
// with a name the engine does not know, are ignored whatever else they hold, so the service can
// add kinds without breaking older engines.

namespace kestrelvue {

namespace {

constexpr const char* kThresholdsGot = "thresholdsGot";
constexpr const char* kThresholdsFailedText = "Sunucudan ayarlar indirilemedi. Tekrar deneyiniz";
// The kept reply, beside the outbox's store. A real reply is a few kilobytes.
constexpr const char* kKeptBandsFile = "thresholds.json";
constexpr std::size_t kKeptBandsMaxBytes = std::size_t{1} << 20;

std::optional<detail::Settings::Reply> readKept(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    auto parsed = json::parse(text.str(), json::ParseLimits{kKeptBandsMaxBytes});
    if (!parsed) return std::nullopt;
    Object info;
    info["Data"] = std::move(*parsed.value);
    return detail::Settings::Reply::read(UserInfo(std::move(info)));
}

}  // namespace

std::filesystem::path DrivingInsight::Impl::keptBandsFile() const {
    const std::string directory = env_.outboxPath();
    if (directory.empty()) return {};
    return std::filesystem::path(directory) / kKeptBandsFile;
}

void DrivingInsight::Impl::applyKeptBands() {
    const auto file = keptBandsFile();
    std::error_code ec;
    if (file.empty() || !std::filesystem::exists(file, ec)) return;
    if (auto reply = readKept(file)) {
        std::lock_guard lock(mutex_);
        settings.apply(*reply);
        settings.fromKeptReply = true;
        return;
    }
    // Read with the refusals of a download: a damaged file is applied not at all, and set aside
    // (not deleted) so that nothing is read from it again and it can still be looked at.
    const auto stamp =
        std::chrono::duration_cast<std::chrono::seconds>(env_.clock->now().time_since_epoch())
            .count();
    std::filesystem::rename(file, file.string() + ".damaged-" + std::to_string(stamp), ec);
}

void DrivingInsight::Impl::keepBands(const UserInfo& reply) {
    const auto file = keptBandsFile();
    if (file.empty() || !reply) return;
    auto data = reply->find("Data");
    if (data == reply->end()) return;
    auto text = json::write(data->second);
    if (!text) return;
    // Written aside and renamed over the old one, so a crash mid-write never leaves half a file.
    std::error_code ec;
    std::filesystem::create_directories(file.parent_path(), ec);
    // Named by thread: two engines over one directory may both be keeping a reply.
    const std::filesystem::path partial =
        file.string() + ".partial-" +
        std::to_string(std::hash<std::thread::id>{}(std::this_thread::get_id()));
    {
        std::ofstream out(partial, std::ios::binary | std::ios::trunc);
        out << *text;
        out.flush();
        if (!out) {
            std::filesystem::remove(partial, ec);
            return;
        }
    }
    std::filesystem::rename(partial, file, ec);
    if (ec) std::filesystem::remove(partial, ec);
}

void DrivingInsight::Impl::getThresholdsFromServer() {
    net.call->Get(urls.getThresholdsURL, getThresholdsObserverName, true);
}

void DrivingInsight::Impl::getThresholds(const Notification& notification) {
    std::optional<detail::Settings::Reply> reply;
    const bool failed = notification.userInfo && notification.userInfo->count("error") &&
                        notification.userInfo->find("error")->second.isString();
    if (!failed) reply = detail::Settings::Reply::read(notification.userInfo);

    if (!reply) {
        center_.post(kThresholdsGot, &self_, Object{{"error", Value(kThresholdsFailedText)}});
        return;
    }
    {
        std::lock_guard lock(mutex_);
        // A fresh reply replaces the kept one rather than adding to it.
        if (settings.fromKeptReply) settings = detail::Settings{};
        settings.apply(*reply);
    }
    keepBands(notification.userInfo);
    center_.post(kThresholdsGot, &self_);
}

}  // namespace kestrelvue
