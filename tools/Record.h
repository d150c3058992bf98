#pragma once
// `kestrelvue record`: the engine live on a Linux vehicle computer, fed by gpsd and IIO (either
// replaceable by a drive file), scored and reported as a replay is.

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "Drive.h"
#include "Replay.h"

namespace kestrelvue::tools {

struct RecordSources {
    /// gpsd, unless `locationDrive` gives the fixes.
    std::string gpsdHost = "localhost", gpsdPort = "2947";
    std::optional<Drive> locationDrive;
    /// The IIO devices, unless `motionDrive` gives the samples.
    std::string iioRoot = "/sys/bus/iio/devices";
    std::optional<Drive> motionDrive;
    /// Stop after this many seconds (otherwise at `stop`, or when a drive source ends).
    std::optional<double> seconds;
    /// Set from a signal handler: stop the trip.
    const std::atomic<bool>* stop = nullptr;
};

/// The live host record plays: the system clock, gpsd or a drive's fixes timed from the start,
/// IIO or a drive's samples at the engine's interval.
std::shared_ptr<LiveHost> makeLiveHost(RecordSources sources);

/// The outbox directory a recording keeps by default: $STATE_DIRECTORY (systemd's StateDirectory=),
/// else $XDG_STATE_HOME/kestrelvue/outbox, else ~/.local/state/kestrelvue/outbox.
std::string defaultOutboxDirectory();

}  // namespace kestrelvue::tools
