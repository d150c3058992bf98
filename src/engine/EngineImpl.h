#pragma once
// The engine's implementation: every piece of state DrivingInsight has, and the operations on
// it. The public class's accessors read and write these fields under mutex_, and its operations
// forward here, so that a new field changes nothing hosts compile against.
//
// Threading: host calls, motion samples and geocoder answers arrive on the host's main thread;
// service replies and the handlers they trigger run on HTTP worker threads. All state below is
// guarded by mutex_; delegates are called and notifications posted only after it is released.

#include <kestrelvue/DrivingInsight.h>

#include <filesystem>

#include "core/FrequentNotification.h"
#include "engine/EngineState.h"

namespace kestrelvue {

namespace detail {
class Deflater;
}

/// The keys of "showMotionData", in ascending order.
inline constexpr std::array<const char*, 10> kShowMotionDataKeys = {
    "brakingRate", "calculatedSpeed", "corneringRate", "elevatingRate",         "locationSpeed",
    "motionID",    "orientation",     "speedingRate",  "timeElapsedSinceStart", "totalDistance"};

struct DrivingInsight::Impl {
    /// `sharedCall` is the process's gateway; null makes the engine its own over `environment`.
    Impl(DrivingInsight& self, const Environment& environment, RestfulCall* sharedCall);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    /// The public engine: the sender of the engine's notifications.
    DrivingInsight& self_;

    // Service addresses.
    const std::string getDrivingDataURL;
    const std::string addMotionDataURL;
    const std::string getThresholdsURL;
    const std::string getWeatherInfoURL;
    const std::string getSummaryURL;

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

    // ---- Private operations ---------------------------------------------------------------
    // Each is defined in the source file of its concern. "Locked" means: call with mutex_ held;
    // all others take the lock themselves and must be called without it.

    // Lifecycle.cpp
    /// 5 (face up) when -0.35 < pitch < 0.35, else 0 (unknown).
    static int getDeviceOrientation(const Vector3& attitude);
    /// The placemark's formatted address lines joined with ", ".
    static std::string formatAddressFromPlacemark(const platform::Placemark& placemark);
    /// One device-motion delivery of the trip whose sample counter is `counter`.
    void handleMotionSample(const std::shared_ptr<std::int64_t>& counter,
                            const std::optional<platform::DeviceMotion>& motion);
    /// Reverse-geocodes the trip's start position into startLocationStr ("???" on error).
    void geocodeStartAddress(const platform::Location& location);
    /// GET of the weather at currentLocation under the observer name "getWeatherInfo".
    void requestWeather();
    void tripStoppedEndAnnotationSetted(const Notification& notification);
    void tripEndedSuccessfully(const Notification& notification);
    /// The completion step after the last motion upload of a stopped trip: score, lastTrip,
    /// history entry, "tripEndedSuccessfully". Does nothing while endLocationStr is empty.
    void completeStoppedTrip();
    /// Copies the delegate under the lock; call the copy after releasing it.
    std::shared_ptr<DrivingInsightDelegate> delegateSnapshot() const;

    // Thresholds.cpp
    void getThresholdsFromServer();
    void getThresholds(const Notification& notification);

    /// Stores the finding and counts it in its kind's counter and in eventCount; `none` is
    /// stored, not counted (Locked). Inline: four times a sample.
    void setFaultType(FaultTypes value) {
        faultType = value;
        if (const auto kind = detail::kindOf(value)) {
            ++trip.totals[*kind].count;
            ++eventCount;
        }
    }

    // Permissions.cpp (upload): true when a trip may start; makes its own report otherwise.
    bool checkLocationPermisionWhenInUse();

    // Thresholds.cpp: with the outbox on, the last accepted reply is kept in its directory and
    // applied at start-up, so a trip started without network is still scored.
    std::filesystem::path keptBandsFile() const;  // empty when the outbox is off
    void applyKeptBands();
    void keepBands(const UserInfo& reply);

    // Motion upload (upload): sends one bulk; the caller has set tripMotion.isSyncingToServer.
    void sendMotionDataToServer();
    /// Where the trip stands for an upload's outcome (Locked).
    detail::UploadPhase uploadPhaseLocked() const;
    void MotionDataSynced(const Notification& notification);
    void MotionDataSyncFailed(const Notification& notification);
    /// With the outbox on: hands a stopped trip's records to it as bulks under the trip's own
    /// identifier and completes the trip at once (its record follows the bulks).
    void handOverStoppedTrip();

    mutable std::mutex mutex_;
    const Environment& env_;
    NotificationCenter& center_;
    /// "showMotionData": whether anybody observes it, and its reused notification.
    detail::FrequentNotification<kShowMotionDataKeys.size()> showMotionData_{"showMotionData",
                                                                             kShowMotionDataKeys};
    RestfulCall* restfulCall_;
    /// The gateway of a detached engine (the shared engine uses RestfulCall::sharedInstance()).
    std::unique_ptr<RestfulCall> ownRestfulCall_;

    std::int64_t bulkMotionDataSize_ = 1000;
    std::shared_ptr<platform::MotionManager> motionManager_;
    std::shared_ptr<platform::LocationManager> locationManager_;
    std::shared_ptr<HistoryDataDelegate> historyDataDelegate_;
    std::shared_ptr<DrivingInsightDelegate> drivingInsightDelegate_;
    std::string bundleDisplayName_ = "Kestrelvue";
    std::int64_t userID = 0;
    kestrelvue::SummaryData summaryData;
    std::vector<std::shared_ptr<Trip>> tripHistory;
    std::shared_ptr<Trip> lastTrip;
    /// The durable outbox when the host turned it on (Environment::outboxDirectory), else null.
    std::shared_ptr<detail::Outbox> outbox_;
    /// Deflates bulks off the sampling thread when the host wants compressed uploads and the
    /// outbox (which deflates on its own thread) is off; null otherwise.
    std::unique_ptr<detail::Deflater> deflater_;

    detail::Settings settings;
    /// The settings hold the reply kept from an earlier run, not yet replaced by a download.
    bool keptBandsApplied_ = false;
    /// The trip being recorded, or the last one until the next starts.
    detail::TripState trip;
    detail::MotionUploader uploader;
    bool isDriving = false;
    // Evaluation state that carries over from one trip into the next.
    int deviceOrientationGiven = 0;
    int deviceOrientation = 0;
    FaultTypes faultType = FaultTypes::none;
    std::int64_t eventCount = 0;
    kestrelvue::LaneChangingData laneChangingItems;

    // History.cpp, Summary.cpp
    void historyReplyArrived(platform::HttpResult result);
    void reportHistoryFailure(std::int64_t code, const std::string& title,
                              const std::string& message);
    void summaryDataReady(const Notification& notification);
    /// Keeps a geocoder lookup until it is answered or the engine ends.
    void keepLookup(platform::AsyncRequest lookup);

    // Work whose completion reaches this engine. Last, so that they end first: once they are
    // gone no completion can run, and one that was running has returned.
    std::vector<platform::AsyncRequest> historyRequests_;  // guarded by mutex_
    std::vector<platform::AsyncRequest> lookups_;          // guarded by mutex_
    platform::AsyncRequest motionSession_;                 // the host's thread only
};

}  // namespace kestrelvue
