#pragma once
// A simulated host driving the real engine in virtual time against a loopback server, for the
// upload tests: what the server received and what the host's delegate heard.

#include <gtest/gtest.h>
#include <kestrelvue/DrivingInsight.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "core/Json.h"
#include "platform/sim/Sim.h"
#include "support/EngineHarness.h"
#include "support/TestEnvironment.h"

namespace kestrelvue::uploadtest {

using namespace std::chrono_literals;
using test::ScriptedReply;

inline constexpr const char* kMotionPath = "/api/Driving/addMotionData";
inline constexpr const char* kScorePath = "/api/Driving/addDrivingScore";
inline constexpr const char* kThresholdPath = "/api/Driving/getThresholds";

// The finished trips the host heard.
inline std::vector<std::shared_ptr<Trip>> finishedTrips(const test::RecordingDelegate& d) {
    std::vector<std::shared_ptr<Trip>> out;
    for (const auto& r : d.reports("tripDidFinish")) out.push_back(r.trip);
    return out;
}

// One record of a received "MotionStr": its 39 fields, blanks kept.
using RecordFields = std::vector<std::string>;

struct ReceivedBulk {
    std::int64_t userID = 0;
    std::string drivingGuid;
    Value appVersion;
    std::vector<RecordFields> records;
};

inline ReceivedBulk parseBulk(const test::ReceivedRequest& request) {
    ReceivedBulk bulk;
    auto parsed = json::parse(request.body);
    EXPECT_TRUE(parsed) << parsed.error;
    if (!parsed) return bulk;
    const Value& body = *parsed.value;
    EXPECT_EQ(body.asObject()->size(), 4u);
    bulk.userID = body.find("UserID")->asInt().value_or(-1);
    bulk.drivingGuid = *body.find("DrivingGuid")->asString();
    bulk.appVersion = *body.find("AppVersion");
    const std::string& text = *body.find("MotionStr")->asString();
    EXPECT_TRUE(text.empty() || text.back() == ';') << "the last record lacks its ';'";
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find(';', start), text.size());
        EXPECT_EQ(text[end - 1], ',') << "a record ends with a comma";
        RecordFields fields;
        for (std::size_t f = start, comma; f < end; f = comma + 1) {
            comma = text.find(',', f);
            fields.push_back(text.substr(f, comma - f));
        }
        bulk.records.push_back(std::move(fields));
        start = end + 1;
    }
    return bulk;
}

inline std::int64_t itemIdOf(const RecordFields& record) {
    return std::atoll(record.at(22).c_str());
}

// The samples a test pushes: flat (pitch near 0), small and distinct per sample, so each record
// can be matched to the sample that made it.
inline platform::DeviceMotion sampleFor(std::int64_t n) {
    platform::DeviceMotion m;
    m.attitude = {0.001 * (n % 100), -0.002, 0.5 + 0.001 * (n % 500)};
    m.rotationRate = {0.003, -0.001 * (n % 7), 0.002};
    m.userAcceleration = {0.001 * (n % 50), -0.001, 0.004};
    m.gravity = {0.0, 0.0, -1.0};
    return m;
}

class UploadHost : public ::testing::Test {
protected:
    // Called by each test after scripting the server: builds the environment and the engine.
    void SetUpEngine(std::int64_t bulkSize = 1000) {
        BuildEnvironment(bulkSize);
        MakeEngine();
    }

    void BuildEnvironment(std::int64_t bulkSize) {
        env_ = test::makeTestEnvironment(server_);
        sim_.installInto(env_);
        (*env_.applicationInfo)["BulkMotionDataSize"] = Value(bulkSize);
        (*env_.applicationInfo)["CFBundleShortVersionString"] = Value("1.4.2");
        (*env_.applicationInfo)["CFBundleDisplayName"] = Value("Sürüş Takip");
    }

    void MakeEngine() {
        engine_ = DrivingInsight::makeDetached(env_);
        // Registered after the engine's own observers, so a recorded outcome means the engine's
        // handler has finished with it.
        outcomes_ = std::make_unique<test::NotificationRecorder>(
            env_.notifications,
            std::vector<std::string>{"motionDataSynced", "motionDataSyncFailed", "getThresholds"});
        engine_->setDrivingInsightDelegate(delegate_);
        engine_->setUserID(77);
        queue_->runUntilIdle();
    }

