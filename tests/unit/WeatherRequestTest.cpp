// The weather requests the engine makes while it records.

#include <gtest/gtest.h>

#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

using namespace std::chrono_literals;
using test::EngineHarness;

TEST(WeatherRequest, EveryBatchAsksUntilATemperatureIsKnown) {
    EngineHarness h;
    auto engine = h.makeEngine();
    engine->setUserID(42);
    ASSERT_TRUE(engine->startTrip());
    auto weather = [&] {
        std::vector<std::string> out;
        for (const auto& r : h.http->requests())
            if (r.url.find("/api/General/getWeatherDataByLatLon/") != std::string::npos)
                out.push_back(r.url);
        return out;
    };
    const std::string base = "http://service.test/api/General/getWeatherDataByLatLon/42";

    // Before any fix: the placeholder position.
    engine->didUpdateLocations({h.fix(41.0, 29.0, 80)});
    // An accepted fix.
    h.clock->advance(1s);
    engine->didUpdateLocations({h.fix(41.0, 29.00123, 5)});
    // A batch with nothing acceptable still asks.
    engine->didUpdateLocations({});
    EXPECT_EQ(weather(), (std::vector<std::string>{
                             base + "?latitude=0.0&longitude=0.0",
                             base + "?latitude=41.0&longitude=29.00123",
                             base + "?latitude=41.0&longitude=29.00123",
                         }));
    for (const auto& r : h.http->requests()) EXPECT_EQ(r.method, "GET");
}

}  // namespace
}  // namespace kestrelvue
