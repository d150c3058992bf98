// Random trip records uploaded to the reference service and read back through the history: every
// field that travels on the wire comes back as it went, through the library's writer, the
// service's storage and the library's reader; the summary adds them up.
#include <gtest/gtest.h>
#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/service/ReferenceService.h>

#include <map>
#include <random>

#include "support/TestEnvironment.h"
#include "support/Time.h"

namespace kestrelvue {
namespace {

using namespace std::chrono;

constexpr std::int64_t Trip::*kCounts[] = {&Trip::SharpCorneringCount, &Trip::SharpSpeedingCount,
                                           &Trip::SharpBrakingCount, &Trip::SharpElevatingCount,
                                           &Trip::SharpLaneChangingCount};
constexpr std::pair<double Trip::*, double Trip::*> kPenalties[] = {
    {&Trip::SharpCorneringPenalty, &Trip::SharpCorneringPenaltyPerKM},
    {&Trip::SharpSpeedingPenalty, &Trip::SharpSpeedingPenaltyPerKM},
    {&Trip::SharpBrakingPenalty, &Trip::SharpBrakingPenaltyPerKM},
    {&Trip::SharpElevatingPenalty, &Trip::SharpElevatingPenaltyPerKM},
    {&Trip::SharpLaneChangingPenalty, &Trip::SharpLaneChangingPenaltyPerKM}};

// Texts with what a writer or a store may get wrong: quotes, escapes, multi-byte letters.
std::string randomText(std::mt19937& rng) {
    static const char* const pieces[] = {"a", "Z", "7", " ", ",", "\"", "\\", "/",   "ğ",
                                         "Ş", "İ", "ç", "Ö", "€", "🚗",  "\t", "Cd.", "İstanbul"};
    std::string s;
    for (int n = std::uniform_int_distribution(0, 12)(rng); n > 0; --n)
        s += pieces[std::uniform_int_distribution<std::size_t>(0, std::size(pieces) - 1)(rng)];
    return s;
}

std::shared_ptr<Trip> randomTrip(const Environment& env, std::mt19937& rng, int n) {
    auto real = [&](double lo, double hi) { return std::uniform_real_distribution(lo, hi)(rng); };
    auto count = [&] { return std::uniform_int_distribution<std::int64_t>(0, 1'000'000)(rng); };
    auto t = std::make_shared<Trip>(env);
    t->UserID = 4242;
    t->DrivingID = "T-" + std::to_string(n) + "-" + std::to_string(rng());
    // 1900 to 2190: before 1970, where date arithmetic goes wrong first, and as far as the
    // clock's nanoseconds reach (an offset of 292 years or more overflows them on its own).
    t->StartDateTime = test::utc(1900, 1, 1) + seconds(std::uniform_int_distribution<std::int64_t>(
                                                   0, 290ll * 365 * 86400)(rng));
    t->EndDateTime = t->StartDateTime + seconds(rng() % 36000);
    t->StartLocation = randomText(rng);
    t->EndLocation = randomText(rng);
    t->StartLocationLat = real(-90, 90);
    t->StartLocationLong = real(-180, 180);
    t->EndLocationLat = real(-90, 90);
    t->EndLocationLong = real(-180, 180);
    t->Score = real(0, 100);
    for (auto c : kCounts) (*t).*c = count();
    for (auto [sum, part] : kPenalties) {
        (*t).*sum = n % 3 ? real(0, 1000) : 0.0;
        (*t).*part = n % 3 ? real(0, 1000) : 0.0;
    }
    t->FuelEfficiencyPenaltyPerKM = n % 3 ? real(0, 1000) : 0.0;
    t->TimeElapsed = std::to_string(rng() % 24) + ":" + std::to_string(rng() % 60) + ":" +
                     std::to_string(rng() % 60);
    t->TotalDistance = real(0, 2e6);
    return t;
}

TEST(TripRoundTrip, EveryWireFieldComesBackFromTheHistory) {
    test::ScopedTimeZone zone("Europe/Istanbul");  // the service's dates are local times
    service::ReferenceService service{service::ServiceOptions{}};
    ASSERT_TRUE(service.start()) << service.error();
    Environment env = test::makeTestEnvironment(service.baseURL());
    auto host = std::make_shared<test::RecordingDelegate>();
    auto engine = DrivingInsight::makeDetached(env);
    engine->setDrivingInsightDelegate(host);
    engine->setHistoryDataDelegate(host);
    engine->setUserID(4242);

    constexpr int kTrips = 60;
    std::mt19937 rng(20261124);
    std::map<std::string, std::shared_ptr<Trip>> sent;
    for (int i = 0; i < kTrips; ++i) {
        auto trip = randomTrip(env, rng, i);
        sent[trip->DrivingID] = trip;
        trip->saveToServer();
        ASSERT_TRUE(host->waitFor(std::size_t(i) + 1));  // one at a time: the service is small
    }
    ASSERT_EQ(host->reports("tripDidFinish").size(), std::size_t(kTrips));

    engine->getTripHistory();
    ASSERT_TRUE(host->waitFor(kTrips + 1));
    const auto history = host->reports("history");
    ASSERT_EQ(history.size(), 1u);
    ASSERT_EQ(history[0].history.size(), std::size_t(kTrips));
    for (const auto& got : history[0].history) {
        ASSERT_TRUE(sent.count(got->DrivingID)) << got->DrivingID;
        const Trip& a = *sent[got->DrivingID];
        const Trip& b = *got;
        SCOPED_TRACE(a.DrivingID);
        EXPECT_EQ(std::tie(b.UserID, b.StartDateTime, b.EndDateTime, b.StartLocation, b.EndLocation,
                           b.TimeElapsed),
                  std::tie(a.UserID, a.StartDateTime, a.EndDateTime, a.StartLocation, a.EndLocation,
                           a.TimeElapsed));
        for (auto count : kCounts) EXPECT_EQ(b.*count, a.*count);
        for (auto figure : {&Trip::StartLocationLat, &Trip::StartLocationLong,
                            &Trip::EndLocationLat, &Trip::EndLocationLong, &Trip::Score,
                            &Trip::FuelEfficiencyPenaltyPerKM, &Trip::TotalDistance})
            EXPECT_EQ(b.*figure, a.*figure);
        // A penalty travels as its sum with its per-kilometre part.
        for (auto [sum, part] : kPenalties) EXPECT_EQ(b.*sum, a.*sum + a.*part);
    }

    // The summary adds the same trips up (the service sums in its own order), each score
    // weighed by its trip's distance.
    double scores = 0, metres = 0;
    for (const auto& [id, trip] : sent) {
        scores += trip->Score * trip->TotalDistance;
        metres += trip->TotalDistance;
    }
    engine->getSummaryData(4242);
    ASSERT_TRUE(host->waitFor(kTrips + 2));
    const auto summary = host->reports("summary");
    ASSERT_EQ(summary.size(), 1u);
    EXPECT_EQ(summary[0].summary.numberOfTrips, kTrips);
    EXPECT_NEAR(summary[0].summary.averageScore, scores / metres, 1e-9);
    EXPECT_NEAR(summary[0].summary.totalDistance, metres, 1e-3);
}

}  // namespace
}  // namespace kestrelvue
