#pragma once
// A recorded drive played through the engine as a phone would play it: in virtual time, motion
// delivered at the interval the engine asked for, fixes when they were recorded, uploads to a
// real service over HTTP.

#include <kestrelvue/Trip.h>
#include <kestrelvue/platform/MountingAlignment.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Drive.h"
#include "Events.h"
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
    /// Called before the trip starts: returns once the host has a current position, or false when
    /// it was told to stop, or its time ran out, first. A trip started without one would end for
    /// lack of a position ten seconds later, and a receiver just switched on takes longer.
    virtual bool waitForPosition(sim::MainQueue& /*queue*/,
                                 const std::function<void(const std::string&)>& /*say*/) {
        return true;
    }
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
    /// Send motion bulks gzip-compressed (Environment::compressUploads).
    bool compress = false;
    /// Turn the samples from the phone's axes into the car's before the engine reads them: by
    /// `alignAngles` when given, else by an estimate.
    bool align = false;
    std::optional<platform::MountingAngles> alignAngles;
    /// When set, the trip runs live on this host instead of the drive (which is then ignored).
    std::shared_ptr<LiveHost> live;
};

/// "PITCH,ROLL,YAW" in degrees, three finite numbers and nothing else.
std::optional<platform::MountingAngles> parseAngles(const std::string& text);

/// Reads an --align value into `options`: empty (no alignment), "auto" (estimated), or
/// "PITCH,ROLL,YAW" in degrees. False when the text is none of them.
bool parseAlignment(const std::string& text, ReplayOptions& options);

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
    std::size_t bytesSent = 0;  // upload bodies (bulks and trip records) as they went out
    bool compressed = false;
    /// The engine completed the trip without any band: its score charges nothing.
    bool unscored = false;
    /// Hours of driving the samples cover.
    double drivingHours() const { return static_cast<double>(samples) * interval / 3600.0; }
    std::size_t records = 0;           // distinct motion records of this trip sent
    std::size_t recordsConfirmed = 0;  // of them, confirmed by the service
    std::size_t bulksUploaded = 0;     // motion uploads answered 200
    std::size_t uploadsRetried = 0;    // uploads sent again after a failed try
    /// This drive's records and trip kept in the outbox's store for later, as the store holds
    /// them (not as the outbox meant to: a write that failed keeps nothing).
    std::size_t recordsWaiting = 0, tripsWaiting = 0;
    /// The outbox's own report of trouble ("uploadsPending" with "problem"), if any.
    std::string outboxProblem;
    /// Every sample the engine charged, by kind, as its records went to the service.
    std::vector<Detection> detections;
    /// The same as events, by start time.
    std::vector<Event> events;
    /// Where the drive went without a fix for more than a few seconds.
    std::vector<FixGap> fixGaps;
    /// When the drive began, in Unix seconds: the drive's own start, else when the replay began.
    std::int64_t startUnix = 0;
    /// With alignment: the rotation in use at the end (nullopt: never estimated).
    std::optional<platform::MountingAngles> mounting;
    std::optional<Trip::Route> route;
    std::string routeProblem;
    double wallSeconds = 0;
};

/// Starts a trip, plays the drive, stops it and waits for the upload's outcome and for every
/// motion upload to settle.
ReplayResult replay(const Drive& drive, const ReplayOptions& options);

/// Names a place near a coordinate, as the replay's geocoder does: the nearest of a small
/// gazetteer of Turkish towns and Istanbul districts ("Kadıköy, İstanbul"); between them, the
/// distance and way from the nearest ("14 km NE of Beykoz", "İstanbul"); the coordinate itself
/// only far from all of them.
std::vector<std::string> placeNear(double latitude, double longitude);

}  // namespace kestrelvue::tools
