// A driver's whole history (10,000 trips, about 6 MB) turned into Trip records: the library's
// one-pass reader against the same mapping on top of nlohmann/json. Prints the ratio at the end.

#include <benchmark/benchmark.h>
#include <kestrelvue/Environment.h>
#include <kestrelvue/Trip.h>
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "RatioReporter.h"
#include "records/HistoryReply.h"

using namespace kestrelvue;
using namespace kestrelvue::detail;

namespace {

class FixedClock final : public platform::Clock {
public:
    platform::TimePoint now() const override { return platform::TimePoint{}; }
};

const Environment& environment() {
    static const Environment env = [] {
        Environment e;
        e.clock = std::make_shared<FixedClock>();
        e.applicationInfo = Object{{std::string(kBaseURLKey), Value("http://127.0.0.1:8080")}};
        return e;
    }();
    return env;
}

// A reply shaped like the service's: every member the library reads, a few it does not, Turkish
// addresses, trips a few hours apart over about four years.
std::string makeReply(int trips) {
    std::string out = "[";
    unsigned seed = 12345;
    auto next = [&] { return seed = seed * 1103515245u + 12345u, (seed >> 8) & 0xffff; };
    char buf[2048];
    long long minute = 0;
    for (int i = 0; i < trips; ++i) {
        minute += 120 + next() % 240;
        const long long start = minute, end = minute + 10 + next() % 80;
        auto date = [](long long m, char* text) {
            // 2016-01-01 plus m minutes, in a simple calendar that stays within real dates.
            long long day = m / 1440;
            int y = 2016 + static_cast<int>(day / 336), mo = static_cast<int>(day % 336 / 28) + 1,
                d = static_cast<int>(day % 28) + 1;
            std::snprintf(text, 32, "%04d-%02d-%02dT%02lld:%02lld:%02d", y, mo, d, m % 1440 / 60,
                          m % 60, static_cast<int>((m * 7) % 60));
        };
        char s[32], e[32];
        date(start, s);
        date(end, e);
        const double lat = 40.9 + next() / 655360.0, lon = 29.0 + next() / 655360.0;
        const int n = std::snprintf(
            buf, sizeof buf,
            R"(%s{"UserId":4711,"DrivingGuid":"%08X-4F89-11D3-9A0C-%012X",)"
            R"("StartDateTime":"%s","StartLocation":"Kadıköy %u",)"
            R"("StartLocationLatitude":%.6f,"StartLocationLongitude":%.6f,"EndDateTime":"%s",)"
            R"("EndLocation":"Beşiktaş %u","EndLocationLatitude":%.6f,)"
            R"("EndLocationLongitude":%.6f,"Score":%.2f,"SharpCorneringCount":%u,)"
            R"("SharpSpeedingCount":%u,"SharpBrakingCount":%u,"SharpElevatingCount":%u,)"
            R"("SharpLaneChangingCount":%u,"SharpCorneringPenalty":%.2f,)"
            R"("SharpSpeedingPenalty":%.2f,"SharpBrakingPenalty":%.2f,)"
            R"("SharpElevatingPenalty":%.2f,"SharpLaneChangingPenalty":%.2f,)"
            R"("FuelEfficiencyPenalty":%.2f,"TimeElapsed":"%lld:%02lld:%02u",)"
            R"("TotalDistance":%.1f})",
            i ? "," : "", next() * 65536u + next(), next() * 65536u + next(), s, next() % 200, lat,
            lon, e, next() % 200, lat + 0.05, lon + 0.03, 60 + next() % 4000 / 100.0, next() % 5,
            next() % 5, next() % 5, next() % 3, next() % 4, next() / 6553.6, next() / 6553.6,
            next() / 6553.6, next() / 6553.6, next() / 6553.6, next() / 6553.6, (end - start) / 60,
            (end - start) % 60, next() % 60, 500 + next() / 1.7);
        out.append(buf, static_cast<std::size_t>(n));
    }
    out += "]";
    return out;
}

const std::string& reply() {
    static const std::string r = makeReply(10'000);
    return r;
}

// The same mapping over nlohmann/json: parse to its tree, then judge and apply every member
// through the shared functions, so that only the parsing differs.
std::vector<std::shared_ptr<Trip>> nlohmannHistory(std::string_view body) {
    std::vector<std::shared_ptr<Trip>> trips;
    const nlohmann::json root = nlohmann::json::parse(body);
    if (!root.is_array()) return {};
    LocalTimeConverter times;
    for (const auto& item : root) {
        if (!item.is_object()) return {};
        HistoryElement element;
        for (const auto& [key, value] : item.items()) {
            auto member = findHistoryMember(key);
            if (!member || value.is_null()) continue;
            std::optional<std::string> problem;
            switch (historyKind(*member)) {
                case HistoryKind::integer:
                    if (value.is_number_integer() && !value.is_number_unsigned()) {
                        element.present[*member] = true;
                        element.integer[*member] = value.get<std::int64_t>();
                    } else if (value.is_number()) {
                        problem = storeInteger(element, *member, value.get<double>());
                    } else {
                        problem = "expected an integer";
                    }
                    break;
                case HistoryKind::number:
                    problem = value.is_number() ? storeNumber(element, *member, value.get<double>())
                                                : "expected a number";
                    break;
                default:
                    problem = value.is_string()
                                  ? storeText(element, *member, value.get_ref<const std::string&>())
                                  : "expected a text";
            }
            if (problem) return {};
        }
        auto trip = std::make_shared<Trip>(environment());
        applyHistoryElement(*trip, element, times);
        trips.push_back(std::move(trip));
    }
    return trips;
}

void BM_History_nlohmann_baseline(benchmark::State& state) {
    for (auto _ : state) {
        auto trips = nlohmannHistory(reply());
        if (trips.size() != 10'000) state.SkipWithError("baseline read failed");
        benchmark::DoNotOptimize(trips.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * reply().size()));
}
BENCHMARK(BM_History_nlohmann_baseline)->Unit(benchmark::kMillisecond);

void BM_History_library(benchmark::State& state) {
    for (auto _ : state) {
        auto result = readHistoryReply(reply(), environment());
        if (!result.ok || result.trips.size() != 10'000) state.SkipWithError(result.error.c_str());
        benchmark::DoNotOptimize(result.trips.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * reply().size()));
}
BENCHMARK(BM_History_library)->Unit(benchmark::kMillisecond);

// What the records alone cost (10,000 fresh Trip objects), for reading the two figures above.
void BM_History_records_only(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<std::shared_ptr<Trip>> trips;
        trips.reserve(10'000);
        for (int i = 0; i < 10'000; ++i) trips.push_back(std::make_shared<Trip>(environment()));
        benchmark::DoNotOptimize(trips.data());
    }
}
BENCHMARK(BM_History_records_only)->Unit(benchmark::kMillisecond);

// Heap bytes each record holds once the reply is read, and what the reader itself keeps.
void printMemory() {
    const auto heap = [] {
        const auto m = mallinfo2();
        return m.uordblks + m.hblkhd;
    };
    reply();  // made before the first reading
    const std::size_t before = heap();
    auto result = readHistoryReply(reply(), environment());
    const std::size_t held = heap() - before;
    const std::size_t trips = result.trips.size();
    result.trips.clear();
    result.trips.shrink_to_fit();
    std::printf("memory: %zu bytes per trip (sizeof(Trip) %zu), %zu bytes kept after release\n",
                trips ? held / trips : 0, sizeof(Trip), heap() - before);
}

}  // namespace

int main(int argc, char** argv) {
    printMemory();
    return kestrelvue::bench::RatioReporter::run(
        argc, argv, [](const kestrelvue::bench::RatioReporter::Figures& f) {
            const auto base = f.find("BM_History_nlohmann_baseline"),
                       ours = f.find("BM_History_library");
            if (base == f.end() || ours == f.end()) return;
            std::printf("\nreply: %zu bytes, 10000 trips\n", reply().size());
            // On a shared machine the CPU-time ratio is the steadier of the two.
            std::printf("real time: library %.2f ms, baseline %.2f ms: %.1fx faster\n",
                        ours->second.realUs / 1e3, base->second.realUs / 1e3,
                        base->second.realUs / ours->second.realUs);
            std::printf("CPU time:  library %.2f ms, baseline %.2f ms: %.1fx faster\n",
                        ours->second.cpuUs / 1e3, base->second.cpuUs / 1e3,
                        base->second.cpuUs / ours->second.cpuUs);
        });
}
