// The durable outbox: its SQLite store (a damaged file set aside, entries kept in order across
// openings) and its back-off over the virtual clock.

#include <gtest/gtest.h>
#include <kestrelvue/posix/SqliteOutboxStore.h>

#include <filesystem>
#include <fstream>
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

platform::OutboxEntry entry(platform::OutboxKind kind, std::int64_t records, std::string body) {
    return platform::OutboxEntry{0, kind, records, "http://127.0.0.1:1/api/x", std::move(body)};
}

}  // namespace

TEST(OutboxStore, ADamagedFileIsSetAsideAndEntriesKeepTheirOrderAcrossOpenings) {
    TempDir dir;
    fs::create_directories(dir.path);
    std::ofstream(dir.path / "outbox.sqlite") << "not a database, written by someone else";
    {
        posix::SqliteOutboxStore store(dir.path.string());
        EXPECT_NE(store.openingReport().find("set aside"), std::string::npos);
        std::vector<platform::OutboxEntry> entries{entry(platform::OutboxKind::motion, 3, "a"),
                                                   entry(platform::OutboxKind::trip, 0, "b"),
                                                   entry(platform::OutboxKind::motion, 2, "c")};
        ASSERT_TRUE(store.add(entries));
        EXPECT_TRUE(store.remove(entries[0].id));
    }
    posix::SqliteOutboxStore again(dir.path.string());
    EXPECT_EQ(again.openingReport(), "");
    const auto left = again.load();
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(left[0].body, "b");
    EXPECT_EQ(left[0].kind, platform::OutboxKind::trip);
    EXPECT_EQ(left[1].body, "c");
    EXPECT_EQ(left[1].records, 2);
    int aside = 0;
    for (const auto& f : fs::directory_iterator(dir.path))
        aside += f.path().filename().string().starts_with("outbox.sqlite.damaged-");
    EXPECT_EQ(aside, 1);
}

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
    outbox.submit({entry(platform::OutboxKind::motion, 7, "x")},
                  [&](platform::HttpResult) { ++firstOutcomes; });
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
