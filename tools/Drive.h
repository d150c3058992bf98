#pragma once
// Recorded drives: the text files the tool replays, and their reading and writing.
//
// Version 2 (what the tool writes) starts with the line "kestrelvue-drive 2", optionally followed
// by when the drive began, in UTC ("kestrelvue-drive 2 start=2026-11-25T07:10:00Z"); then one
// event a line, in time order ('#' starts a comment):
//   fix    T LAT LON SPEED_MPS COURSE_DEG ACCURACY_M
//   motion T PITCH ROLL YAW RX RY RZ AX AY AZ GX GY GZ ORIENTATION
// T is seconds since the start of the drive. Attitude in radians, rotation rate in rad/s,
// accelerations in g; ORIENTATION is what the platform reported for the device (0 unknown,
// 1 portrait, 2 upside down, 3 landscape left, 4 landscape right, 5 face up, 6 face down).
// A file without the header line is version 1: the same lines without ORIENTATION, read as
// face up.

#include <kestrelvue/Result.h>
#include <kestrelvue/platform/Device.h>
#include <kestrelvue/platform/Location.h>
#include <kestrelvue/platform/MotionManager.h>

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrelvue::tools {

inline constexpr int kDriveFormatVersion = 2;

struct DriveEvent {
    /// Nanoseconds since the start of the drive: the text's seconds rounded to the nearest one,
    /// so that replays of the same file land on the same instants.
    std::int64_t t = 0;
    std::optional<platform::Location> fix;
    std::optional<platform::DeviceMotion> motion;
    platform::DeviceOrientation orientation = platform::DeviceOrientation::faceUp;

    double seconds() const { return static_cast<double>(t) * 1e-9; }
};

struct Drive {
    std::vector<DriveEvent> events;
    /// When the drive began, in Unix seconds; a replay without it is dated now.
    std::optional<std::int64_t> start;
    /// The format version the text was in (1 for files from before the header).
    int version = 0;
    double duration() const { return events.empty() ? 0.0 : events.back().seconds(); }
};

/// A drive, or "line N: what is wrong".
using DriveParseResult = Result<Drive>;

/// Reads a drive, every line checked before any is used: unknown kinds, missing, extra or
/// non-finite numbers, coordinates off the globe, an unknown orientation, time going backwards
/// or beyond a week, and a drive without fixes or without samples are refused, naming the line.
DriveParseResult parseDrive(std::istream& in);
/// Writes version 2.
void writeDrive(std::ostream& out, const Drive& drive);

/// Seconds as the drive's nanoseconds, rounded to the nearest.
std::int64_t driveTime(double seconds);

/// "2026-11-25T07:10:00Z" to Unix seconds; nullopt for anything else.
std::optional<std::int64_t> parseUtcTime(std::string_view text);
/// Unix seconds as "2026-11-25T07:10:00Z".
std::string utcTimeText(std::int64_t unixSeconds);

}  // namespace kestrelvue::tools
