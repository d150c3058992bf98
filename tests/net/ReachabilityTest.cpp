#include <gtest/gtest.h>
#include <kestrelvue/Reachability.h>

#include <memory>
#include <optional>
#include <string>

using namespace kestrelvue;
using platform::FixedReachabilityProbe;

TEST(Reachability, UsableOnlyWhenReachableWithoutAConnectionToEstablish) {
    struct Case {
        std::optional<std::uint32_t> flags;
        bool expected;
    };
    // Reachable without a connection to establish; other bits play no part. nullopt: the platform
    // cannot answer.
    const Case cases[] = {{2u, true},           {6u, false},          {4u, false},
                          {0u, false},          {3u, true},           {2u | 0xFFF8u, true},
                          {0xFFFFFFFFu, false}, {std::nullopt, false}};
    for (const Case& c : cases) {
        Reachability r(std::make_shared<FixedReachabilityProbe>(c.flags));
        EXPECT_EQ(r.isInternetAvailable(), c.expected)
            << (c.flags ? std::to_string(*c.flags) : "none");
    }
    EXPECT_FALSE(Reachability(nullptr).isInternetAvailable());
}