    // Waits until every motion request the server saw has ended in an outcome the engine
    // handled and the threshold download in its reply, and no new motion request came within a
    // short grace period (a sent request reaches the server a little later; an outcome may send
    // another bulk).
    void settleUploads() {
        for (int round = 0; round < 50; ++round) {
            const std::size_t uploads = server_.requests(kMotionPath).size();
            const std::size_t needed = uploads + server_.requests(kThresholdPath).size();
            outcomes_->waitFor(needed, 5s);
            // A quiet window: no new motion request for a while (sanitizers slow every step,
            // the client's first connection most).
#ifdef KESTRELVUE_SANITIZED
            const auto until = std::chrono::steady_clock::now() + 1000ms;
#else
            const auto until = std::chrono::steady_clock::now() + 200ms;
#endif
            while (server_.requests(kMotionPath).size() == uploads) {
                const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    until - std::chrono::steady_clock::now());
                if (left.count() <= 0) break;
                server_.waitForRequests(server_.requests().size() + 1, {}, left);
            }
            if (server_.requests(kMotionPath).size() == uploads) break;
        }
    }

    void TearDown() override {
        if (!engine_) return;
        // Let every reply reach the engine before it goes.
        settleUploads();
        engine_.reset();
    }

    void start() {
        ASSERT_TRUE(engine_->startTrip());
        platform::Location fix;
        fix.coordinate = {41.0082, 28.9784};
        fix.horizontalAccuracy = 5;
        fix.verticalAccuracy = 5;
        fix.speed = 13.5;
        fix.timestamp = clock_->now();
        engine_->didUpdateLocations({fix});
        queue_->runUntilIdle();
    }

    // Pushes `count` samples half a second apart, numbering them from `first`.
    void drive(std::int64_t count, std::int64_t first = 1) {
        for (std::int64_t i = 0; i < count; ++i) {
            clock_->advance(500ms);
            ASSERT_TRUE(motion_->push(sampleFor(first + i)));
            queue_->runUntilIdle();
        }
    }

    // Stops, then lets the end address lookup answer.
    void stop(sim::Geocoder::Answer endAddress = sim::Geocoder::placemark({"Bitiş Cd. 1",
                                                                           "İstanbul"})) {
        geocoder_->enqueueAnswer(std::move(endAddress));
        engine_->stopTrip();
        queue_->runUntilIdle();
    }

    // Bounded wait for the server to have received `n` motion uploads.
    bool waitForMotionRequests(std::size_t n) const {
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (server_.requests(kMotionPath).size() < n) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            server_.waitForRequests(server_.requests().size() + 1, {}, 50ms);
        }
        return true;
    }

    std::vector<ReceivedBulk> bulks() const {
        std::vector<ReceivedBulk> out;
        for (const auto& r : server_.requests(kMotionPath)) out.push_back(parseBulk(r));
        return out;
    }

    // The item identifiers the server received, in arrival order.
    std::vector<std::int64_t> receivedIds() const {
        std::vector<std::int64_t> ids;
        for (const auto& bulk : bulks())
            for (const auto& record : bulk.records) ids.push_back(itemIdOf(record));
        return ids;
    }

    static std::vector<std::int64_t> range(std::int64_t from, std::int64_t to) {
        std::vector<std::int64_t> v;
        for (std::int64_t i = from; i <= to; ++i) v.push_back(i);
        return v;
    }

    test::TestServer server_;
    Environment env_;
    sim::Platform sim_;
    // Shorthands for the parts of sim_ the tests drive.
    std::shared_ptr<sim::VirtualClock>& clock_ = sim_.clock;
    std::shared_ptr<sim::MainQueue>& queue_ = sim_.queue;
    std::shared_ptr<sim::MotionSource>& motion_ = sim_.motion;
    std::shared_ptr<sim::Geocoder>& geocoder_ = sim_.geocoder;
    std::shared_ptr<test::RecordingDelegate> delegate_ =
        std::make_shared<test::RecordingDelegate>();
    std::unique_ptr<test::NotificationRecorder> outcomes_;
    std::unique_ptr<DrivingInsight> engine_;
};

}  // namespace kestrelvue::uploadtest
