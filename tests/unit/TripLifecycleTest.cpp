// Starting, sampling, stopping and completing trips on the simulated platform, in virtual time.

#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

using namespace std::chrono_literals;
using test::EngineHarness;
using Reports = std::vector<test::RecordingDelegate::Report>;

class TripLifecycle : public ::testing::Test {
protected:
    EngineHarness h;
    std::unique_ptr<DrivingInsight> engine = h.makeEngine();

    /// Starts a trip and gets it recording: one accepted fix and one evaluated sample.
    void startRecording(double latitude = 41.0, double longitude = 29.0) {
        ASSERT_TRUE(engine->startTrip());
        h.clock->advance(1s);
        engine->didUpdateLocations({h.fix(latitude, longitude, 5)});
        h.motion->push(EngineHarness::flatSample());
        h.queue->runUntilIdle();
    }
    /// Drains the main queue and answers every HTTP request (200, "[]"), until both are quiet.
    void settle() {
        while (h.queue->runUntilIdle() + h.http->deliverAll() > 0) {
        }
    }
    /// Starts counting the posts of `name`; counted() reads the count.
    void posts(const std::string& name) {
        auto count = std::make_shared<std::size_t>(0);
        tokens.push_back(h.center->addObserver(name, [count](const Notification&) { ++*count; }));
        counters[name] = count;
    }
    std::size_t counted(const std::string& name) { return *counters.at(name); }

    std::vector<ObserverToken> tokens;
    std::map<std::string, std::shared_ptr<std::size_t>> counters;
};

TEST_F(TripLifecycle, DeviceOrientationFromPitch) {
    const std::pair<double, int> cases[] = {{0.2, 5},   {0.0, 5}, {-0.2, 5}, {0.3499, 5}, {0.35, 0},
                                            {-0.35, 0}, {1.2, 0}, {-3.0, 0}, {NAN, 0}};
    for (auto [pitch, expected] : cases)
        EXPECT_EQ(DrivingInsightTestAccess::getDeviceOrientation({pitch, 0.7, -2.0}), expected)
            << pitch;
}

TEST_F(TripLifecycle, StartWithoutDeviceMotionFails) {
    h.motion->setDeviceMotionAvailable(false);
    EXPECT_FALSE(engine->startTrip());
    EXPECT_FALSE(engine->IsDriving());
    Reports r = h.delegate->reports();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].kind, "tripDidFail");
    EXPECT_EQ(r[0].code, 1000);
    EXPECT_EQ(r[0].title, "Device Motion Desteklenmiyor");
    EXPECT_EQ(r[0].message,
              "Sürüş başlatabilmek için telefonunuzun Device Motion desteği bulunmuyor");
    EXPECT_EQ(r[0].alert, nullptr);
    EXPECT_FALSE(h.location->isUpdating());  // nothing was started or reset
    EXPECT_EQ(engine->DrivingID(), "00000001-0000-4000-8000-000000000001");
}

TEST_F(TripLifecycle, StartResetsTheTripAndStartsTheSensors) {
    engine->setTotalTraveledDistance(900);
    engine->setPassedCoordinates({{41, 29}});
    ASSERT_TRUE(engine->startTrip());
    EXPECT_EQ(engine->TotalTraveledDistance(), 0.0);
    EXPECT_TRUE(engine->PassedCoordinates().empty());
    EXPECT_EQ(engine->DrivingID(), "00000002-0000-4000-8000-000000000002");
    // Until the first fix, a placeholder that no accuracy rule accepts.
    EXPECT_EQ(engine->CurrentLocation()->horizontalAccuracy, 1000.0);
    EXPECT_EQ(engine->CurrentLocation()->verticalAccuracy, 1000.0);
    EXPECT_EQ(h.location->desiredAccuracy(), platform::kLocationAccuracyBestForNavigation);
    EXPECT_EQ(h.motion->deviceMotionUpdateInterval(), 0.5);
    EXPECT_EQ(h.motion->lastReferenceFrame(),
              platform::AttitudeReferenceFrame::xArbitraryZVertical);
    EXPECT_TRUE(h.application->isIdleTimerDisabled());
}

