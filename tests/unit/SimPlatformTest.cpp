// The scriptable platform's contracts, which the replay tool and the engine's tests rely on.

#include <gtest/gtest.h>

#include "platform/sim/Sim.h"

namespace kestrelvue {
namespace {

TEST(SimPlatform, MotionSourceDeliversOnlyThroughTheQueueAndOnlyToTheRunningSession) {
    auto queue = std::make_shared<sim::MainQueue>();
    sim::MotionSource source;
    int delivered = 0;
    EXPECT_FALSE(source.push({}));  // no session
    source.startDeviceMotionUpdates(platform::AttitudeReferenceFrame::xArbitraryZVertical, queue,
                                    [&](const auto& m, const auto&) { delivered += m ? 1 : 100; });
    EXPECT_TRUE(source.push({}));
    EXPECT_EQ(delivered, 0);  // never inline
    queue->runUntilIdle();
    EXPECT_EQ(delivered, 1);
    EXPECT_TRUE(source.pushEmpty());
    queue->runUntilIdle();
    EXPECT_EQ(delivered, 101);

    source.push({});
    source.stopDeviceMotionUpdates();
    queue->runUntilIdle();
    EXPECT_EQ(delivered, 101);  // queued before the stop: dropped

    source.startDeviceMotionUpdates(platform::AttitudeReferenceFrame::xArbitraryZVertical, queue,
                                    [&](const auto&, const auto&) { delivered += 1000; });
    source.push({});
    queue->runUntilIdle();
    EXPECT_EQ(delivered, 1101);
}

TEST(SimPlatform, GeocoderAnswersLaterInScriptOrder) {
    auto queue = std::make_shared<sim::MainQueue>();
    sim::Geocoder geocoder(queue);
    geocoder.enqueueAnswer(sim::Geocoder::placemark({"first"}));
    geocoder.enqueueAnswer(sim::Geocoder::failure());
    std::vector<std::string> answers;
    auto record = [&](const auto& placemarks, const auto& error) {
        if (error)
            answers.push_back("error");
        else if (placemarks && !placemarks->empty())
            answers.push_back(placemarks->front().formattedAddressLines.at(0));
        else
            answers.push_back("none");
    };
    platform::Location at;
    at.coordinate = {41.0, 29.5};
    geocoder.reverseGeocodeLocation(at, record);
    geocoder.reverseGeocodeLocation(at, record);
    geocoder.reverseGeocodeLocation(at, record);
    EXPECT_TRUE(answers.empty());
    queue->runUntilIdle();
    EXPECT_EQ(answers, (std::vector<std::string>{"first", "error", "41.0, 29.5"}));
    EXPECT_EQ(geocoder.requests().size(), 3u);
}

TEST(SimPlatform, SequentialIdentifiersHaveTheUuidShape) {
    sim::SequentialIdGenerator ids;
    EXPECT_EQ(ids.makeUuid(), "00000001-0000-4000-8000-000000000001");
    for (int i = 0; i < 9; ++i) ids.makeUuid();
    EXPECT_EQ(ids.makeUuid(), "0000000B-0000-4000-8000-00000000000B");
}

}  // namespace
}  // namespace kestrelvue
