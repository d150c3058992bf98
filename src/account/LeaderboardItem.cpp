#include <kestrelvue/LeaderboardItem.h>

#include "account/WireValues.h"

namespace kestrelvue {
namespace {

void readText(const Object& row, const char* key, std::optional<std::string>& field) {
    auto it = row.find(key);
    if (it == row.end()) return;
    const std::string* s = it->second.asString();
    field = s ? std::optional<std::string>(*s) : std::nullopt;
}

void readInteger(const Object& row, const char* key, std::optional<std::int64_t>& field) {
    auto it = row.find(key);
    if (it == row.end()) return;
    field = account::integerOf(it->second);
}

}  // namespace

LeaderboardItem LeaderboardItem::fromRow(const Object& row) {
    LeaderboardItem item;
    readText(row, "UserID", item.UserId);
    if (auto it = row.find("RankType"); it != row.end()) {
        // A present value always names a scope: anything but 1, 2 or 3 (a text included) is None.
        auto number = account::integerOf(it->second);
        item.RankType = number ? rankTypeFromNumber(*number) : RankTypes::None;
    }
    readText(row, "Name", item.UserName);
    readText(row, "CountryName", item.CountryName);
    readText(row, "CityName", item.CityName);
    readInteger(row, "TotalDriving", item.TotalDriving);
    if (auto it = row.find("AVGDrivingScore"); it != row.end()) {
        item.AVGDrivingScore = it->second.asNumber();
    }
    readInteger(row, "UserRank", item.UserRank);
    if (auto it = row.find("IsCurrentUser"); it != row.end()) {
        item.IsCurrentUser = it->second.asBool();
    }
    readInteger(row, "TotalUser", item.TotalUser);
    return item;
}

std::optional<std::vector<LeaderboardItem>> leaderboardFromData(const Value& data) {
    const List* rows = data.asList();
    if (!rows) return std::nullopt;
    std::vector<LeaderboardItem> items;
    items.reserve(rows->size());
    for (const Value& row : *rows) {
        const Object* object = row.asObject();
        if (!object) return std::nullopt;
        items.push_back(LeaderboardItem::fromRow(*object));
    }
    return items;
}

}  // namespace kestrelvue
