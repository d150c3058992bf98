#pragma once
// One row of the leaderboard, shared with the host.

#include <kestrelvue/Export.h>
#include <kestrelvue/Value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvue {

/// The scope of a ranking; the numbers are the wire's, in requests and in a row's "RankType".
enum class RankTypes : int {
    None = 0,
    Country = 1,
    City = 2,
    Friend = 3,
};

constexpr int rankTypeNumber(RankTypes rankType) {
    return static_cast<int>(rankType);
}

/// 1, 2 and 3 name a scope; every other number reads as None.
constexpr RankTypes rankTypeFromNumber(std::int64_t number) {
    switch (number) {
        case 1:
            return RankTypes::Country;
        case 2:
            return RankTypes::City;
        case 3:
            return RankTypes::Friend;
        default:
            return RankTypes::None;
    }
}

/// Every field starts absent and stays absent when the row lacks its key or carries a value of
/// another type.
struct KESTRELVUE_EXPORT LeaderboardItem {
    std::optional<std::string> UserId;         // "UserID"
    std::optional<RankTypes> RankType;         // "RankType"; a non-integer reads as None
    std::optional<std::string> UserName;       // "Name"
    std::optional<std::string> CountryName;    // "CountryName"
    std::optional<std::string> CityName;       // "CityName"
    std::optional<std::int64_t> TotalDriving;  // "TotalDriving"
    std::optional<std::int64_t> TotalUser;     // "TotalUser"
    std::optional<double> AVGDrivingScore;     // "AVGDrivingScore"
    std::optional<std::int64_t> UserRank;      // "UserRank"
    std::optional<bool> IsCurrentUser;         // "IsCurrentUser"

    LeaderboardItem() = default;
    bool operator==(const LeaderboardItem&) const = default;

    /// Reads one service row member by member.
    static LeaderboardItem fromRow(const Object& row);
};

/// The rows of a leaderboard reply in the service's order (an empty list included); nullopt when
/// `data` is not a list whose every element is an object.
KESTRELVUE_EXPORT std::optional<std::vector<LeaderboardItem>> leaderboardFromData(
    const Value& data);

}  // namespace kestrelvue
