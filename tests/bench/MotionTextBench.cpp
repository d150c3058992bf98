// Building a 1000-record bulk of the motion text: the library's formatter against one snprintf
// per field (same bytes, checked before timing). Compare the two in the same run.

#include <benchmark/benchmark.h>
#include <kestrelvue/MotionData.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <random>
#include <string>

#include "AllocationCounter.h"
#include "RatioReporter.h"
#include "records/TextFormat.h"
#include "support/MotionTextReference.h"

namespace {

using namespace kestrelvue;

// A drive as the engine records it: samples 0.5 s apart, fixes about once a second.
MotionData makeDrive(std::size_t count) {
    std::mt19937_64 rng(1);
    std::normal_distribution<double> g(0.0, 0.15);
    MotionData data;
    const auto t0 = platform::TimePoint{} + std::chrono::seconds(1794837909);
    for (std::size_t i = 0; i < count; ++i) {
        MotionDataItem item;
        item.ItemId = static_cast<std::int64_t>(i + 1);
        item.Acceleration = {g(rng), g(rng), g(rng)};
        item.Rotation = {g(rng), g(rng), g(rng) * 4};
        item.Attitude = {g(rng), g(rng), 1.5 + g(rng)};
        item.Gravity = {g(rng), g(rng), -0.98};
        item.Location.coordinate = {41.0 + 1e-5 * static_cast<double>(i), 28.97 + g(rng) * 1e-3};
        item.Location.speed = 13.5 + g(rng);
        item.Location.course = 87.4 + g(rng);
        item.Location.horizontalAccuracy = 5;
        item.Location.timestamp = t0 + std::chrono::milliseconds(1000 * (i / 2));
        item.DateTime = t0 + std::chrono::milliseconds(500 * i + 231);
        item.Fault.sharpSpeeding = i % 17 == 0 ? 'S' : ' ';
        item.Fault.sharpSpeedingPenalty = i % 17 == 0 ? 0.25 : 0.0;
        item.Fault.fuelEfficiencyPenaltyPerKM = i % 5 == 0 ? 0.125 : 0.0;
        item.OrientationGiven = 1;
        item.Orientation = 5;
        item.CurrentSpeed = 47.3 + g(rng);
        data.motionDataArray.push_back(item);
    }
    return data;
}

const MotionData& drive() {
    static const MotionData data = [] {
        MotionData d = makeDrive(1000);
        if (d.bulkMotionDataToString(1000) != test::referenceBulk(d, 1000)) {
            std::fprintf(stderr, "formatter and snprintf disagree\n");
            std::abort();
        }
        return d;
    }();
    return data;
}

void BM_Bulk1000_Formatter(benchmark::State& state) {
    const MotionData& data = drive();
    std::uint64_t allocations = 0;
    std::uint64_t conversions = 0;
    for (auto _ : state) {
        detail::clearTimestampCache();  // every bulk pays its own conversions
        const std::uint64_t a0 = gAllocations.load();
        const std::uint64_t c0 = detail::timestampConversions();
        std::string bulk = data.bulkMotionDataToString(1000);
        allocations += gAllocations.load() - a0;
        conversions += detail::timestampConversions() - c0;
        benchmark::DoNotOptimize(bulk.data());
    }
    const auto iterations = static_cast<double>(state.iterations());
    state.counters["allocs/bulk"] = static_cast<double>(allocations) / iterations;
    state.counters["localtime/bulk"] = static_cast<double>(conversions) / iterations;
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(data.bulkMotionDataToString(1000).size()));
}
BENCHMARK(BM_Bulk1000_Formatter)->Unit(benchmark::kMicrosecond);

void BM_Bulk1000_SnprintfBaseline(benchmark::State& state) {
    const MotionData& data = drive();
    for (auto _ : state) {
        std::string bulk = test::referenceBulk(data, 1000);
        benchmark::DoNotOptimize(bulk.data());
    }
}
BENCHMARK(BM_Bulk1000_SnprintfBaseline)->Unit(benchmark::kMicrosecond);

void BM_Record_Formatter(benchmark::State& state) {
    const MotionDataItem& item = drive().motionDataArray[7];
    char buffer[MotionDataItem::kMaxTextLength];
    for (auto _ : state) {
        char* end = item.writeTo(buffer);
        benchmark::DoNotOptimize(end);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Record_Formatter);

}  // namespace

int main(int argc, char** argv) {
    return kestrelvue::bench::RatioReporter::run(
        argc, argv, [](const kestrelvue::bench::RatioReporter::Figures& f) {
            const auto ours = f.find("BM_Bulk1000_Formatter"),
                       base = f.find("BM_Bulk1000_SnprintfBaseline");
            if (ours == f.end() || base == f.end()) return;
            std::printf("\nCPU time: formatter %.0f us, snprintf %.0f us: %.1fx faster\n",
                        ours->second.cpuUs, base->second.cpuUs,
                        base->second.cpuUs / ours->second.cpuUs);
        });
}
