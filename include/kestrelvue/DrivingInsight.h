#pragma once
// The driving engine: one per process, reached through DrivingInsight::sharedInstance().
//
// Threading: host calls, motion samples and geocoder answers arrive on the host's main thread;
// service replies and the handlers they trigger run on HTTP worker threads. The state lives in
// the implementation (src/engine/EngineImpl.h), behind one lock; delegates are called and
// notifications posted only after it is released.

#include <kestrelvue/Delegates.h>
#include <kestrelvue/Environment.h>
#include <kestrelvue/Export.h>
#include <kestrelvue/FaultItem.h>
#include <kestrelvue/LaneChangingData.h>
#include <kestrelvue/MotionData.h>
#include <kestrelvue/MotionDataItem.h>
#include <kestrelvue/NotificationCenter.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/SummaryData.h>
#include <kestrelvue/Threshold.h>
#include <kestrelvue/Trip.h>
#include <kestrelvue/platform/Location.h>
#include <kestrelvue/platform/MotionManager.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvue {

namespace platform {
class MotionManager;
class LocationManager;
struct Placemark;
}  // namespace platform

/// Posted (object the engine, user information {"drivingID": text}) just before
/// "tripEndedSuccessfully" when a trip completes while the engine holds no band at all (the
/// threshold download has not succeeded and no kept reply served): nothing was charged, so its
/// score of 100 says nothing about the drive.
inline constexpr const char* kTripUnscored = "tripUnscored";

class HistoryDataDelegate;
namespace detail {
class Outbox;
}

class KESTRELVUE_EXPORT DrivingInsight {
public:
    // Nested records, under the names hosts know them by.
    using Threshold = kestrelvue::Threshold;
    using MotionDataItem = kestrelvue::MotionDataItem;
    using MotionData = kestrelvue::MotionData;
    using FaultItem = kestrelvue::FaultItem;
    using FaultTypes = kestrelvue::FaultTypes;
    using LaneChangingData = kestrelvue::LaneChangingData;
    using SummaryData = kestrelvue::SummaryData;

    /// The one engine of the process, created on first use from Environment::current().
    static DrivingInsight& sharedInstance();

    /// Internal seam: a fresh, independent engine over `environment` (tests and replays).
    static std::unique_ptr<DrivingInsight> makeDetached(const Environment& environment);

    ~DrivingInsight();
    DrivingInsight(const DrivingInsight&) = delete;
    DrivingInsight& operator=(const DrivingInsight&) = delete;

    // Unit constants.
    static constexpr double birSaatKacDakika = 60.0;
    static constexpr double birSaatKacSaniye = 3600.0;
    static constexpr double birSaniyeKacNanoSaniye = 1e9;
    static constexpr double birKilometreKacMetre = 1000.0;

    // Service addresses.
    const std::string& getDrivingDataURL() const;
    const std::string& addMotionDataURL() const;
    const std::string& getThresholdsURL() const;
    const std::string& getWeatherInfoURL() const;
    const std::string& getSummaryURL() const;
    static constexpr const char* getThresholdsObserverName = "getThresholds";

    RestfulCall& restfulCall() const;
    const Environment& environment() const;

    /// The delegate that trip uploads report to: that of the first live engine made over
    /// `environment` (the shared engine's for the current one, once it exists); null otherwise.
    static std::shared_ptr<DrivingInsightDelegate> delegateFor(const Environment& environment);

    // ---- Host-settable fields -------------------------------------------------------------
    std::int64_t bulkMotionDataSize() const;
    void setBulkMotionDataSize(std::int64_t value);
    std::string bundleDisplayName() const;
    void setBundleDisplayName(std::string value);
    std::shared_ptr<platform::MotionManager> MotionManager() const;
    void setMotionManager(std::shared_ptr<platform::MotionManager> value);
    std::shared_ptr<platform::LocationManager> LocationManager() const;
    void setLocationManager(std::shared_ptr<platform::LocationManager> value);
    std::shared_ptr<HistoryDataDelegate> historyDataDelegate() const;
    void setHistoryDataDelegate(std::shared_ptr<HistoryDataDelegate> value);
    std::shared_ptr<DrivingInsightDelegate> drivingInsightDelegate() const;
    void setDrivingInsightDelegate(std::shared_ptr<DrivingInsightDelegate> value);

