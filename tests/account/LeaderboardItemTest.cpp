#include <gtest/gtest.h>
#include <kestrelvue/LeaderboardItem.h>

#include <limits>

#include "core/Json.h"

namespace kestrelvue {
namespace {

LeaderboardItem rowFrom(std::string_view objectText) {
    auto parsed = json::parse(objectText);
    EXPECT_TRUE(parsed && parsed.value->isObject()) << objectText;
    return parsed ? LeaderboardItem::fromRow(*parsed.value->asObject()) : LeaderboardItem{};
}

TEST(LeaderboardItem, MemberOfWrongTypeLeavesOnlyThatFieldAbsent) {
    struct Case {
        const char* row;
        LeaderboardItem expected;
    };
    auto with = [](auto set) {
        LeaderboardItem item;
        item.CityName = "Bursa";  // a neighbour that must survive its sibling's bad value
        set(item);
        return item;
    };
    const Case cases[] = {
        {R"({"CityName":"Bursa","UserID":42})", with([](auto&) {})},
        {R"({"CityName":"Bursa","UserID":"u7"})", with([](auto& i) { i.UserId = "u7"; })},
        {R"({"CityName":"Bursa","TotalDriving":12.5})", with([](auto&) {})},
        {R"({"CityName":"Bursa","TotalDriving":14.0})", with([](auto& i) { i.TotalDriving = 14; })},
        {R"({"CityName":"Bursa","TotalUser":1e300})", with([](auto&) {})},
        {R"({"CityName":"Bursa","UserRank":18446744073709551615})", with([](auto&) {})},
        {R"({"CityName":"Bursa","UserRank":-9223372036854775808})",
         with([](auto& i) { i.UserRank = std::numeric_limits<std::int64_t>::min(); })},
        {R"({"CityName":"Bursa","AVGDrivingScore":90})",
         with([](auto& i) { i.AVGDrivingScore = 90.0; })},
        {R"({"CityName":"Bursa","IsCurrentUser":1})", with([](auto&) {})},
        {R"({"CityName":"Bursa","IsCurrentUser":false})",
         with([](auto& i) { i.IsCurrentUser = false; })},
        {R"({"CityName":"Bursa","userid":"a1"})", with([](auto&) {})},  // keys are exact
    };
    for (const Case& c : cases) EXPECT_EQ(rowFrom(c.row), c.expected) << c.row;
}

TEST(LeaderboardItem, RankTypeReadsEveryPresentValueAsAScope) {
    const std::pair<const char*, RankTypes> cases[] = {
        {"0", RankTypes::None},     {"1", RankTypes::Country}, {"2", RankTypes::City},
        {"3", RankTypes::Friend},   {"7", RankTypes::None},    {"-1", RankTypes::None},
        {"3.0", RankTypes::Friend}, {"2.5", RankTypes::None},  {"\"2\"", RankTypes::None},
        {"null", RankTypes::None},  {"true", RankTypes::None},
    };
    for (const auto& [text, expected] : cases) {
        LeaderboardItem item = rowFrom(std::string(R"({"RankType":)") + text + "}");
        ASSERT_TRUE(item.RankType) << text;
        EXPECT_EQ(*item.RankType, expected) << text;
    }
    EXPECT_FALSE(rowFrom("{}").RankType);
}

}  // namespace
}  // namespace kestrelvue
