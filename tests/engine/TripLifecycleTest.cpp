// Starting, sampling, stopping and completing trips on the simulated platform, in virtual time.

#include <gtest/gtest.h>

#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

using namespace std::chrono_literals;
using test::EngineHarness;

class TripLifecycle : public ::testing::Test {
protected:
    EngineHarness h;
    std::unique_ptr<DrivingInsight> engine = h.makeEngine();
};

// Each refusal is reported once, before anything starts; only a refused permission comes with an
// alert, whose first action opens the settings.
TEST_F(TripLifecycle, RefusedStartsAreReportedWithTheirTexts) {
    using S = platform::AuthorizationStatus;
    const std::string denied =
        "Sürüş başlatabilmek için Konum Servisleri'nden Kestrelvue uygulamasına izin veriniz";
    const std::tuple<bool, bool, S, std::string, std::string, std::string> cases[] = {
        {false, true, S::authorizedWhenInUse, "Device Motion Desteklenmiyor",
         "Sürüş başlatabilmek için telefonunuzun Device Motion desteği bulunmuyor", ""},
        {true, false, S::authorizedWhenInUse, "Konum Servisleri Kapalı",
         "Sürüş başlatabilmek için Konum Servislerini açarak Kestrelvue uygulamasına izin veriniz",
         "Ayarlara Git"},
        {true, true, S::denied, "Konum Erişim Yetkisi Bulunmuyor", denied, "Ayarlara  Git"},
        {true, true, S::restricted, "Konum Erişim Yetkisi Bulunmuyor", denied, "Ayarlara  Git"},
    };
    std::size_t opened = 0;
    for (const auto& [motion, enabled, status, title, message, button] : cases) {
        SCOPED_TRACE(title);
        h.motion->setDeviceMotionAvailable(motion);
        h.location->setLocationServicesEnabled(enabled);
        h.location->setAuthorizationStatus(status);
        const auto before = h.delegate->reports().size();
        EXPECT_FALSE(engine->startTrip());
        const auto r = h.delegate->reports();
        ASSERT_EQ(r.size(), before + 1);
        const auto& f = r.back();
        EXPECT_EQ(std::tuple(f.kind, f.code, f.title, f.message),
                  std::tuple("tripDidFail", 1000, title, message));
        if (button.empty()) {
            EXPECT_EQ(f.alert, nullptr);
            continue;
        }
        ASSERT_NE(f.alert, nullptr);
        ASSERT_EQ(f.alert->actions.size(), 2u);
        const auto& [go, cancel] = std::pair(f.alert->actions[0], f.alert->actions[1]);
        EXPECT_EQ(std::tuple(f.alert->message, go.title, cancel.title, cancel.style),
                  std::tuple(message, button, "Vazgeç", platform::AlertAction::Style::cancel));
        go.handler();
        EXPECT_EQ(std::pair(h.application->openedURLs().size(), h.application->openedURLs().back()),
                  std::pair(++opened, std::string("app-settings:")));
    }
    EXPECT_FALSE(engine->IsDriving() || h.location->isUpdating());  // nothing started or reset
    EXPECT_EQ(engine->DrivingID(), "00000001-0000-4000-8000-000000000001");
    EXPECT_EQ(h.location->authorizationRequestCount(), 0);

    // Not yet asked: asked silently, and even an answer at once leaves this start failed.
    h.location->setAuthorizationStatus(S::notDetermined);
    h.location->setAuthorizationAnswer(S::authorizedWhenInUse);
    const auto reported = h.delegate->reports().size();
    EXPECT_FALSE(engine->startTrip());
    EXPECT_EQ(h.location->authorizationRequestCount(), 1);
    EXPECT_EQ(h.delegate->reports().size(), reported);
    EXPECT_TRUE(engine->startTrip());
}

TEST_F(TripLifecycle, StartResetsTheTripAndStartsTheSensors) {
    engine->setTotalTraveledDistance(900);
    engine->setPassedCoordinates({{41, 29}});
    ASSERT_TRUE(engine->startTrip());
    EXPECT_EQ(engine->TotalTraveledDistance(), 0.0);
    EXPECT_TRUE(engine->PassedCoordinates().empty());
    EXPECT_EQ(engine->DrivingID(), "00000002-0000-4000-8000-000000000002");
    // Until the first fix, a placeholder that no accuracy rule accepts.
    EXPECT_EQ(std::pair(engine->CurrentLocation()->horizontalAccuracy,
                        engine->CurrentLocation()->verticalAccuracy),
              std::pair(1000.0, 1000.0));
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
    EXPECT_EQ(
        engine->StartLocation()->coordinate.latitude + engine->EndLocation()->coordinate.latitude,
        0.0);
    EXPECT_TRUE(h.geocoder->requests().empty() && h.delegate->reports().empty());

    h.device->setOrientation(platform::DeviceOrientation::portrait);
    engine->didUpdateLocations({h.fix(41.0, 29.0, 5)});
    h.clock->advance(500ms);
    const auto firstSampleTime = h.clock->now();
    h.geocoder->enqueueAnswer(sim::Geocoder::placemark({"Moda Cd.", "Kadıköy", "İstanbul"}));
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();

    for (const auto& at : {engine->StartLocation()->coordinate, engine->EndLocation()->coordinate,
                           engine->StartAnnotation()->coordinate})
        EXPECT_EQ(at, (platform::Coordinate{41.0, 29.0}));
    EXPECT_EQ(engine->StartAnnotation()->subtitle, "Başlangıç");
    EXPECT_EQ(engine->StartDateTime(), firstSampleTime);
    EXPECT_EQ(engine->StartLocationStr(), "Moda Cd., Kadıköy, İstanbul");
    const auto orientation = DrivingInsightTestAccess::read(*engine, [](const auto& s) {
        return std::pair(s.evaluator.deviceOrientation, s.evaluator.deviceOrientationGiven);
    });
    EXPECT_EQ(orientation, std::pair(5, 1));
    EXPECT_EQ(engine->TimeElapsedSinceStart(), (platform::DateComponents{0, 0, 3, 0}));
    ASSERT_EQ(h.geocoder->requests().size(), 1u);

    // Later samples move the end, not the start.
    engine->didUpdateLocations({h.fix(41.001, 29.0, 5)});
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();
    EXPECT_EQ(std::pair(engine->StartLocation()->coordinate.latitude,
                        engine->EndLocation()->coordinate.latitude),
              std::pair(41.0, 41.001));
    EXPECT_EQ(h.geocoder->requests().size(), 1u);
}

