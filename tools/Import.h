#pragma once
// The logs people already have, read into drives: NMEA 0183, GPX, gpsd's JSON and the phone
// sensor-logger export. Every line is checked before any is used; an error names the file, the
// line and the reason, as the drive reader's do.

#include <chrono>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "Drive.h"

namespace kestrelvue::tools {

enum class ImportFormat { nmea, gpx, gpsd, sensorLogger };
/// Which phone recorded a sensor-logger export: they differ by the sign of all three
/// acceleration axes and by the sense of yaw.
enum class Phone { ios, android };

struct ImportResult {
    std::optional<Drive> drive;
    std::string error;               // "FILE:LINE: reason"
    std::vector<std::string> notes;  // what a person should know about the drive (motion absent)
};

/// Position-only formats (NMEA, GPX, gpsd) give a drive whose motion is a device lying still and
/// face up at every fix, so that it replays and its distance is scored; the notes say so.
ImportResult importNmea(std::istream& in, const std::string& name);
ImportResult importGpx(std::istream& in, const std::string& name);
ImportResult importGpsd(std::istream& in, const std::string& name);
/// A directory holding Accelerometer.csv, Gyroscope.csv, Gravity.csv, Orientation.csv and
/// Location.csv. The phone comes from Metadata.csv's "platform" column unless `phone` is given.
ImportResult importSensorLogger(const std::string& directory, std::optional<Phone> phone);

/// The format a path names: a directory is a sensor-logger export, then by extension (.nmea,
/// .nma, .log, .txt: NMEA; .gpx; .json, .jsonl: gpsd).
std::optional<ImportFormat> guessFormat(const std::string& path);
ImportResult importFile(const std::string& path, ImportFormat format, std::optional<Phone> phone);

/// The drive's fixes as NMEA 0183 (RMC, GGA and VTG at each fix), timed from `start`: what a
/// receiver would have said on the drive, for gpsfake.
void writeNmea(std::ostream& out, const Drive& drive, std::chrono::system_clock::time_point start);

}  // namespace kestrelvue::tools
