#include <gtest/gtest.h>
#include <kestrelvue/Value.h>

#include <cmath>
#include <limits>

#include "core/Json.h"

using namespace kestrelvue;

TEST(Value, KindsAndTypedReadsDoNotConvert) {
    using K = Value::Kind;
    // clang-format off
    const std::pair<Value, K> cases[] = {
        {Value(), K::Null}, {true, K::Bool}, {7, K::Int}, {2.5, K::Double}, {"t", K::String},
        {List{1}, K::List}, {Object{{"a", 1}}, K::Object}, {TransportError{"d", -1, "x"}, K::Error}};
    // clang-format on
    for (const auto& [v, kind] : cases) {
        EXPECT_EQ(v.kind(), kind);
        EXPECT_EQ(v.asBool().has_value(), v.isBool());
        EXPECT_EQ(v.asInt().has_value(), v.isInt());
        EXPECT_EQ(v.asNumber().has_value(), v.isInt() || v.isDouble());
        EXPECT_EQ(v.asString() != nullptr, v.isString());
        EXPECT_EQ(v.asList() != nullptr, v.isList());
        EXPECT_EQ(v.asObject() != nullptr, v.isObject());
        EXPECT_EQ(v.asError() != nullptr, v.isError());
    }
    EXPECT_FALSE(Value(1) == Value(1.0)) << "an integer and a double are different values";
    EXPECT_FALSE(Value(Object{{"a", 1}}) == Value(Object{{"a", 2}}));
    EXPECT_EQ(Value(Object{{"a", 1}}).find("a")->asInt(), 1);
    EXPECT_EQ(Value(Object{{"a", 1}}).find("b"), nullptr);
}

TEST(Json, ParsesTheValueKinds) {
    auto r = json::parse(
        R"({"i":-12,"big":18446744073709551615,"d":1.5e3,"t":"Ağ\u00e7\n","b":false,"n":null,)"
        R"("l":[{},[]],"dup":1,"dup":2})");
    ASSERT_TRUE(r) << r.error;
    // Beyond 64-bit signed becomes a double; a later duplicate wins.
    EXPECT_TRUE(*r.value == Value(Object{{"i", -12},
                                         {"big", 18446744073709551615.0},
                                         {"d", 1500.0},
                                         {"t", "Ağç\n"},
                                         {"b", false},
                                         {"n", nullptr},
                                         {"l", List{Object{}, List{}}},
                                         {"dup", 2}}));
}

TEST(Json, RejectsWhatIsNotAListOrObjectDocument) {
    const char* bad[] = {
        "",           " ",       "42",         "\"text\"", "true",       "null",
        "[1,]",       "{\"a\"}", "[1] [2]",    "[1] x",    "{'a':1}",    "[\"\xff\"]",
        "[\"\xc3\"]", "[NaN]",   "[Infinity]", "[01]",     "[1e999999]",
    };
    for (const char* text : bad) {
        auto r = json::parse(text);
        EXPECT_FALSE(r) << text;
        EXPECT_TRUE(r || !r.error.empty()) << text;
    }
    for (const char* text : {"[\"\xc0\xaf\"]", "[\"\xed\xa0\x80\"]"})  // overlong, surrogate
        EXPECT_FALSE(json::parse(text)) << text;
    // Deep nesting is an error, not a stack overflow.
    std::string deep(100000, '[');
    EXPECT_FALSE(json::parse(deep + std::string(100000, ']')));
}

TEST(Json, RefusesTextBeyondItsLimits) {
    EXPECT_TRUE(json::parse("[1,2]", {5, 2}));
    EXPECT_FALSE(json::parse("[1,2] ", {5, 2}));
    EXPECT_FALSE(json::parse("[1,2]", {5, 1}));
    EXPECT_TRUE(json::parse(R"({"a":1,"b":2})", {100, 1}));  // counts a list root only
}

TEST(Json, WritesCompactJsonAndRefusesNonFiniteNumbers) {
    struct Case {
        Value value;
        std::optional<std::string> expected;
    };
    const double inf = std::numeric_limits<double>::infinity();
    const Case cases[] = {
        {Object{{"b", 1}, {"a", List{true, nullptr, "x"}}}, R"({"a":[true,null,"x"],"b":1})"},
        {List{0.1, -2.5, 1e21, 3.0}, "[0.1,-2.5,1e+21,3]"},
        {List{std::numeric_limits<std::int64_t>::min()}, "[-9223372036854775808]"},
        {Object{{"q\"\\\n\t\x01", "ç\x7f"}}, "{\"q\\\"\\\\\\n\\t\\u0001\":\"ç\x7f\"}"},
        {List{std::nan("")}, std::nullopt},
        {Object{{"deep", List{Object{{"x", -inf}}}}}, std::nullopt},
        {List{TransportError{"d", 1, "x"}}, std::nullopt},
    };
    for (const Case& c : cases) EXPECT_EQ(json::write(c.value), c.expected);
    // Round trip: what is written reads back as the same value.
    Value v = Object{{"Score", 87.25}, {"Name", "Şükrü"}, {"L", List{Object{}, List{}}}};
    auto text = json::write(v);
    ASSERT_TRUE(text);
    EXPECT_TRUE(*json::parse(*text).value == v);
    // Texts are scanned 64 bytes at a time: an escape at any offset of a long text is written.
    for (std::size_t at = 0; at < 130; ++at) {
        std::string given(130, 'x'), written = "[\"" + given + "\"]";
        given[at] = '"';
        written.replace(at + 2, 1, "\\\"");
        EXPECT_EQ(json::write(List{given}), written) << at;
    }
}
