// The kestrelvue tool's replay, end to end through its own code into the in-process service.

#include <gtest/gtest.h>
#include <kestrelvue/posix/SqliteOutboxStore.h>
#include <kestrelvue/service/ReferenceService.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "Drive.h"
#include "Outbox.h"
#include "Replay.h"
#include "Report.h"
#include "Simulate.h"
#include "core/Json.h"

using namespace kestrelvue;

namespace {

class ToolTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(service_.start()) << service_.error(); }

    tools::ReplayResult play(const tools::Drive& drive, bool align = false) {
        tools::ReplayOptions options;
        options.align = align;
        options.baseURL = service_.baseURL();
        options.bulkMotionDataSize = 200;  // bulks while driving and a flush after the stop
        tools::ReplayResult result = tools::replay(drive, options);
        EXPECT_TRUE(result.finished) << result.failure();
        EXPECT_EQ(result.recordsConfirmed, result.records);
        return result;
    }

    static tools::Drive example(const std::string& name) {
        std::ifstream file(std::string(KESTRELVUE_SOURCE_DIR) + "/examples/drives/" + name);
        auto parsed = tools::parseDrive(file);
        EXPECT_TRUE(parsed.value) << name << ": " << parsed.error;
        return parsed.value.value_or(tools::Drive{});
    }

    service::ReferenceService service_{service::ServiceOptions{}};
};

// Every injected kind is found, at most one event a kind missed or extra; and the recording rate
// does not change what is detected, samples reaching the engine at its own interval either way.
TEST_F(ToolTest, InjectedEventsAreDetectedWhateverTheRecordingRate) {
    tools::SimulationOptions options;
    options.seconds = 420;
    options.seed = 21;
    options.eventSpacing = 12;
    options.rate = 2;
    const tools::ReplayResult slow = play(tools::simulate(options).drive);
    options.rate = 100;
    const tools::Simulation sim = tools::simulate(options);
    const tools::ReplayResult fast = play(sim.drive);

    const tools::TruthComparison truth = tools::compareWithTruth(sim.truth, fast.detections);
    for (tools::Kind kind : tools::kKinds) {
        const tools::KindScore& s = truth.kinds[static_cast<int>(kind)];
        SCOPED_TRACE(tools::kindName(kind));
        EXPECT_GT(s.injected, 0);
        EXPECT_LE(s.misses, 1);
        EXPECT_LE(s.extra, 1);
    }
    EXPECT_EQ(slow.samples, fast.samples);
    ASSERT_EQ(slow.detections.size(), fast.detections.size());
    for (std::size_t i = 0; i < slow.detections.size(); ++i) {
        EXPECT_EQ(slow.detections[i].kind, fast.detections[i].kind) << i;
        EXPECT_DOUBLE_EQ(slow.detections[i].t, fast.detections[i].t) << i;
    }
    EXPECT_DOUBLE_EQ(slow.trip->Score, fast.trip->Score);
}

TEST_F(ToolTest, ExampleDrivesScoreAsTheirNamesSay) {
    EXPECT_GE(play(example("city-calm.kvd")).trip->Score, 90.0);
    EXPECT_LE(play(example("city-aggressive.kvd")).trip->Score, 75.0);
}

// After an online run kept the bands in the outbox directory, the same drive started without
// network and delivered later scores as online; sent compressed it costs a seventh of the bytes.
TEST_F(ToolTest, AnOfflineStartScoresWithTheKeptBandsAndCompressionSendsASeventh) {
    const std::string dir = ::testing::TempDir() + "kv-tool-kept-bands";
    std::filesystem::remove_all(dir);
    const tools::Drive drive = example("city-aggressive.kvd");
    tools::ReplayOptions options;
    options.baseURL = service_.baseURL();
    options.outboxDirectory = dir;
    const tools::ReplayResult online = tools::replay(drive, options);
    ASSERT_TRUE(online.finished) << online.failure();
    options.compress = true;
    options.userID = 2;
    const tools::ReplayResult compressed = tools::replay(drive, options);
    ASSERT_TRUE(compressed.finished) << compressed.failure();
    EXPECT_LE(compressed.bytesSent * 7, online.bytesSent);

    options.userID = 3;
    options.baseURL = "http://127.0.0.1:9";  // nothing listens there
    EXPECT_EQ(tools::replay(drive, options).tripsWaiting, 1u);
    const auto waiting = posix::SqliteOutboxStore(dir).load();
    ASSERT_EQ(waiting.back().kind, platform::OutboxKind::trip);  // scored as online:
    EXPECT_EQ(json::parse(waiting.back().body).value->find("Score")->asNumber(),
              online.trip->Score);
    std::ostringstream out;
    EXPECT_EQ(tools::deliverOutbox(dir, service_.baseURL(), std::chrono::seconds(30), out), 0)
        << out.str();
    // A damaged kept reply is set aside, and the trip played without bands says so.
    std::ofstream(dir + "/thresholds.json") << "[{";
    EXPECT_TRUE(tools::replay(drive, options).unscored);
    EXPECT_FALSE(std::filesystem::exists(dir + "/thresholds.json"));
    std::filesystem::remove_all(dir);
}

