#pragma once
// A simulated host for engine tests: the sim platform in virtual time, an HTTP client whose
// replies the test releases, and a delegate that records what the host heard.
//
//   EngineHarness h;                       // fresh clock, queue, sensors, centre, client
//   auto engine = h.makeEngine();          // DrivingInsight::makeDetached(h.env)
//   h.location->setAuthorizationStatus(...);
//   engine->startTrip();
//   h.clock->advance(1s); engine->didUpdateLocations({h.fix(41.0, 29.0, 5)});
//   h.motion->push(EngineHarness::flatSample()); h.queue->runUntilIdle();
//   h.http->deliverAll();                  // answers every request with the responder (200 "[]")

#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/Environment.h>
#include <kestrelvue/platform/HttpClient.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/EngineImpl.h"
#include "platform/sim/Sim.h"
#include "support/TestDoubles.h"

namespace kestrelvue::test {

/// Keeps every request until the test answers it with deliverAll() (on the test's thread,
/// standing in for a worker thread).
class ScriptedHttpClient final : public platform::HttpClient {
public:
    using Responder = std::function<platform::HttpResult(const platform::HttpRequest&)>;

    void send(platform::HttpRequest request, platform::HttpCompletion completion) override;

    void setResponder(Responder responder);
    /// Answers pending requests, and those sent meanwhile, until none is left.
    std::size_t deliverAll();
    std::vector<platform::HttpRequest> requests() const;
    std::vector<std::string> urls() const;

    static platform::HttpResult reply(long status, std::string body);

private:
    mutable std::mutex mutex_;
    Responder responder_;
    std::vector<platform::HttpRequest> sent_;
    std::vector<std::pair<platform::HttpRequest, platform::HttpCompletion>> pending_;
};

struct EngineHarness : sim::Platform {
    EngineHarness();

    std::shared_ptr<ScriptedHttpClient> http = std::make_shared<ScriptedHttpClient>();
    std::shared_ptr<NotificationCenter> center = NotificationCenter::make();
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    Environment env;

    /// A detached engine over env, with the recording delegate installed.
    std::unique_ptr<DrivingInsight> makeEngine();

    /// A fix at the clock's present time (plus `age`, usually negative).
    platform::Location fix(double latitude, double longitude, double accuracy,
                           std::chrono::nanoseconds age = {}) const;
    /// A sample taken while the device lies flat (pitch 0.1).
    static platform::DeviceMotion flatSample();
};

}  // namespace kestrelvue::test

namespace kestrelvue {

/// Reaches the engine's private operations and settings for tests.
struct DrivingInsightTestAccess {
    static int getDeviceOrientation(const Vector3& attitude) {
        return DrivingInsight::Impl::getDeviceOrientation(attitude);
    }
    static void calculateSpeedWhenLocationChanged(DrivingInsight& e, const platform::Location& from,
                                                  const platform::Location& to) {
        std::lock_guard lock(e.impl_->mutex_);
        e.impl_->calculateSpeedWhenLocationChanged(from, to);
    }
    static double previousSpeed(DrivingInsight& e) {
        std::lock_guard lock(e.impl_->mutex_);
        return e.impl_->previousSpeed;
    }

    struct Settings {
        double updateInterval, distanceFilter, distanceFilterForSpeed;
        std::int64_t durations[4];
        ThresholdList cornering, speeding, braking, elevating, laneChanging, fuel;
    };
    static Settings settings(DrivingInsight& e) {
        std::lock_guard lock(e.impl_->mutex_);
        return Settings{e.impl_->updateInterval,
                        e.impl_->distanceFilter,
                        e.impl_->distanceFilterForSpeed,
                        {e.impl_->sharpLaneChangingDuration1, e.impl_->sharpLaneChangingDuration2,
                         e.impl_->sharpLaneChangingDuration3, e.impl_->sharpLaneChangingDuration4},
                        e.impl_->sharpCorneringLevel,
                        e.impl_->sharpSpeedingLevel,
                        e.impl_->sharpBrakingLevel,
                        e.impl_->sharpElevatingLevel,
                        e.impl_->sharpLaneChangingLevel,
                        e.impl_->fuelEfficiencyLevel};
    }
    static int deviceOrientation(DrivingInsight& e) {
        std::lock_guard lock(e.impl_->mutex_);
        return e.impl_->deviceOrientation;
    }
    static int deviceOrientationGiven(DrivingInsight& e) {
        std::lock_guard lock(e.impl_->mutex_);
        return e.impl_->deviceOrientationGiven;
    }
    /// A copy of the motion buffer's records, oldest first.
    static std::vector<MotionDataItem> motionRecords(DrivingInsight& e) {
        std::lock_guard lock(e.impl_->mutex_);
        return e.impl_->tripMotion.motionDataArray;
    }
    static bool isSyncingToServer(DrivingInsight& e) {
        std::lock_guard lock(e.impl_->mutex_);
        return e.impl_->tripMotion.isSyncingToServer;
    }
    static void setSyncingToServer(DrivingInsight& e, bool value) {
        std::lock_guard lock(e.impl_->mutex_);
        e.impl_->tripMotion.isSyncingToServer = value;
    }

