// The durable outbox end to end: an engine that goes while its trip is still being delivered
// leaves the rest in the store, and the next engine over the same directory delivers it, every
// record under its own trip.

#include <kestrelvue/posix/SqliteOutboxStore.h>

#include <filesystem>
#include <set>

#include "net/Outbox.h"
#include "support/UploadFixture.h"

namespace kestrelvue::uploadtest {
namespace {

class OutboxUpload : public UploadHost {
protected:
    void MakeEngineWithOutbox() {
        env_.outboxDirectory = dir_.string();
        env_.makeOutboxStore = [](const std::string& d) {
            return std::make_unique<posix::SqliteOutboxStore>(d);
        };
        MakeEngine();
    }
    void waitForOutbox() { detail::Outbox::existing(env_)->waitUntilIdle(); }
    ~OutboxUpload() override { std::filesystem::remove_all(dir_); }

    std::filesystem::path dir_ =
        std::filesystem::temp_directory_path() /
        ("kv-outbox-it-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
};

TEST_F(OutboxUpload, AnEngineGoneMidDeliveryLeavesTheRestToTheNextOverTheSameDirectory) {
    std::filesystem::remove_all(dir_);
    server_.reply(kMotionPath, ScriptedReply{.status = 500});
    server_.reply(kScorePath, ScriptedReply{.status = 500});
    BuildEnvironment(10);
    MakeEngineWithOutbox();
    start();
    drive(25);
    stop();
    waitForOutbox();
    // The host heard of the failures as it always does (the record's upload among them).
    EXPECT_FALSE(delegate_->reports("tripDidFail").empty());
    const std::string trip = parseBulk(server_.requests(kMotionPath).at(0)).drivingGuid;
    const std::size_t before = server_.requests(kMotionPath).size();
    engine_.reset();

    server_.reply(kMotionPath, ScriptedReply{.status = 200});
    server_.reply(kScorePath, ScriptedReply{.status = 200});
    MakeEngineWithOutbox();
    waitForOutbox();
    EXPECT_EQ(detail::Outbox::existing(env_)->pending().records, 0);
    EXPECT_EQ(detail::Outbox::existing(env_)->pending().trips, 0);
    engine_.reset();

    const auto all = bulks();
    std::vector<std::int64_t> delivered;
    for (std::size_t i = before; i < all.size(); ++i) {
        EXPECT_EQ(all[i].drivingGuid, trip);
        for (const auto& r : all[i].records) delivered.push_back(itemIdOf(r));
    }
    std::sort(delivered.begin(), delivered.end());
    EXPECT_EQ(delivered, range(1, 25));
    EXPECT_EQ(server_.requests(kScorePath).size(), 2u);
    EXPECT_TRUE(posix::SqliteOutboxStore(dir_.string()).load().empty());
}

}  // namespace
}  // namespace kestrelvue::uploadtest