TEST_F(TripLifecycle, SamplesBeforeTheFirstFixAreDropped) {
    ASSERT_TRUE(engine->startTrip());
    for (int i = 0; i < 5; ++i) {
        h.clock->advance(500ms);
        h.motion->push(EngineHarness::flatSample());
    }
    h.queue->runUntilIdle();
    EXPECT_EQ(engine->StartLocation()->coordinate.latitude, 0.0);
    EXPECT_EQ(engine->EndLocation()->coordinate.latitude, 0.0);
    EXPECT_TRUE(h.geocoder->requests().empty());
    EXPECT_TRUE(h.delegate->reports().empty());

    h.device->setOrientation(platform::DeviceOrientation::portrait);
    engine->didUpdateLocations({h.fix(41.0, 29.0, 5)});
    h.clock->advance(500ms);
    const auto firstSampleTime = h.clock->now();
    h.geocoder->enqueueAnswer(sim::Geocoder::placemark({"Moda Cd.", "Kadıköy", "İstanbul"}));
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();

    EXPECT_EQ(engine->StartLocation()->coordinate, (platform::Coordinate{41.0, 29.0}));
    EXPECT_EQ(engine->EndLocation()->coordinate, (platform::Coordinate{41.0, 29.0}));
    EXPECT_EQ(engine->StartAnnotation()->coordinate, (platform::Coordinate{41.0, 29.0}));
    EXPECT_EQ(engine->StartAnnotation()->subtitle, "Başlangıç");
    EXPECT_EQ(engine->StartDateTime(), firstSampleTime);
    EXPECT_EQ(engine->StartLocationStr(), "Moda Cd., Kadıköy, İstanbul");
    EXPECT_EQ(DrivingInsightTestAccess::deviceOrientation(*engine), 5);
    EXPECT_EQ(DrivingInsightTestAccess::deviceOrientationGiven(*engine), 1);
    EXPECT_EQ(engine->TimeElapsedSinceStart(), (platform::DateComponents{0, 0, 3, 0}));
    ASSERT_EQ(h.geocoder->requests().size(), 1u);

    // Later samples move the end, not the start.
    engine->didUpdateLocations({h.fix(41.001, 29.0, 5)});
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();
    EXPECT_EQ(engine->StartLocation()->coordinate.latitude, 41.0);
    EXPECT_EQ(engine->EndLocation()->coordinate.latitude, 41.001);
    EXPECT_EQ(h.geocoder->requests().size(), 1u);
}

TEST_F(TripLifecycle, AddressLookupOutcomes) {
    using G = sim::Geocoder;
    struct Case {
        const char* name;
        G::Answer answer;
        std::string start, end;  // an unanswered end lookup still completes the trip, as "???"
    };
    const Case cases[] = {
        {"placemark", G::placemark({"A", "B"}), "A, B", "A, B"},
        {"error", G::failure(), "???", "???"},
        {"nothing", G::nothing(), "", "???"},
        {"empty list", G::Answer{std::vector<platform::Placemark>{}, std::nullopt}, "", "???"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EngineHarness h2;
        auto e = h2.makeEngine();
        h2.geocoder->enqueueAnswer(c.answer);
        ASSERT_TRUE(e->startTrip());
        e->didUpdateLocations({h2.fix(41.0, 29.0, 5)});
        h2.motion->push(EngineHarness::flatSample());
        h2.queue->runUntilIdle();
        EXPECT_EQ(e->StartLocationStr(), c.start);
        h2.geocoder->enqueueAnswer(c.answer);
        e->stopTrip();
        while (h2.queue->runUntilIdle() + h2.http->deliverAll() > 0) {
        }
        EXPECT_EQ(e->EndLocationStr(), c.end);
        EXPECT_EQ(e->TripHistory().size(), 1u);
    }
}

TEST_F(TripLifecycle, NoPositionForTenSecondsStopsTheTrip) {
    ASSERT_TRUE(engine->startTrip());
    h.clock->advance(9999ms);
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();
    EXPECT_TRUE(engine->IsDriving());
    EXPECT_TRUE(h.delegate->reports().empty());

    h.clock->advance(1ms);
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();
    EXPECT_FALSE(engine->IsDriving());
    Reports r = h.delegate->reports();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].kind, "tripDidFinish");
    EXPECT_EQ(r[0].trip, nullptr);
    EXPECT_EQ(r[1].kind, "tripDidFail");
    EXPECT_EQ(r[1].code, 1000);
    EXPECT_EQ(r[1].title, "Sürüş Sonlandırılıyor");
    EXPECT_EQ(r[1].message,
              "Konum bilgisi alınamadığı için Sürüş Başlatılamıyor. Daha sonra tekrar deneyiniz");
    EXPECT_EQ(r[1].alert, nullptr);
    EXPECT_FALSE(h.motion->isDeviceMotionActive());
    EXPECT_FALSE(h.location->isUpdating());
    EXPECT_FALSE(h.application->isIdleTimerDisabled());
    EXPECT_TRUE(engine->TripHistory().empty());

    // Samples queued before the stop never reach the engine.
    EXPECT_FALSE(h.motion->push(EngineHarness::flatSample()));
}

TEST_F(TripLifecycle, StopBeforeAnyEvaluatedSampleFinishesWithoutATrip) {
    ASSERT_TRUE(engine->startTrip());
    engine->didUpdateLocations({h.fix(41.0, 29.0, 5)});  // a fix, but no sample yet
    engine->stopTrip();
    settle();
    Reports r = h.delegate->reports();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].kind, "tripDidFinish");
    EXPECT_EQ(r[0].trip, nullptr);
    EXPECT_TRUE(h.geocoder->requests().empty());
    EXPECT_TRUE(engine->TripHistory().empty());
}

