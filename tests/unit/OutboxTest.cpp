// The durable outbox's back-off over the virtual clock, on its SQLite store. Damaged store files
// are the OutboxStore fuzz target's, the hand-over between engines the fault soak's.

#include <gtest/gtest.h>
#include <kestrelvue/posix/SqliteOutboxStore.h>

#include <filesystem>
#include <mutex>

#include "net/Outbox.h"
#include "platform/sim/Sim.h"
#include "support/EngineHarness.h"
#include "support/TestEnvironment.h"

using namespace kestrelvue;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

struct TempDir {
    fs::path path =
        fs::temp_directory_path() /
        ("kv-outbox-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "-" +
         ::testing::UnitTest::GetInstance()->current_test_info()->name());
    TempDir() { fs::remove_all(path); }
    ~TempDir() { fs::remove_all(path); }
};

}  // namespace

TEST(Outbox, TriesAgainWithJitteredDoublingBackOffUpToTheCapUntilConfirmed) {
    TempDir dir;
    auto clock = std::make_shared<sim::VirtualClock>();
    auto http = std::make_shared<test::ScriptedHttpClient>();
    std::mutex mutex;  // guards the two below: requests are sent on the outbox's thread
    long status = 500;
    std::vector<platform::TimePoint> times;
    http->setResponder([&](const platform::HttpRequest&) {
        std::lock_guard lock(mutex);
        times.push_back(clock->now());
        return test::ScriptedHttpClient::reply(status, "");
    });
    http->answerAtOnce();
    Environment env;
    env.clock = clock;
    env.http = http;
    env.reachability = test::reachableProbe();
    env.notifications = NotificationCenter::make();
    Object lastAnnounced;
    auto token = env.notifications->addObserver(
        detail::kUploadsPending, [&](const Notification& n) { lastAnnounced = *n.userInfo; });
    detail::Outbox outbox(env, std::make_unique<posix::SqliteOutboxStore>(dir.path.string()),
                          {2s, 16s, 5ms});
    int firstOutcomes = 0;
    outbox.submit({{0, platform::OutboxKind::motion, 7, "http://127.0.0.1:1/api/x", "x"}},
                  [&](const platform::HttpResult&) { ++firstOutcomes; });
    outbox.waitUntilIdle();
    EXPECT_EQ(outbox.pending().records, 7);
    for (int second = 0; second < 120; ++second) {
        clock->advance(1s);
        outbox.wake();
        outbox.waitUntilIdle();
    }
    {
        std::lock_guard lock(mutex);
        status = 200;
    }
    // 2, 4, 8, 16, 16, ... seconds, each cut to a random half to all of it (plus the 1 s steps).
    ASSERT_GE(times.size(), 8u);
    for (std::size_t i = 1; i < times.size(); ++i) {
        const auto full = std::min<std::chrono::seconds>(2s * (1 << std::min<int>(i - 1, 3)), 16s);
        EXPECT_GE(times[i] - times[i - 1], full / 2) << i;
        EXPECT_LE(times[i] - times[i - 1], full + 1s) << i;
    }
    clock->advance(17s);
    outbox.wake();
    outbox.waitUntilIdle();
    EXPECT_EQ(firstOutcomes, 1);
    EXPECT_EQ(outbox.pending().records, 0);
    EXPECT_EQ(lastAnnounced["records"], Value(0LL));
    EXPECT_TRUE(posix::SqliteOutboxStore(dir.path.string()).load().empty());
}
