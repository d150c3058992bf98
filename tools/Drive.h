#pragma once
// Recorded drives and their replay through the engine on the simulated platform.
//
// A drive is a text file, one event a line, in time order ('#' starts a comment):
//   fix    T LAT LON SPEED_MPS COURSE_DEG ACCURACY_M
//   motion T PITCH ROLL YAW RX RY RZ AX AY AZ GX GY GZ
// T is seconds since the start of the drive. Attitude in radians, rotation rate in rad/s,
// accelerations in g.

#include <kestrelvue/Trip.h>
#include <kestrelvue/platform/Location.h>
#include <kestrelvue/platform/MotionManager.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvue::tools {

struct DriveEvent {
    double t = 0;  // seconds since the start of the drive
    std::optional<platform::Location> fix;
    std::optional<platform::DeviceMotion> motion;
};

struct Drive {
    std::vector<DriveEvent> events;
    double duration() const { return events.empty() ? 0.0 : events.back().t; }
};

struct DriveParseResult {
    std::optional<Drive> drive;
    std::string error;  // "line N: what is wrong"
};

/// Reads a drive. Rejects unknown kinds, missing or non-finite numbers, and time going backwards.
DriveParseResult parseDrive(std::istream& in);
void writeDrive(std::ostream& out, const Drive& drive);

/// A synthetic drive of `seconds` around Istanbul: fixes every second, samples every half second,
/// the device lying flat, with a few hard brakes, sharp corners and bumps along the way.
Drive simulateDrive(double seconds, std::uint32_t seed);

struct ReplayOptions {
    std::string baseURL;
    std::int64_t userID = 1;
    /// Samples per motion upload; nullopt keeps the engine's default.
    std::optional<std::int64_t> bulkMotionDataSize;
    /// Bound on the real time spent waiting for the service.
    std::chrono::milliseconds serviceTimeout{30'000};
    /// Progress lines for a person watching.
    std::function<void(const std::string&)> progress;
    /// Also report the engine's notifications (uploads, completion steps) as progress lines.
    bool verbose = false;
    /// When set, the durable outbox's directory: what the service does not confirm stays there
    /// for `kestrelvue outbox DIR`.
    std::string outboxDirectory;
};

struct ReplayResult {
    bool thresholdsArrived = false;
    bool finished = false;  // tripDidFinish with a record
    std::shared_ptr<Trip> trip;
    std::string failure;  // the last tripDidFail, "code title: message"
    std::size_t fixes = 0, samples = 0;
};

/// Starts a trip, feeds the drive in virtual time, stops it and waits for the upload's outcome.
ReplayResult replay(const Drive& drive, const ReplayOptions& options);

}  // namespace kestrelvue::tools
