// The whole evaluation of one sample (detectors, charging, record, notification) through a
// detached engine: with nobody observing "showMotionData", and with one observer.

#include <benchmark/benchmark.h>
#include <kestrelvue/platform/MountingAlignment.h>
#include <kestrelvue/posix/IioMotionManager.h>
#include <kestrelvue/posix/SqliteOutboxStore.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <random>
#include <vector>

#include "AllocationCounter.h"
#include "platform/posix/sensors/GpsdReport.h"
#include "platform/posix/sensors/MotionFusion.h"
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
        s.evaluator.deviceOrientation = 5;  // derived from the attitude
        s.evaluator.deviceOrientationGiven = 1;
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

// The mounting alignment's cost per sample, to set against BM_Evaluate_NoObserver: the sample
// goes through the decorator's handler as a platform would deliver it, the phone turned and
// pitched, with a fix every 20 samples (10 s at the engine's interval) for the yaw estimate.
// What it costs is the difference from BM_Align_None, the same delivery undecorated.
class HeldHandler final : public platform::MotionManager {
public:
    bool isDeviceMotionAvailable() const override { return true; }
    bool isDeviceMotionActive() const override { return true; }
    double deviceMotionUpdateInterval() const override { return 0.5; }
    void setDeviceMotionUpdateInterval(double) override {}
    bool showsDeviceMovementDisplay() const override { return false; }
    void setShowsDeviceMovementDisplay(bool) override {}
    platform::AsyncRequest startDeviceMotionUpdates(platform::AttitudeReferenceFrame,
                                                    std::shared_ptr<platform::Executor>,
                                                    platform::DeviceMotionHandler h) override {
        handler = std::move(h);
        return {};
    }
    void stopDeviceMotionUpdates() override {}
    platform::DeviceMotionHandler handler;
};

enum class Mounting { none, fixed, estimated };

void align(benchmark::State& state, Mounting mounting) {
    auto inner = std::make_shared<HeldHandler>();
    const platform::MountingAngles mounted{1.1, 0.1, 0.7};
    std::shared_ptr<platform::MotionManager> alignment = inner;
    if (mounting == Mounting::fixed)
        alignment = std::make_shared<platform::MountingAlignment>(inner, mounted);
    else if (mounting == Mounting::estimated)
        alignment = std::make_shared<platform::MountingAlignment>(inner);
    double sink = 0;
    auto session = alignment->startDeviceMotionUpdates(
        platform::AttitudeReferenceFrame::xArbitraryZVertical, nullptr,
        [&sink](const std::optional<platform::DeviceMotion>& m,
                const std::optional<platform::MotionError>&) {
            // Every value read, as the engine reads them: the baseline touches the sample too.
            for (const Vector3* v :
                 {&m->attitude, &m->rotationRate, &m->userAcceleration, &m->gravity})
                sink += v->x + v->y + v->z;
        });
    auto samples = drive();
    for (auto& s : samples) s.gravity = {0, -0.89, -0.45};
    std::int64_t i = 0;
    platform::Location fix;
    fix.coordinate = {41.0, 29.0};
    for (auto _ : state) {
        const auto& s = samples[static_cast<std::size_t>(i) & 4095];
        if (++i % 20 == 0) {
            fix.speed = static_cast<double>(i % 400) * 0.1;
            fix.timestamp += std::chrono::seconds(1);
            alignment->locationsDidUpdate({fix});
        }
        inner->handler(s, std::nullopt);
    }
    benchmark::DoNotOptimize(sink);
}

// The delivery alone, without the decorator: the alignment's cost is what it adds to this.
void BM_Align_None(benchmark::State& state) {
    align(state, Mounting::none);
}
BENCHMARK(BM_Align_None);

void BM_Align_Fixed(benchmark::State& state) {
    align(state, Mounting::fixed);
}
BENCHMARK(BM_Align_Fixed);

void BM_Align_Estimating(benchmark::State& state) {
    align(state, Mounting::estimated);
}
BENCHMARK(BM_Align_Estimating);
// What a live recording adds per sample on a vehicle computer, against the evaluation above: the
// six channel reads of an IIO device (from a directory shaped like sysfs), the gravity filter,
// and the reading of one gpsd TPV report.
void BM_Sensors_IioRead(benchmark::State& state) {
    const auto root = std::filesystem::temp_directory_path() / "kv-sensors-bench-iio";
    std::filesystem::create_directories(root / "iio:device0");
    for (const char* kind : {"accel", "anglvel"}) {
        std::ofstream(root / "iio:device0" / ("in_" + std::string(kind) + "_scale")) << "0.001\n";
        for (const char* axis : {"_x_raw", "_y_raw", "_z_raw"})
            std::ofstream(root / "iio:device0" / ("in_" + std::string(kind) + axis)) << "-1234\n";
    }
    posix::IioMotionManager iio({root.string()});
    for (auto _ : state) benchmark::DoNotOptimize(iio.read());
    std::filesystem::remove_all(root);
}
BENCHMARK(BM_Sensors_IioRead);

void BM_Sensors_GravityFilter(benchmark::State& state) {
    const auto samples = drive();
    posix::GravityFilter filter;
    std::size_t i = 0;
    for (auto _ : state) {
        const auto& s = samples[i++ & 4095];
        const posix::ImuReading reading{{-s.userAcceleration.x * 9.8, -s.userAcceleration.y * 9.8,
                                         9.8 - s.userAcceleration.z * 9.8},
                                        s.rotationRate};
        benchmark::DoNotOptimize(filter.update(reading, 0.5));
    }
}
BENCHMARK(BM_Sensors_GravityFilter);

void BM_Sensors_GpsdReport(benchmark::State& state) {
    const std::string tpv =
        R"({"class":"TPV","device":"/dev/ttyUSB0","mode":3,"time":"2024-06-01T10:00:03.000Z",)"
        R"("ept":0.005,"lat":41.008469800,"lon":28.978400000,"altHAE":40.0,"altMSL":40.0,)"
        R"("epx":9.0,"epy":9.0,"epv":20.0,"track":12.5,"speed":10.0,"climb":0.0,"eph":13.0})";
    for (auto _ : state) benchmark::DoNotOptimize(posix::fixFromJsonLine(tpv));
}
BENCHMARK(BM_Sensors_GpsdReport);
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
