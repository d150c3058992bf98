#include <gtest/gtest.h>

#include <tuple>

#include "net/Url.h"

using kestrelvue::parseUrl;

TEST(Url, AcceptsHttpAndHttpsAddresses) {
    struct Case {
        const char* text;
        const char* scheme;
        const char* host;
        std::optional<int> port;
        const char* pathAndQuery;
    };
    const Case cases[] = {
        {"http://127.0.0.1:8080/api/Driving/getThresholds", "http", "127.0.0.1", 8080,
         "/api/Driving/getThresholds"},
        {"https://example.org", "https", "example.org", std::nullopt, "/"},
        {"http://h/api/General/getLeaderShip/42?RankType=1", "http", "h", std::nullopt,
         "/api/General/getLeaderShip/42?RankType=1"},
        {"http://h/x?latitude=41.0082&longitude=-28.97", "http", "h", std::nullopt,
         "/x?latitude=41.0082&longitude=-28.97"},
        {"http://h/p#frag", "http", "h", std::nullopt, "/p"},
        {"http://user:pw@h:1/", "http", "h", 1, "/"},
        {"http://[::1]:9000/x", "http", "[::1]", 9000, "/x"},
        {"http://h:/x", "http", "h", std::nullopt, "/x"},
        {"http://h/x?a=/b?c", "http", "h", std::nullopt, "/x?a=/b?c"},
    };
    for (const Case& c : cases) {
        auto url = parseUrl(c.text);
        ASSERT_TRUE(url) << c.text;
        EXPECT_EQ(std::tuple(url->scheme, url->host, url->port, url->pathAndQuery, url->text),
                  std::tuple(c.scheme, c.host, c.port, c.pathAndQuery, c.text));
    }
}

TEST(Url, RejectsTextsThatAreNotUsableAddresses) {
    // Non-ASCII must be percent-encoded; only http and https with a host are usable.
    // clang-format off
    const char* cases[] = {
        "", " ", "http://h/a b", "http://h/ ", "http://h/ş", "http://h/a%", "http://h/a%zz",
        "http://h/p#a#b", "http:///path", "http:/h/x", "http:h", "h/x", "/api/x", "ftp://h/x",
        "http://h:99999/", "http://h:8a/", "http://[::1/", "http://h\x7f/"};
    // clang-format on
    for (const char* text : cases) EXPECT_FALSE(parseUrl(text)) << '"' << text << '"';
    EXPECT_FALSE(parseUrl(std::string_view("http://h/\0x", 11))) << "embedded NUL";
}
