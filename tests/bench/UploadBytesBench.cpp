// Bytes a driving hour costs on the wire, plain and with compressed uploads: a simulated city
// drive and the motorway example, replayed by the tool's own code through the real engine into
// the in-process reference service (2 samples a second, bulks of 1000). Each replay runs once;
// the counters are the figures (MB per driving hour, and the share compression leaves).

#include <benchmark/benchmark.h>
#include <kestrelvue/service/ReferenceService.h>

#include <fstream>
#include <map>
#include <string>

#include "Drive.h"
#include "Replay.h"
#include "Simulate.h"

namespace {

using namespace kestrelvue;

const tools::Drive& driveNamed(const std::string& name) {
    static std::map<std::string, tools::Drive> drives;
    auto it = drives.find(name);
    if (it != drives.end()) return it->second;
    tools::Drive drive;
    if (name == "city") {
        tools::SimulationOptions options;
        options.profile = "city";
        options.seconds = 1800;
        options.seed = 7;
        drive = tools::simulate(options).drive;
    } else {
        std::ifstream file(std::string(KESTRELVUE_SOURCE_DIR) + "/examples/drives/" + name +
                           ".kvd");
        drive = tools::parseDrive(file).value.value_or(tools::Drive{});
    }
    return drives.emplace(name, std::move(drive)).first->second;
}

void BM_BytesPerDrivingHour(benchmark::State& state, const std::string& drive, bool compress) {
    service::ReferenceService service{service::ServiceOptions{}};
    if (!service.start()) {
        state.SkipWithError(service.error().c_str());
        return;
    }
    tools::ReplayOptions options;
    options.baseURL = service.baseURL();
    options.bulkMotionDataSize = 1000;
    options.compress = compress;
    tools::ReplayResult result;
    for (auto _ : state) result = tools::replay(driveNamed(drive), options);
    if (!result.finished) state.SkipWithError(result.failure().c_str());
    const double hours = result.drivingHours();
    state.counters["MB_per_hour"] =
        hours > 0 ? static_cast<double>(result.bytesSent) / hours / 1e6 : 0;
    state.counters["bytes_per_record"] =
        result.records ? static_cast<double>(result.bytesSent) / static_cast<double>(result.records)
                       : 0;
}

BENCHMARK_CAPTURE(BM_BytesPerDrivingHour, city_plain, "city", false)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_BytesPerDrivingHour, city_gzip, "city", true)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_BytesPerDrivingHour, motorway_plain, "motorway", false)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_BytesPerDrivingHour, motorway_gzip, "motorway", true)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