    // Sample evaluation and score.
    struct Totals {
        std::int64_t sharpCorneringCount, sharpSpeedingCount, sharpBrakingCount,
            sharpElevatingCount, sharpLaneChangingCount, eventCount;
        double sharpCorneringPenalty, sharpSpeedingPenalty, sharpBrakingPenalty,
            sharpElevatingPenalty, sharpLaneChangingPenalty;
        double sharpCorneringPenaltyPerKM, sharpSpeedingPenaltyPerKM, sharpBrakingPenaltyPerKM,
            sharpElevatingPenaltyPerKM, sharpLaneChangingPenaltyPerKM, fuelEfficiencyPenaltyPerKM;
        FaultTypes faultType;
    };
    static Totals totals(const DrivingInsight& e) {
        std::lock_guard lock(e.impl_->mutex_);
        return {e.impl_->sharpCorneringCount,        e.impl_->sharpSpeedingCount,
                e.impl_->sharpBrakingCount,          e.impl_->sharpElevatingCount,
                e.impl_->sharpLaneChangingCount,     e.impl_->eventCount,
                e.impl_->sharpCorneringPenalty,      e.impl_->sharpSpeedingPenalty,
                e.impl_->sharpBrakingPenalty,        e.impl_->sharpElevatingPenalty,
                e.impl_->sharpLaneChangingPenalty,   e.impl_->sharpCorneringPenaltyPerKM,
                e.impl_->sharpSpeedingPenaltyPerKM,  e.impl_->sharpBrakingPenaltyPerKM,
                e.impl_->sharpElevatingPenaltyPerKM, e.impl_->sharpLaneChangingPenaltyPerKM,
                e.impl_->fuelEfficiencyPenaltyPerKM, e.impl_->faultType};
    }
    struct Bands {
        ThresholdList cornering = {}, speeding = {}, braking = {}, elevating = {},
                      laneChanging = {}, fuel = {};
    };
    static void setBands(DrivingInsight& e, Bands b) {
        std::lock_guard lock(e.impl_->mutex_);
        e.impl_->sharpCorneringLevel = std::move(b.cornering);
        e.impl_->sharpSpeedingLevel = std::move(b.speeding);
        e.impl_->sharpBrakingLevel = std::move(b.braking);
        e.impl_->sharpElevatingLevel = std::move(b.elevating);
        e.impl_->sharpLaneChangingLevel = std::move(b.laneChanging);
        e.impl_->fuelEfficiencyLevel = std::move(b.fuel);
    }
    /// Orientation derived from the attitude and the one the platform gave.
    static void setOrientation(DrivingInsight& e, int derived, int given) {
        std::lock_guard lock(e.impl_->mutex_);
        e.impl_->deviceOrientation = derived;
        e.impl_->deviceOrientationGiven = given;
    }
    static MotionData motion(const DrivingInsight& e) {
        std::lock_guard lock(e.impl_->mutex_);
        return e.impl_->tripMotion;
    }
    static void reserveMotion(DrivingInsight& e, std::size_t records) {
        std::lock_guard lock(e.impl_->mutex_);
        e.impl_->tripMotion.motionDataArray.reserve(records);
    }
    static void clearMotion(DrivingInsight& e) {
        std::lock_guard lock(e.impl_->mutex_);
        e.impl_->tripMotion.motionDataArray.clear();
    }
    static LaneChangingData laneState(const DrivingInsight& e) {
        std::lock_guard lock(e.impl_->mutex_);
        return e.impl_->laneChangingItems;
    }
};

}  // namespace kestrelvue
