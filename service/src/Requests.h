#pragma once
// The service's reading of request bodies, apart from HTTP so that tests and fuzz targets reach
// it: body text in, the rows to store or the reason for a 400 out. Nothing here touches storage.

#include <kestrelvue/Value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Storage.h"

namespace kestrelvue::service {

/// An "addDrivingScore" body; "drivingGuid" is required. Coordinates, score, distance and
/// penalties beyond any real trip are refused.
Result<DrivingRow> parseDrivingScore(std::string_view body);

struct Login {
    std::string mobile, token;
};
Result<Login> parseLogin(std::string_view body);
/// A registration; refused when it names nothing at all.
Result<UserRow> parseAddUser(std::string_view body);

struct FriendRequest {
    std::string referenceId, friendReferenceId;
};
Result<FriendRequest> parseAddFriend(std::string_view body);

/// A threshold reply as the service hands it out: a list of objects, each with a text
/// "_enmThresholdName", numbers "_limitStart", "_limitEnd" and "_impact" and a boolean
/// "_perKilometer"; every name one the library knows, and every kind of event with its bands.
Result<Value> parseBands(std::string_view text);

/// A decimal 64-bit integer taken from a path, all of it.
std::optional<std::int64_t> parsePathInteger(std::string_view text);

}  // namespace kestrelvue::service
