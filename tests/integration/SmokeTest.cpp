#include <gtest/gtest.h>
#include <kestrelvue/Json.h>

TEST(Json, RejectsBareRootAndInvalidUtf8) {
    EXPECT_FALSE(kestrelvue::json::parse("42"));
    EXPECT_FALSE(kestrelvue::json::parse("[\"\xff\"]"));
    EXPECT_TRUE(kestrelvue::json::parse("[{\"a\":1}]"));
}
