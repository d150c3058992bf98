// The trip record's initial values and display texts, and the scriptable platform's contracts.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

using namespace std::chrono;
using test::EngineHarness;

/// Runs the test body in a given time zone and restores the old one afterwards.
class TimeZone {
public:
    explicit TimeZone(const char* tz) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~TimeZone() {
        if (old_)
            setenv("TZ", old_->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    std::optional<std::string> old_;
};

TEST(TripRecord, InitialValues) {
    EngineHarness h;
    Trip a(h.env);
    EXPECT_EQ(a.getPassedCoordinatesURL, "http://service.test/api/Driving/getPassedCoordinates");
    EXPECT_EQ(a.StartDateTime, h.clock->now());
    EXPECT_EQ(a.EndDateTime, h.clock->now());
    EXPECT_EQ(a.SystemDate, h.clock->now());
    Trip b(h.env);
    ASSERT_TRUE(a.StartAnnotation && a.EndAnnotation);
    EXPECT_NE(a.StartAnnotation, b.StartAnnotation);
    EXPECT_NE(a.EndAnnotation, b.EndAnnotation);
    EXPECT_NE(a.StartAnnotation, a.EndAnnotation);
}

TEST(TripRecord, DateTextInLocalTime) {
    // 5 March 2018 11:07:59 UTC.
    const platform::TimePoint instant{seconds(1520248079)};
    struct Case {
        const char* tz;
        const char* text;
    };
    const Case cases[] = {
        {"UTC", "05.03.2018 11:07"},
        {"Europe/Istanbul", "05.03.2018 14:07"},
        {"America/New_York", "05.03.2018 06:07"},
        {"Pacific/Kiritimati", "06.03.2018 01:07"},
    };
    for (const Case& c : cases) {
        TimeZone zone(c.tz);
        EXPECT_EQ(Trip::formatDateTime(instant), c.text) << c.tz;
    }
    TimeZone zone("UTC");
    // Fractions of a second before an instant stay in the earlier minute.
    EXPECT_EQ(Trip::formatDateTime(platform::TimePoint{seconds(1520248080)} - milliseconds(1)),
              "05.03.2018 11:07");
    EXPECT_EQ(Trip::formatDateTime(platform::TimePoint{seconds(0)}), "01.01.1970 00:00");
}

TEST(TripRecord, DurationAndDistanceText) {
    struct Case {
        double metres;
        const char* km;
    };
    const Case cases[] = {{0, "0.0"},      {49, "0.0"},         {51, "0.1"},
                          {12437, "12.4"}, {1234567, "1234.6"}, {150, "0.1"},
                          {250, "0.2"},    {-49, "-0.0"},       {1e18, "1000000000000000.0"}};
    for (const Case& c : cases)
        EXPECT_EQ(Trip::formatTimeElapsedTotalDistance("0:25:13", c.metres),
                  std::string("0:25:13 sn, ") + c.km + " km")
            << c.metres;
}

TEST(TripRecord, DistanceTextIgnoresTheLocale) {
    if (!std::setlocale(LC_ALL, "tr_TR.UTF-8") && !std::setlocale(LC_ALL, "de_DE.UTF-8"))
        GTEST_SKIP() << "no locale with a decimal comma is installed";
    const std::string text = Trip::formatTimeElapsedTotalDistance("1:2:3", 1500);
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(text, "1:2:3 sn, 1.5 km");
}

TEST(DecimalText, ShortestWithAPoint) {
    struct Case {
        double value;
        const char* text;
    };
    const Case cases[] = {{41.0, "41.0"},
                          {0.0, "0.0"},
                          {-0.0, "-0.0"},
                          {29.00123, "29.00123"},
                          {0.1, "0.1"},
                          {1e-7, "0.0000001"},
                          {-122.4194, "-122.4194"},
                          {40.99999999999999, "40.99999999999999"}};
    for (const Case& c : cases) EXPECT_EQ(platform::shortestDecimalText(c.value), c.text);
}

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
