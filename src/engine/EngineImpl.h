#pragma once
// The engine's implementation: its parts and seams (every piece of state DrivingInsight has), and
// the operations on them. The public class's accessors read a copy of a field or replace it under
// mutex_ (core/Locked.h), and its operations forward here, so that a new field changes nothing
// hosts compile against.
//
// Threading: host calls, motion samples and geocoder answers arrive on the host's main thread;
// service replies and the handlers they trigger run on HTTP worker threads. All state below is
// guarded by mutex_; delegates are called and notifications posted only after it is released.

#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/RestfulCall.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "core/FrequentNotification.h"
#include "engine/EngineState.h"

namespace kestrelvue {

namespace detail {
class Deflater;
class Outbox;

/// The service addresses an engine calls, fixed when it is made.
struct ServiceURLs {
    const std::string getDrivingDataURL;
    const std::string addMotionDataURL;
    const std::string getThresholdsURL;
    const std::string getWeatherInfoURL;
    const std::string getSummaryURL;
};

/// The ways out to the network: the call gateway (the process's, or the engine's own), and for
/// motion bulks the durable outbox, or else the deflater when uploads are compressed.
struct Network {
    RestfulCall* call = nullptr;
    std::unique_ptr<RestfulCall> ownCall;  // a detached engine's gateway
    /// The durable outbox when the host turned it on (Environment::outboxDirectory), else null.
    std::shared_ptr<Outbox> outbox;
    /// Deflates bulks off the sampling thread when the host wants compressed uploads and the
    /// outbox (which deflates on its own thread) is off; null otherwise.
    std::unique_ptr<Deflater> deflater;
};

/// What the host sets and reads through the engine's accessors.
struct HostFields {
    std::int64_t bulkMotionDataSize = 1000;
    std::shared_ptr<platform::MotionManager> motionManager;
    std::shared_ptr<platform::LocationManager> locationManager;
    std::shared_ptr<HistoryDataDelegate> historyDataDelegate;
    std::shared_ptr<DrivingInsightDelegate> drivingInsightDelegate;
    std::string bundleDisplayName = "Kestrelvue";
    std::int64_t userID = 0;
    kestrelvue::SummaryData summaryData;
    std::vector<std::shared_ptr<Trip>> tripHistory;
    std::shared_ptr<Trip> lastTrip;
};

/// Work whose completion reaches the engine: geocoder lookups and history requests, kept until
/// they are answered (let go as new ones come) or the engine ends, and the motion session.
struct Requests {
    void keep(platform::AsyncRequest request) {
        std::erase_if(pending, [](const platform::AsyncRequest& r) { return r.finished(); });
        pending.push_back(std::move(request));
    }
    std::vector<platform::AsyncRequest> pending;  // guarded by the engine's lock
    platform::AsyncRequest motionSession;         // the host's thread only
};

}  // namespace detail

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
    const detail::ServiceURLs urls;

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
    /// The weather's address at currentLocation (Locked), and its GET under the observer name
    /// "getWeatherInfo".
    std::string weatherURLLocked() const;
    void requestWeather(const std::string& url);
    /// Why a session's sample goes no further, or that it goes on.
    enum class SampleGate { admitted, dropped, noPosition };
    struct SampleAdmission {
        std::int64_t* counter;  // the session's sample count
        int givenOrientation;   // as the device reports it
    };
    /// The session's checks before a sample is evaluated: the trip is on and has a position (or
    /// has waited too long for one); moves the orientation, the elapsed time and the count
    /// (Locked).
    SampleGate admitSampleLocked(const SampleAdmission& admission, const Vector3& attitude,
                                 std::int64_t& motionId);
    /// Stops a trip that found no position in time, and tells the host.
    void endForLackOfPosition();
    void tripStoppedEndAnnotationSetted(const Notification& notification);
    void tripEndedSuccessfully(const Notification& notification);
    /// The completion step after the last motion upload of a stopped trip: score, lastTrip,
    /// history entry, "tripEndedSuccessfully". Does nothing while endLocationStr is empty.
    void completeStoppedTrip();
    /// Copies the delegate under the lock; call the copy after releasing it.
    std::shared_ptr<DrivingInsightDelegate> delegateSnapshot() const;

    // DrivingInsight.cpp: the settings download
    void getThresholdsFromServer();
    void getThresholds(const Notification& notification);

    // Lifecycle.cpp: true when a trip may start; makes its own report otherwise.
    bool checkLocationPermisionWhenInUse();

    // DrivingInsight.cpp: with the outbox on, the last accepted reply is kept in its directory and
    // applied at start-up, so a trip started without network is still scored.
    std::filesystem::path keptBandsFile() const;  // empty when the outbox is off
    void applyKeptBands();
    void keepBands(const UserInfo& reply);

    // Evaluation.cpp: a sample admitted (session samples only; null for the host's own call),
    // recorded and its effects carried out after the lock.
    struct SampleEffects;
    void evaluate(const SampleAdmission* admission, std::int64_t motionId, const Vector3& attitude,
                  const Vector3& rotationRate, const Vector3& userAcceleration,
                  const Vector3& gravity);
    /// Judges and records one sample; false when there is no position to record it at (Locked).
    /// Inline, and defined in Evaluation.cpp, the one place it is called.
    inline bool recordSampleLocked(std::int64_t motionId, const Vector3& attitude,
                                   const Vector3& rotationRate, const Vector3& userAcceleration,
                                   const Vector3& gravity, bool observed, SampleEffects& effects);

    // MotionUpload.cpp: sends one bulk; the caller has set tripMotion.isSyncingToServer.
    void sendMotionDataToServer();
    /// A bulk taken from the buffer, ready to be sent.
    struct PendingBulk {
        std::string motionStr;
        std::size_t carried = 0;  // records
        std::int64_t user = 0;
        std::string driving;
    };
    PendingBulk takeBulkLocked();
    void sendBulk(const PendingBulk& bulk);
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
    detail::Network net;
    detail::HostFields host;
    detail::Settings settings;
    /// The trip being recorded, or the last one until the next starts.
    detail::TripState trip;
    detail::MotionUploader uploader;
    bool isDriving = false;
    detail::Evaluator evaluator;

    // History.cpp, Summary.cpp
    void historyReplyArrived(const platform::HttpResult& result);
    void reportHistoryFailure(std::int64_t code, const std::string& title,
                              const std::string& message);
    void summaryDataReady(const Notification& notification);
    /// Keeps a lookup or request until it is answered or the engine ends.
    void keep(platform::AsyncRequest request);

    // Last, so that they end first: once they are gone no completion can run, and one that was
    // running has returned.
    detail::Requests requests;
};

}  // namespace kestrelvue
