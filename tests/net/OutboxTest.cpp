// The durable outbox's back-off over the virtual clock, on its SQLite store, with compressed
// bodies beside plain ones. Damaged store files
// are the OutboxStore fuzz target's, the hand-over between engines the fault soak's.

#include <gtest/gtest.h>
#include <kestrelvue/posix/SqliteOutboxStore.h>

#include <atomic>
#include <filesystem>
#include <mutex>

#include "net/Gzip.h"
#include "net/Outbox.h"
#include "platform/sim/Sim.h"
#include "support/EngineHarness.h"

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
    test::EngineHarness h;  // virtual clock, scripted client, a reachable route
    const auto& clock = h.clock;
    std::mutex mutex;  // guards the two below: requests are sent on the outbox's thread
    long status = 500;
    std::vector<platform::TimePoint> times;
    h.http->setResponder([&](const platform::HttpRequest&) {
        std::lock_guard lock(mutex);
        times.push_back(clock->now());
        return test::ScriptedHttpClient::reply(status, "");
    });
    h.http->answerAtOnce();
    Object lastAnnounced;
    auto token = h.center->addObserver(detail::kUploadsPending,
                                       [&](const Notification& n) { lastAnnounced = *n.userInfo; });
    detail::Outbox outbox(h.env, std::make_unique<posix::SqliteOutboxStore>(dir.path.string()),
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
    EXPECT_EQ(std::tuple(firstOutcomes, outbox.pending().records, lastAnnounced["records"]),
              std::tuple(1, 0, Value(0LL)));
    EXPECT_TRUE(posix::SqliteOutboxStore(dir.path.string()).load().empty());
}

// With compression on, a new bulk is kept deflated and sent with its encoding; an entry an earlier
// version wrote plain goes as it is.
TEST(Outbox, KeepsNewBulksCompressedAndSendsOldPlainEntriesAsTheyAre) {
    TempDir dir;
    const std::string url = "http://127.0.0.1:1/api/Driving/addMotionData";
    const std::string bodies[] = {R"({"MotionStr":"old"})",
                                  R"({"MotionStr":")" + std::string(4000, '7') + R"("})"};
    std::vector<platform::OutboxEntry> old{{0, platform::OutboxKind::motion, 3, url, bodies[0]}};
    ASSERT_TRUE(posix::SqliteOutboxStore(dir.path.string()).add(old));
    test::EngineHarness h;
    std::atomic<long> status = 500;
    h.http->setResponder(
        [&](const platform::HttpRequest&) { return test::ScriptedHttpClient::reply(status, ""); });
    h.http->answerAtOnce();
    h.env.compressUploads = true;
    detail::Outbox outbox(h.env, std::make_unique<posix::SqliteOutboxStore>(dir.path.string()),
                          {1s, 1s, 5ms});
    outbox.submit({{0, platform::OutboxKind::motion, 9, url, bodies[1]}});
    outbox.waitUntilIdle();
    const auto kept = posix::SqliteOutboxStore(dir.path.string()).load();
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_LT(kept[1].body.size(), bodies[1].size() / 10);

    status = 200;
    h.clock->advance(2s);
    outbox.wake();
    outbox.waitUntilIdle();
    const auto sent = h.http->requests();
    ASSERT_EQ(sent.size(), 4u);  // each tried once failing, then once confirmed
    EXPECT_EQ(sent[2].body, bodies[0]);
    EXPECT_EQ(sent[2].headers.size() + 1, sent[3].headers.size());
    EXPECT_EQ(sent[3].headers.back(),
              (std::pair<std::string, std::string>{"Content-Encoding", "gzip"}));
    EXPECT_EQ(detail::gunzip(*sent[3].body, 1 << 20), bodies[1]);
}