TEST_F(TripLifecycle, AddressLookupOutcomes) {
    using G = sim::Geocoder;
    struct Case {
        const char* name;
        G::Answer answer;
        std::string start, end;  // an unanswered end lookup still completes the trip, as "???"
        bool geocoder = true;    // false: the environment sets none, and stopTrip() answers
    };
    const Case cases[] = {
        {"placemark", G::placemark({"A", "B"}), "A, B", "A, B"},
        {"error", G::failure(), "???", "???"},
        {"nothing", G::nothing(), "", "???"},
        {"empty list", G::Answer{std::vector<platform::Placemark>{}, std::nullopt}, "", "???"},
        {"no geocoder", G::nothing(), "???", "???", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EngineHarness h2;
        if (!c.geocoder) h2.env.geocoder = Environment().geocoder;
        auto e = h2.makeEngine();
        h2.geocoder->enqueueAnswer(c.answer);
        ASSERT_TRUE(e->startTrip());
        e->didUpdateLocations({h2.fix(41.0, 29.0, 5)});
        h2.motion->push(EngineHarness::flatSample());
        h2.queue->runUntilIdle();
        EXPECT_EQ(e->StartLocationStr(), c.start);
        h2.geocoder->enqueueAnswer(c.answer);
        e->stopTrip();
        EXPECT_EQ(e->EndLocationStr(), c.geocoder ? "" : c.end);
        while (h2.queue->runUntilIdle() + h2.http->deliverAll() > 0) {
        }
        EXPECT_EQ(e->EndLocationStr(), c.end);
        EXPECT_EQ(e->TripHistory().size(), 1u);
    }
}

// Every batch of fixes asks for the weather at the current position until a temperature is known.
TEST_F(TripLifecycle, EveryFixBatchAsksForTheWeather) {
    engine->setUserID(42);
    ASSERT_TRUE(engine->startTrip());
    engine->didUpdateLocations({h.fix(41.0, 29.0, 80)});  // refused: the placeholder's position
    h.clock->advance(1s);
    engine->didUpdateLocations({h.fix(41.0, 29.00123, 5)});
    engine->didUpdateLocations({});  // nothing acceptable still asks
    const std::string base = "http://service.test/api/General/getWeatherDataByLatLon/42";
    std::vector<std::string> urls;  // besides the threshold request of a new engine
    for (const auto& r : h.http->requests()) {
        if (r.url.starts_with(base)) urls.push_back(r.url);
        EXPECT_EQ(r.method, "GET");
    }
    EXPECT_EQ(urls, (std::vector<std::string>{
                        base + "?latitude=0.0&longitude=0.0",
                        base + "?latitude=41.0&longitude=29.00123",
                        base + "?latitude=41.0&longitude=29.00123",
                    }));
    const auto sent = h.http->requests().size();
    engine->setTemperature(17.5);  // known now: no more asking
    engine->didUpdateLocations({h.fix(41.0, 29.0, 5)});
    EXPECT_EQ(h.http->requests().size(), sent);
}

TEST_F(TripLifecycle, NoPositionForTenSecondsStopsTheTrip) {
    ASSERT_TRUE(engine->startTrip());
    h.clock->advance(9999ms);
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();
    EXPECT_TRUE(engine->IsDriving() && h.delegate->reports().empty());

    h.clock->advance(1ms);
    h.motion->push(EngineHarness::flatSample());
    h.queue->runUntilIdle();
    EXPECT_FALSE(engine->IsDriving());
    const auto r = h.delegate->reports();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].said() + (r[0].trip ? " with a trip" : ""), "tripDidFinish");
    EXPECT_EQ(r[1].said(),
              "tripDidFail 1000 Sürüş Sonlandırılıyor: Konum bilgisi alınamadığı için "
              "Sürüş Başlatılamıyor. Daha sonra tekrar deneyiniz");
    EXPECT_EQ(r[1].alert, nullptr);
    EXPECT_FALSE(h.motion->isDeviceMotionActive() || h.location->isUpdating() ||
                 h.application->isIdleTimerDisabled() || !engine->TripHistory().empty());

    // Samples queued before the stop never reach the engine.
    EXPECT_FALSE(h.motion->push(EngineHarness::flatSample()));
}

}  // namespace
}  // namespace kestrelvue
