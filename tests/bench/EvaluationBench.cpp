// The whole evaluation of one sample (detectors, charging, record, notification) through a
// detached engine: with nobody observing "showMotionData", and with one observer.

#include <benchmark/benchmark.h>
#include <kestrelvue/posix/SqliteOutboxStore.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <random>
#include <vector>

#include "AllocationCounter.h"
#include "support/EngineHarness.h"

namespace kestrelvue {
namespace {

ThresholdList bands(std::initializer_list<Threshold> list) {
    ThresholdList out;
    for (const Threshold& t : list) out.push_back(std::make_shared<const Threshold>(t));
    return out;
}

// Samples of a lively drive: most quiet, some over the bands, lane swings now and then.
std::vector<platform::DeviceMotion> drive() {
    std::mt19937_64 rng(5);
    std::normal_distribution<double> g(0.0, 0.2);
    std::vector<platform::DeviceMotion> samples(4096);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        auto& s = samples[i];
        s.attitude = {0.1, g(rng), 1.0};
        s.userAcceleration = {g(rng), g(rng), g(rng)};
        s.rotationRate = {g(rng), g(rng),
                          (i / 12) % 3 == 0 ? 1.5 * ((i / 6) % 2 ? 1 : -1) : g(rng)};
        s.gravity = {0, 0, -1};
    }
    return samples;
}

// Answers every upload with 200 at once.
class InstantHttp final : public platform::HttpClient {
public:
    platform::AsyncRequest send(platform::HttpRequest,
                                platform::HttpCompletion completion) override {
        completion(test::ScriptedHttpClient::reply(200, ""));
        return {};
    }
};

enum class Upload { none, direct, outbox };

void evaluate(benchmark::State& state, bool observed, Upload upload = Upload::none,
              bool compress = false) {
    test::EngineHarness h;
    h.env.compressUploads = compress;
    const auto dir = std::filesystem::temp_directory_path() / "kv-evaluation-bench-outbox";
    std::filesystem::remove_all(dir);
    if (upload != Upload::none) h.env.http = std::make_shared<InstantHttp>();
    if (upload == Upload::outbox) {
        h.env.outboxDirectory = dir.string();
        h.env.makeOutboxStore = [](const std::string& d) {
            return std::make_unique<posix::SqliteOutboxStore>(d);
        };
    }
    auto engine = h.makeEngine();
    // Without uploads the timing holds the evaluation alone; with them, a bulk every 1000.
    engine->setBulkMotionDataSize(upload == Upload::none ? 1'000'000'000 : 1000);
    engine->setCurrentLocation(h.fix(41.0, 29.0, 5));
    engine->setTimeElapsedSinceStart(platform::DateComponents{0, 12, 30});
    DrivingInsightTestAccess::change(*engine, [&](auto& s) {
        using K = detail::EventKind;
        s.deviceOrientation = 5;  // derived from the attitude
        s.deviceOrientationGiven = 1;
        s.settings.level(K::cornering) = bands({{0.3, 0.6, 2, false}, {0.6, 9, 4, false}});
        s.settings.level(K::speeding) = bands({{0.3, 9, 3, true}});
        s.settings.level(K::braking) = bands({{0.3, 9, 3, false}});
        s.settings.level(K::elevating) = bands({{0.3, 9, 1, false}});
        s.settings.level(K::laneChanging) = bands({{1.2, 9, 3, false}});
        s.settings.fuelEfficiencyLevel = bands({{0.25, 9, 1, true}});
    });
    std::uint64_t received = 0;
    ObserverToken token;
    if (observed)
        token = h.center->addObserver("showMotionData",
                                      [&received](const Notification&) { ++received; });
    const auto samples = drive();
    std::int64_t id = 0;
    std::uint64_t allocations = 0;
    const std::uint64_t bufferCap = 100000;
    DrivingInsightTestAccess::change(*engine, [&](auto& engineState) {
        engineState.uploader.buffer.motionDataArray.reserve(bufferCap);
    });
    for (auto _ : state) {
        const auto& s = samples[static_cast<std::size_t>(id) & 4095];
        const std::uint64_t before = gAllocations.load(std::memory_order_relaxed);
        engine->evaluateActionForDrivingScore(++id, s.attitude, s.rotationRate, s.userAcceleration,
                                              s.gravity);
        allocations += gAllocations.load(std::memory_order_relaxed) - before;
        if (static_cast<std::uint64_t>(id) % bufferCap == 0) {
            state.PauseTiming();
            // Capacity stays: no regrowth.
            DrivingInsightTestAccess::change(*engine, [](auto& engineState) {
                engineState.uploader.buffer.motionDataArray.clear();
            });
            state.ResumeTiming();
        }
    }
    state.counters["allocs/sample"] =
        static_cast<double>(allocations) / static_cast<double>(state.iterations());
    if (observed && received != static_cast<std::uint64_t>(state.iterations()))
        state.SkipWithError("observer missed samples");
}

void BM_Evaluate_NoObserver(benchmark::State& state) {
    evaluate(state, false);
}
BENCHMARK(BM_Evaluate_NoObserver);

void BM_Evaluate_OneObserver(benchmark::State& state) {
    evaluate(state, true);
}
BENCHMARK(BM_Evaluate_OneObserver);

// Bulks of 1000 sent straight to the client, against the same written to the durable outbox
// first (off the sampling thread): the outbox must not slow the per-sample path.
void BM_Evaluate_UploadDirect(benchmark::State& state) {
    evaluate(state, false, Upload::direct);
}
BENCHMARK(BM_Evaluate_UploadDirect);

void BM_Evaluate_UploadOutbox(benchmark::State& state) {
    evaluate(state, false, Upload::outbox);
}
BENCHMARK(BM_Evaluate_UploadOutbox);

// The same with compressed uploads: the deflate runs off the sampling thread, so the per-sample
// time must not move.
void BM_Evaluate_UploadDirectCompressed(benchmark::State& state) {
    evaluate(state, false, Upload::direct, true);
}
BENCHMARK(BM_Evaluate_UploadDirectCompressed);

void BM_Evaluate_UploadOutboxCompressed(benchmark::State& state) {
    evaluate(state, false, Upload::outbox, true);
}
BENCHMARK(BM_Evaluate_UploadOutboxCompressed);

}  // namespace
}  // namespace kestrelvue
