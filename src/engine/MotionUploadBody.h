#pragma once
// The JSON body of a motion upload, written by hand: one bulk text is ~300 KB and a general
// writer would build a dynamic value around it first.

#include <kestrelvue/Value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrelvue::detail {

/// {"UserID":..,"DrivingGuid":"..","MotionStr":"..","AppVersion":".." or null}, compact.
/// nullopt when a text is not valid UTF-8 (the body would not be JSON).
std::optional<std::string> writeMotionDataBody(std::int64_t userID, std::string_view drivingGuid,
                                               std::string_view motionStr,
                                               const std::optional<std::string>& appVersion);

/// The transport error as an optional value: Optional(Error Domain=.. Code=.. "..") or nil.
std::string describeOptionalError(const std::optional<TransportError>& error);

}  // namespace kestrelvue::detail
