// Writing one 1000-record motion bulk (about 313 KB of body) to the outbox's SQLite store and
// removing it again once confirmed, against a plain copy of the same bytes.

#include <benchmark/benchmark.h>
#include <kestrelvue/posix/SqliteOutboxStore.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace kestrelvue;

const std::string& bulkBody() {
    static const std::string body = [] {
        std::string b = R"({"UserID":77,"DrivingGuid":"5F2C","AppVersion":"1.4.2","MotionStr":")";
        for (int i = 0; i < 1000; ++i) {
            b += std::string(306, static_cast<char>('0' + i % 10));
            b += ",;";
        }
        return b + "\"}";
    }();
    return body;
}

void BM_Outbox_copy_baseline(benchmark::State& state) {
    std::string out(bulkBody().size(), '\0');
    for (auto _ : state) {
        std::memcpy(out.data(), bulkBody().data(), out.size());
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_Outbox_copy_baseline)->Unit(benchmark::kMicrosecond);

void BM_Outbox_store_bulk(benchmark::State& state) {
    const auto dir = std::filesystem::temp_directory_path() / "kv-outbox-bench";
    std::filesystem::remove_all(dir);
    posix::SqliteOutboxStore store(dir.string());
    for (auto _ : state) {
        std::vector<platform::OutboxEntry> entries{
            {0, platform::OutboxKind::motion, 1000, "http://127.0.0.1/api/x", bulkBody()}};
        if (!store.add(entries)) state.SkipWithError("store refused the bulk");
        state.PauseTiming();
        store.remove(entries[0].id);
        state.ResumeTiming();
    }
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_Outbox_store_bulk)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