    // ---- Accessors ------------------------------------------------------------------------
    std::int64_t UserID() const;
    void setUserID(std::int64_t value);
    std::string DrivingID() const;
    bool IsDriving() const;
    std::shared_ptr<Trip> LastTrip() const;
    std::vector<std::shared_ptr<Trip>> TripHistory() const;
    void setTripHistory(std::vector<std::shared_ptr<Trip>> value);
    kestrelvue::SummaryData getSummaryDataRecord() const;  // the `SummaryData` accessor
    void setSummaryDataRecord(const kestrelvue::SummaryData& value);
    ThresholdList FuelEfficiencyLevel() const;
    void setFuelEfficiencyLevel(ThresholdList value);
    std::optional<platform::TimePoint> StartDateTime() const;
    void setStartDateTime(std::optional<platform::TimePoint> value);
    std::optional<platform::TimePoint> EndDateTime() const;
    void setEndDateTime(std::optional<platform::TimePoint> value);
    std::optional<platform::Location> StartLocation() const;
    void setStartLocation(std::optional<platform::Location> value);
    std::optional<platform::Location> EndLocation() const;
    void setEndLocation(std::optional<platform::Location> value);
    std::string StartLocationStr() const;
    void setStartLocationStr(std::string value);
    std::string EndLocationStr() const;
    void setEndLocationStr(std::string value);
    std::optional<platform::Location> CurrentLocation() const;
    /// Computes speed and distance from the old fix to `value`, then stores it.
    void setCurrentLocation(std::optional<platform::Location> value);
    platform::MapPinRef StartAnnotation() const;
    void setStartAnnotation(platform::MapPinRef value);
    platform::MapPinRef EndAnnotation() const;
    void setEndAnnotation(platform::MapPinRef value);
    std::vector<platform::Coordinate> PassedCoordinates() const;
    void setPassedCoordinates(std::vector<platform::Coordinate> value);
    std::optional<platform::DateComponents> TimeElapsedSinceStart() const;
    void setTimeElapsedSinceStart(std::optional<platform::DateComponents> value);
    std::optional<platform::DateComponents> TimeElapsedSinceLastLocation() const;
    void setTimeElapsedSinceLastLocation(std::optional<platform::DateComponents> value);
    double HoursElapsedSinceStart() const;
    void setHoursElapsedSinceStart(double value);
    double HoursElapsedSinceLastLocation() const;
    void setHoursElapsedSinceLastLocation(double value);
    double TotalTraveledDistance() const;
    void setTotalTraveledDistance(double value);
    double TraveledDistanceSinceLastLocation() const;
    /// Stores the value, then adds it to the total travelled distance.
    void setTraveledDistanceSinceLastLocation(double value);
    double CurrentSpeed() const;
    /// Copies the old speed into previousSpeed, then stores the new one.
    void setCurrentSpeed(double value);
    double Score() const;
    void setScore(double value);
    std::optional<double> Temperature() const;
    void setTemperature(std::optional<double> value);
    /// A fresh record built from the engine's fields at this moment.
    std::shared_ptr<Trip> CurrentTrip() const;

    // ---- Operations -----------------------------------------------------------------------
    bool startTrip();
    void stopTrip();
    void didUpdateLocations(const std::vector<platform::Location>& locations);
    void evaluateActionForDrivingScore(std::int64_t motionId, const Vector3& attitude,
                                       const Vector3& rotationRate, const Vector3& userAcceleration,
                                       const Vector3& gravity);
    void getTripHistory();
    void getSummaryData(std::int64_t for_);

private:
    DrivingInsight(const Environment& environment, RestfulCall* sharedCall);
    friend struct DrivingInsightTestAccess;  // tests/support/EngineHarness.h

    struct Impl;  // src/engine/EngineImpl.h
    std::unique_ptr<Impl> impl_;
};

}  // namespace kestrelvue