// A fix or a sample after the engine's last whole interval is still delivered: the trip's
// distance includes the drive's final fix.
TEST_F(ToolTest, TheLastFixIsDeliveredBetweenTwoIntervals) {
    tools::SimulationOptions options;
    options.seconds = 60;
    options.events.clear();
    tools::Drive drive = tools::simulate(options).drive;
    std::erase_if(drive.events, [](const tools::DriveEvent& e) { return e.t > 30'000'000'000; });
    const tools::ReplayResult whole = play(drive);
    tools::DriveEvent last = *std::find_if(drive.events.rbegin(), drive.events.rend(),
                                           [](const tools::DriveEvent& e) { return e.fix; });
    last.t = drive.events.back().t + 300'000'000;  // between two of the engine's intervals
    last.fix->coordinate.latitude += 0.0003;
    drive.events.push_back(last);
    const tools::ReplayResult longer = play(drive);
    EXPECT_EQ(longer.fixes, whole.fixes + 1);
    EXPECT_NEAR(longer.trip->TotalDistance - whole.trip->TotalDistance, 0.0003 * 111'320, 3.0);
}

// The example drives with the phone turned in its holder (any yaw, tilted up as on a
// windshield) and moved halfway, replayed with the estimated alignment, find what the
// straight drives find.
TEST_F(ToolTest, AlignmentFindsWhatTheStraightDriveFinds) {
    std::mt19937 rng(24);
    // Stood up on the windshield, then laid down on the dashboard.
    std::uniform_real_distribution<double> anyYaw(-M_PI, M_PI), tilt(0.9, 1.3), flat(0.1, 0.4);
    for (const char* name :
         {"city-aggressive.kvd", "motorway.kvd", "city-calm.kvd", "city-tunnel.kvd"}) {
        SCOPED_TRACE(name);
        tools::Drive drive = example(name);
        const auto straight = tools::kindLines(play(drive));
        const platform::MountingAngles first{tilt(rng), 0.1, anyYaw(rng)};
        const platform::MountingAngles second{flat(rng), -0.1, anyYaw(rng)};
        tools::mountPhone(drive, first, 0, drive.duration() / 2);
        tools::mountPhone(drive, second, drive.duration() / 2);
        // Given the angles, the alignment turns each sample back exactly.
        const platform::MountingAlignment fixed(nullptr, first);
        for (std::size_t i : {1u, 50u, 500u}) {
            if (!drive.events[i].motion) continue;
            const Vector3 back = fixed.align(*drive.events[i].motion).userAcceleration;
            const Vector3 was = example(name).events[i].motion->userAcceleration;
            EXPECT_NEAR(std::hypot(back.x - was.x, back.y - was.y, back.z - was.z), 0, 1e-9);
        }
        const tools::ReplayResult aligned = play(drive, true);
        ASSERT_TRUE(aligned.mounting);
        EXPECT_NEAR(aligned.mounting->pitch, second.pitch, 0.05);
        EXPECT_NEAR(std::remainder(aligned.mounting->yaw - second.yaw, 2 * M_PI), 0, 0.1);
        const auto found = tools::kindLines(aligned);
        for (std::size_t k = 0; k < found.size(); ++k)
            EXPECT_NEAR(found[k].events, straight[k].events, 1) << tools::kindName(found[k].kind);
    }
}

}  // namespace
