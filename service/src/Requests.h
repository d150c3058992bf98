#pragma once
// The service's reading of request bodies, apart from HTTP so that tests and fuzz targets reach
// it: body text in, the rows to store or the reason for a 400 out. Nothing here touches storage.

#include <kestrelvue/Value.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Storage.h"

namespace kestrelvue::service {

/// A value, or why the request is refused.
template <class T>
struct Parsed {
    std::optional<T> value;
    std::string error;

    static Parsed refuse(std::string why) { return {std::nullopt, std::move(why)}; }
    explicit operator bool() const { return value.has_value(); }
};

struct MotionBulk {
    std::string guid;
    std::int64_t userID = 0;
    std::vector<PointRow> points;
};

/// An "addMotionData" body: "UserID", "DrivingGuid" (required) and "MotionStr", whose records
/// each hold 39 comma-terminated fields and end with ";".
Parsed<MotionBulk> parseMotionBulk(std::string_view body);
struct WarmParser;

/// parseMotionBulk for a body that arrives in pieces: they are gathered into a buffer lent from a
/// small pool of warm ones and read where they lie, so that bulk after bulk reuses memory instead
/// of faulting in a fresh copy of each body.
class MotionBulkReader {
public:
    /// `expectedBytes` (the announced length, or 0) is reserved at once.
    explicit MotionBulkReader(std::size_t expectedBytes);
    ~MotionBulkReader();
    MotionBulkReader(const MotionBulkReader&) = delete;
    MotionBulkReader& operator=(const MotionBulkReader&) = delete;

    void append(const char* data, std::size_t size);
    /// The body appended so far, read as parseMotionBulk reads it.
    Parsed<MotionBulk> parse();

private:
    std::size_t size_ = 0;
    std::unique_ptr<WarmParser> warm_;
};

/// The records of a motion text; a malformed one is named by its number and field.
Parsed<std::vector<PointRow>> parseMotionText(std::string_view text);

/// An "addDrivingScore" body; "drivingGuid" is required.
Parsed<DrivingRow> parseDrivingScore(std::string_view body);

struct Login {
    std::string mobile, token;
};
Parsed<Login> parseLogin(std::string_view body);
Parsed<UserRow> parseAddUser(std::string_view body);

struct FriendRequest {
    std::string referenceId, friendReferenceId;
};
Parsed<FriendRequest> parseAddFriend(std::string_view body);

/// A threshold reply as the service hands it out: a list of objects, each with a text
/// "_enmThresholdName", numbers "_limitStart", "_limitEnd" and "_impact" and a boolean
/// "_perKilometer".
Parsed<Value> parseBands(std::string_view text);

/// A decimal 64-bit integer taken from a path, all of it.
std::optional<std::int64_t> parsePathInteger(std::string_view text);

}  // namespace kestrelvue::service