TEST_F(TripLifecycle, StopLooksUpTheEndAndCompletesTheTrip) {
    posts("tripStoppedEndAnnotationSetted");
    posts("tripEndedSuccessfully");
    h.geocoder->enqueueAnswer(sim::Geocoder::placemark({"Start"}));
    startRecording();
    h.clock->advance(2s);
    engine->didUpdateLocations({h.fix(41.0009, 29.0, 5)});
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();

    h.geocoder->enqueueAnswer(sim::Geocoder::placemark({"Bağdat Cd.", "İstanbul"}));
    h.clock->advance(1s);
    const auto stopTime = h.clock->now();
    engine->stopTrip();
    EXPECT_FALSE(engine->IsDriving());
    EXPECT_EQ(engine->EndDateTime(), stopTime);
    EXPECT_EQ(engine->EndAnnotation()->subtitle, "Bitiş");
    EXPECT_EQ(engine->EndAnnotation()->coordinate, (platform::Coordinate{41.0009, 29.0}));
    EXPECT_EQ(counted("tripStoppedEndAnnotationSetted"), 0u);  // the address comes later

    settle();
    EXPECT_EQ(counted("tripStoppedEndAnnotationSetted"), 1u);
    EXPECT_EQ(engine->EndLocationStr(), "Bağdat Cd., İstanbul");
    EXPECT_EQ(counted("tripEndedSuccessfully"), 1u);
    auto history = engine->TripHistory();
    ASSERT_EQ(history.size(), 1u);
    auto last = engine->LastTrip();
    EXPECT_NE(history[0], last);
    EXPECT_EQ(last->EndLocation, "Bağdat Cd., İstanbul");
    EXPECT_EQ(last->StartLocation, "Start");
    EXPECT_EQ(h.application->idleTimerChanges(), (std::vector<bool>{true, false}));
}

TEST_F(TripLifecycle, CompletionNeedsAnEndAddress) {
    posts("tripEndedSuccessfully");
    DrivingInsightTestAccess::completeStoppedTrip(*engine);
    EXPECT_EQ(counted("tripEndedSuccessfully"), 0u);
    EXPECT_TRUE(engine->TripHistory().empty());

    engine->setEndLocationStr("Somewhere");
    DrivingInsightTestAccess::completeStoppedTrip(*engine);
    EXPECT_EQ(counted("tripEndedSuccessfully"), 1u);
    EXPECT_EQ(engine->TripHistory().size(), 1u);
    EXPECT_EQ(engine->LastTrip()->EndLocation, "Somewhere");
}

TEST_F(TripLifecycle, EndAnnotationSettedStartsAnUploadOnlyWhenNoneRuns) {
    DrivingInsightTestAccess::setSyncingToServer(*engine, true);
    engine->setEndLocationStr("X");
    h.center->post("tripStoppedEndAnnotationSetted", nullptr);
    settle();
    // The upload in flight will continue the flush; nothing new was started.
    EXPECT_TRUE(DrivingInsightTestAccess::isSyncingToServer(*engine));
    EXPECT_TRUE(engine->TripHistory().empty());
}

TEST_F(TripLifecycle, SecondStopRepeatsTheEndSteps) {
    startRecording();
    engine->stopTrip();
    settle();
    ASSERT_EQ(engine->TripHistory().size(), 1u);
    const auto firstEnd = engine->EndDateTime();
    h.clock->advance(30s);
    engine->stopTrip();
    settle();
    EXPECT_GT(*engine->EndDateTime(), *firstEnd);
    EXPECT_EQ(h.geocoder->requests().size(), 3u);  // start, first end, second end
    EXPECT_EQ(engine->TripHistory().size(), 2u);
}

TEST_F(TripLifecycle, CurrentTripBuildsAFreshRecordEachRead) {
    startRecording(41.0, 29.0);
    h.clock->advance(25min + 13s);  // after the first evaluated sample
    engine->didUpdateLocations({h.fix(41.01, 29.0, 5)});
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();
    engine->setTotalTraveledDistance(12437);
    auto a = engine->CurrentTrip();
    ASSERT_NE(a, engine->CurrentTrip());
    EXPECT_EQ(a->TimeElapsedTotalDistance_Formatted, "0:25:13 sn, 12.4 km");
    EXPECT_EQ(a->EndLocationLat, 41.01);
    EXPECT_EQ(a->StartAnnotation, engine->StartAnnotation());  // shared, not copied
    EXPECT_EQ(a->SystemDate, h.clock->now());
}

TEST_F(TripLifecycle, RestartDuringATripStartsAFreshOne) {
    startRecording();
    const auto firstId = engine->DrivingID();
    ASSERT_TRUE(engine->startTrip());
    EXPECT_NE(engine->DrivingID(), firstId);
    // The new trip has no position yet: its samples are dropped until a fix arrives.
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();
    EXPECT_EQ(engine->StartLocation()->coordinate.latitude, 0.0);
}

TEST_F(TripLifecycle, DestroyedEngineIgnoresLateAnswers) {
    startRecording();
    engine->stopTrip();
    engine.reset();
    EXPECT_NO_FATAL_FAILURE(settle());
}

}  // namespace
}  // namespace kestrelvue
