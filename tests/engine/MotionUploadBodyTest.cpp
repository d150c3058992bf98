// The hand-written motion upload body must be JSON that reads back to exactly what was given.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/Json.h"
#include "engine/MotionUploadBody.h"

namespace kestrelvue {
namespace {

// Single escapes go at every offset: the scan steps in blocks of 64 and words of 8.
TEST(MotionUploadBody, ReadsBackToItsParts) {
    std::string longPlain;
    for (int i = 0; i < 200; ++i) longPlain += "12.345, -0.001,2018-03-05 12:00:00:000,FU,;";
    std::vector<std::string> texts = {std::string(),
                                      std::string("a\x01"
                                                  "b\x1f"
                                                  "c\n\r\t\b\f"),
                                      std::string("\"\\\n\r\t\b\f\x7f\x02"), longPlain,
                                      longPlain + "\"" + longPlain};
    for (char special : {'"', '\\', '\n', '\x01'}) {
        for (std::size_t at = 0; at < 140; ++at) {
            texts.emplace_back(140, 'x');
            texts.back()[at] = special;
        }
    }
    for (const std::string& motionStr : texts) {
        for (const std::optional<std::string>& version :
             {std::optional<std::string>{}, std::optional<std::string>{"2.1 \"beta\""}}) {
            auto body = detail::writeMotionDataBody(-42, "0000-\"guid\"", motionStr, version);
            ASSERT_TRUE(body);
            auto parsed = json::parse(*body);
            ASSERT_TRUE(parsed) << parsed.error << "\n" << *body;
            EXPECT_TRUE(*parsed.value ==
                        Value(Object{{"UserID", -42},
                                     {"DrivingGuid", "0000-\"guid\""},
                                     {"MotionStr", motionStr},
                                     {"AppVersion", version ? Value(*version) : Value()}}));
            // Compact: no blank outside the texts.
            EXPECT_EQ(body->find(": "), std::string::npos);
            EXPECT_EQ(body->find(", \""), std::string::npos);
        }
    }
}

TEST(MotionUploadBody, RefusesTextsThatAreNotUtf8) {
    const std::string bad = "ab\xff";
    EXPECT_FALSE(detail::writeMotionDataBody(1, bad, "x", std::nullopt));
    EXPECT_FALSE(detail::writeMotionDataBody(1, "g", bad, std::nullopt));
    EXPECT_FALSE(detail::writeMotionDataBody(1, "g", "x", bad));
    EXPECT_TRUE(detail::writeMotionDataBody(1, "g", "x", std::string("1.0")));
}

TEST(MotionUploadBody, DescribesTheTransportErrorAsAnOptional) {
    EXPECT_EQ(detail::describeOptionalError(std::nullopt), "nil");
    EXPECT_EQ(detail::describeOptionalError(TransportError{"NSURLErrorDomain", -1004, "refused"}),
              "Optional(Error Domain=NSURLErrorDomain Code=-1004 \"refused\")");
}

}  // namespace
}  // namespace kestrelvue
