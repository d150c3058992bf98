// Trip identifiers: the real generator's are random version-4 UUIDs in upper case, 36 characters,
// and do not repeat.

#include <gtest/gtest.h>
#include <kestrelvue/platform/Clock.h>

#include <regex>
#include <set>

namespace kestrelvue {
namespace {

TEST(IdGenerator, RandomIdentifiersAreVersion4UuidsInUpperCase) {
    platform::RandomIdGenerator ids;
    const std::regex shape("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        const std::string id = ids.makeUuid();
        ASSERT_TRUE(std::regex_match(id, shape)) << id;
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
}  // namespace kestrelvue
