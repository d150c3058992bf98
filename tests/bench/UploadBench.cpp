// Writing the body of a 1000-record motion upload, against copying the same bytes and against the
// general JSON writer; and writing it compressed, against writing it plain. Run with
// GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=1000000000 for stable copies; ratios against the
// memcpy baseline are printed at the end.

#include <benchmark/benchmark.h>
#include <kestrelvue/MotionData.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "RatioReporter.h"
#include "core/Json.h"
#include "engine/EngineState.h"
#include "net/Gzip.h"

namespace {

using namespace kestrelvue;

// A buffer of 1000 records with varied, realistic numbers.
const MotionData& bulkRecords() {
    static const MotionData records = [] {
        MotionData data;
        const auto start = std::chrono::system_clock::time_point{} + std::chrono::hours(420'000);
        for (int i = 0; i < 1000; ++i) {
            MotionDataItem item;
            item.ItemId = i + 1;
            const double t = i * 0.5;
            item.Acceleration = {0.013 * std::sin(t), -0.021 * std::cos(t), 0.0042 * t};
            item.Rotation = {0.11 * std::cos(t), 0.07 * std::sin(t), -0.031};
            item.Attitude = {0.02 * std::sin(t), -0.015, 1.2345 + 0.001 * i};
            item.Gravity = {0.001, -0.02, -0.9998};
            item.Location.coordinate = {41.0082 + i * 1e-5, 28.9784 + i * 1e-5};
            item.Location.horizontalAccuracy = 5;
            item.Location.speed = 13.9;
            item.DateTime = start + std::chrono::milliseconds(500 * i);
            item.CurrentSpeed = 50.0 + std::fmod(t, 7.0);
            data.motionDataArray.push_back(item);
        }
        return data;
    }();
    return records;
}

const std::string& bulkText() {
    static const std::string text = bulkRecords().bulkMotionDataToString(1000);
    return text;
}

const std::string kGuid = "00000001-0000-4000-8000-000000000001";

void BM_MemcpyBaseline(benchmark::State& state) {
    const std::string& text = bulkText();
    std::string out;
    for (auto _ : state) {
        out.assign(text);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_MemcpyBaseline);

// What an upload does while it holds the buffer's lock: copy the bulk's records.
void BM_CopyBulkRecords(benchmark::State& state) {
    const auto& items = bulkRecords().motionDataArray;
    for (auto _ : state) {
        std::vector<MotionDataItem> copy(items.begin(), items.end());
        benchmark::DoNotOptimize(copy.data());
    }
}
BENCHMARK(BM_CopyBulkRecords);

// Context: formatting the bulk text, done after the lock is released.
void BM_FormatBulkText(benchmark::State& state) {
    const MotionData& records = bulkRecords();
    for (auto _ : state) {
        auto text = records.bulkMotionDataToString(1000);
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(BM_FormatBulkText);

void BM_GeneralJsonWriter(benchmark::State& state) {
    const std::string& text = bulkText();
    for (auto _ : state) {
        Object body;
        body["UserID"] = Value(42);
        body["DrivingGuid"] = Value(kGuid);
        body["MotionStr"] = Value(text);
        body["AppVersion"] = Value("1.4.2");
        auto out = json::write(Value(std::move(body)));
        benchmark::DoNotOptimize(out->data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_GeneralJsonWriter);

void BM_MotionUploadBody(benchmark::State& state) {
    const std::string& text = bulkText();
    const std::optional<std::string> version = "1.4.2";
    for (auto _ : state) {
        auto out = detail::writeMotionDataBody(42, kGuid, text, version);
        benchmark::DoNotOptimize(out->data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_MotionUploadBody);

// The same body with compressed uploads on: written, then deflated (on the outbox's or the
// deflater's thread, never the sampling thread).
void BM_MotionUploadBodyGzip(benchmark::State& state) {
    const std::string& text = bulkText();
    const std::optional<std::string> version = "1.4.2";
    std::size_t packed = 0;
    for (auto _ : state) {
        auto out = detail::writeMotionDataBody(42, kGuid, text, version);
        auto gz = detail::gzip(*out);
        packed = gz->size();
        benchmark::DoNotOptimize(gz->data());
    }
    state.counters["bytes"] = static_cast<double>(packed);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_MotionUploadBodyGzip);

}  // namespace

int main(int argc, char** argv) {
    // Each benchmark's time as a multiple of the memcpy baseline of the same run.
    return kestrelvue::bench::RatioReporter::run(
        argc, argv, [](const kestrelvue::bench::RatioReporter::Figures& f) {
            const auto base = f.find("BM_MemcpyBaseline");
            if (base == f.end()) return;
            std::printf("\nbulk text: %zu bytes\n", bulkText().size());
            for (const auto& [name, t] : f)
                std::printf("%-24s %9.1f us  %6.2fx memcpy\n", name.c_str(), t.realUs,
                            t.realUs / base->second.realUs);
            const auto plain = f.find("BM_MotionUploadBody"),
                       packed = f.find("BM_MotionUploadBodyGzip");
            if (plain != f.end() && packed != f.end())
                std::printf("compressed body: %.2fx the plain body's time\n",
                            packed->second.realUs / plain->second.realUs);
        });
}
