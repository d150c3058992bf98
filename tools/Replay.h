#pragma once
// A recorded drive played through the engine as a phone would play it: in virtual time, motion
// delivered at the interval the engine asked for, fixes when they were recorded, uploads to a
// real service over HTTP.

#include <kestrelvue/Trip.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Drive.h"
#include "Simulate.h"

namespace kestrelvue {
class DrivingInsight;
struct Environment;
namespace sim {
class MainQueue;
}
}  // namespace kestrelvue

namespace kestrelvue::tools {

struct ReplayResult;

/// A live host (`kestrelvue record`): its clock, sensors and device take the simulated phone's
/// place, and it runs the trip in real time between the start and the stop, where a replay plays
/// the drive.
class LiveHost {
public:
    virtual ~LiveHost() = default;
    /// Puts the host's clock, sensors and device into the environment; `queue` is the main queue
    /// the engine posts to, which run() drains.
    virtual void install(Environment& env, const std::shared_ptr<sim::MainQueue>& queue) = 0;
    /// Called once the trip has started; returns when it should stop. Sets the interval, fixes and
    /// samples of the result.
    virtual void run(DrivingInsight& engine, sim::MainQueue& queue, ReplayResult& result) = 0;
};

struct ReplayProgress {
    std::size_t done = 0, total = 0;  // motion deliveries
    double driveSeconds = 0;          // how far into the drive
};

struct ReplayOptions {
    std::string baseURL;
    std::int64_t userID = 1;
    /// Samples per motion upload; nullopt keeps the engine's default.
    std::optional<std::int64_t> bulkMotionDataSize;
    /// Bound on the real time spent waiting for the service at each step. Longer than the
    /// library's own request time-out (60 s), so a slow reply is never taken for none.
    std::chrono::milliseconds serviceTimeout{90'000};
    /// Called now and then while the drive plays.
    std::function<void(const ReplayProgress&)> progress;
    /// Lines for a person watching (the service's bands, the upload starting, notifications).
    std::function<void(const std::string&)> log;
    /// Also log the engine's notifications (uploads, completion steps).
    bool verbose = false;
    /// When set, the durable outbox's directory: what the service does not confirm stays there
    /// for `kestrelvue outbox DIR`, and the drive plays even when the service is unreachable.
    std::string outboxDirectory;
    /// Fetch the trip's route and fault points back from the service when it is uploaded.
    bool fetchRoute = false;
    /// When set, the trip runs live on this host instead of the drive (which is then ignored).
    std::shared_ptr<LiveHost> live;
};

struct ReplayResult {
    bool thresholdsArrived = false;
    /// The service could not be reached before the drive: nothing was played.
    bool serviceUnreachable = false;
    bool finished = false;  // tripDidFinish with a record
    std::shared_ptr<Trip> trip;
    /// The last tripDidFail ("code title: message" as fields), or the tool's own problem.
    std::int64_t failureCode = 0;
    std::string failureTitle, failureMessage;
    std::string failure() const;

    double interval = 0;  // seconds between motion deliveries, as the engine asked
    std::size_t fixes = 0, samples = 0;
    std::size_t records = 0;                           // distinct motion records the engine sent
    std::size_t recordsConfirmed = 0;                  // of them, confirmed by the service
    std::size_t bulksUploaded = 0;                     // motion uploads answered 200
    std::size_t uploadsRetried = 0;                    // uploads sent again after a failed try
    std::size_t recordsWaiting = 0, tripsWaiting = 0;  // left in the outbox
    /// Every sample the engine charged, by kind, as its records went to the service.
    std::vector<Detection> detections;
    std::optional<Trip::Route> route;
    std::string routeProblem;
    double wallSeconds = 0;
};

/// Starts a trip, plays the drive, stops it and waits for the upload's outcome and for every
/// motion upload to settle.
ReplayResult replay(const Drive& drive, const ReplayOptions& options);

/// Names a place near a coordinate, as the replay's geocoder does: the nearest of a small
/// gazetteer of Turkish towns and Istanbul districts ("Kadıköy, İstanbul"), or the coordinate
/// itself far from all of them.
std::vector<std::string> placeNear(double latitude, double longitude);

}  // namespace kestrelvue::tools
