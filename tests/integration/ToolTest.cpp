// The kestrelvue tool's replay, end to end through its own code into the in-process service.

#include <gtest/gtest.h>
#include <kestrelvue/posix/SqliteOutboxStore.h>
#include <kestrelvue/service/ReferenceService.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Drive.h"
#include "Outbox.h"
#include "Replay.h"
#include "Simulate.h"
#include "core/Json.h"

using namespace kestrelvue;

namespace {

class ToolTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(service_.start()) << service_.error(); }

    tools::ReplayResult play(const tools::Drive& drive) {
        tools::ReplayOptions options;
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
        EXPECT_TRUE(parsed.drive) << name << ": " << parsed.error;
        return parsed.drive.value_or(tools::Drive{});
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

// Writing and reading back is the command-line check's (simulate -o, then replay).
TEST(DriveFile, NamesTheLineItRefuses) {
    const std::string v1 = "fix 0 41 29 1 0 5\nmotion 0.5 0 0 0 0 0 0 0 0 0 0 0 -1\n";
    struct Case {
        std::string text;
        const char* error;  // "" when the drive is good
    } cases[] = {
        {v1, ""},                                                  // no header: version 1, face up
        {"kestrelvue-drive 2\n" + v1, "line 3: a motion sample"},  // its orientation missing
        {"kestrelvue-drive 3\n", "line 1: unsupported drive format"},
        {"fix 0 95 29 1 0 5\n", "line 1: latitude must lie"},
        {"fix 0 41 29 1 0\n", "line 1: a fix needs"},
        {"fix 2 41 29 1 0 5\nfix 1 41 29 1 0 5\n", "line 2: time goes backwards"},
        {"fix 0 41 29 1 0 5\nmotion 1 0 0 0 0 0 0 0 0 0 0 0 nan\n", "line 2: a motion sample"},
        {"jump 0\n", "line 1: unknown event 'jump'"},
    };
    for (const Case& c : cases) {
        std::stringstream in(c.text);
        const auto result = tools::parseDrive(in);
        EXPECT_EQ(result.drive.has_value(), *c.error == '\0') << c.text << result.error;
        EXPECT_EQ(result.error.rfind(c.error, 0), 0u) << c.text << result.error;
    }
}

}  // namespace
