#include <kestrelvue/service/ReferenceService.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "Commands.h"
#include "Record.h"
#include "Report.h"

namespace kestrelvue::tools {

namespace {

std::atomic<bool> stopRequested{false};

extern "C" void requestStop(int) {
    stopRequested.store(true);
}

struct RecordArgs {
    std::string gpsd = "localhost:2947", iio = "/sys/bus/iio/devices";
    std::string locationDrive, motionDrive, server, db, outbox, map, align;
    bool noOutbox = false, json = false;
    double seconds = 0;
    std::int64_t user = 1;
};

std::optional<Drive> readDrive(const std::string& path) {
    std::ifstream in(path);
    auto parsed = parseDrive(in);
    if (!parsed.value)
        std::fprintf(stderr, "kestrelvue record: %s: %s\n", path.c_str(), parsed.error.c_str());
    return parsed.value;
}

int runRecord(const RecordArgs& args) {
    RecordSources sources;
    if (const auto colon = args.gpsd.rfind(':'); colon != std::string::npos) {
        sources.gpsdHost = args.gpsd.substr(0, colon);
        sources.gpsdPort = args.gpsd.substr(colon + 1);
    } else {
        sources.gpsdHost = args.gpsd;
    }
    sources.iioRoot = args.iio;
    if (!args.locationDrive.empty() && !(sources.locationDrive = readDrive(args.locationDrive)))
        return 1;
    if (!args.motionDrive.empty() && !(sources.motionDrive = readDrive(args.motionDrive))) return 1;
    if (args.seconds > 0) sources.seconds = args.seconds;

    // The trip ends at the first SIGINT or SIGTERM (a service manager's stop), reported as usual.
    struct sigaction action = {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sources.stop = &stopRequested;

    ReplayOptions options;
    if (!parseAlignment(args.align, options)) {
        std::fprintf(stderr,
                     "kestrelvue record: --align: expected auto or PITCH,ROLL,YAW in degrees, got "
                     "'%s'\n",
                     args.align.c_str());
        return 2;
    }
    options.userID = args.user;
    options.fetchRoute = !args.map.empty();
    // The vehicle is moving while the recorder waits for the bands: it waits briefly, then records
    // into the outbox; at the stop the outbox keeps what the service has not answered.
    options.serviceTimeout = std::chrono::seconds(15);
    options.log = [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); };
    // A vehicle computer loses power and network at any moment: keep every upload on disk until
    // the service has confirmed it.
    if (!args.noOutbox) {
        options.outboxDirectory = args.outbox.empty() ? defaultOutboxDirectory() : args.outbox;
        std::error_code ec;
        std::filesystem::create_directories(options.outboxDirectory, ec);
        std::fprintf(stderr, "outbox: %s\n", options.outboxDirectory.c_str());
    }
    options.live = makeLiveHost(std::move(sources));

    std::unique_ptr<service::ReferenceService> embedded;
    if (!args.server.empty()) {
        options.baseURL = args.server;
    } else {
        service::ServiceOptions serviceOptions;
        if (!args.db.empty()) serviceOptions.databasePath = args.db;
        embedded = std::make_unique<service::ReferenceService>(serviceOptions);
        if (!embedded->start()) {
            std::fprintf(stderr, "kestrelvue record: %s\n", embedded->error().c_str());
            return 1;
        }
        options.baseURL = embedded->baseURL();
        std::fprintf(stderr, "reference service on %s\n", options.baseURL.c_str());
    }
    std::fprintf(stderr, "recording; stop with Ctrl-C or SIGTERM\n");

    const ReplayResult result = replay(Drive{}, options);
    if (args.json)
        printJsonReport(std::cout, result, options.baseURL, std::nullopt);
    else
        printReport(std::cout, result, options.baseURL, std::nullopt);
    int code = exitCodeOf(result);
    if (!args.map.empty() && !writeMapFile(result, args.map, "record")) code = 1;
    return code;
}

}  // namespace

Subcommand addRecordCommand(CLI::App& app) {
    auto args = std::make_shared<RecordArgs>();
    auto* command = app.add_subcommand(
        "record", "record a drive live from gpsd and IIO sensors, upload it and report");
    command->add_option("--gpsd", args->gpsd, "gpsd's HOST:PORT")->capture_default_str();
    command->add_option("--iio", args->iio, "where the IIO devices are")->capture_default_str();
    command
        ->add_option("--location-drive", args->locationDrive,
                     "take the fixes from this drive file instead of gpsd")
        ->check(CLI::ExistingFile);
    command
        ->add_option("--motion-drive", args->motionDrive,
                     "take the motion from this drive file instead of IIO")
        ->check(CLI::ExistingFile);
    command->add_option("--seconds", args->seconds, "stop after this many seconds")
        ->check(CLI::Range(0.5, 7 * 24 * 3600.0));
    auto* server = command->add_option(
        "--server", args->server, "base URL of a running service (default: start one in-process)");
    command->add_option("--db", args->db, "database of the in-process service")->excludes(server);
    command->add_option("--user", args->user, "user identifier the trip is recorded for")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    auto* outbox = command->add_option(
        "--outbox", args->outbox, "keep unconfirmed uploads here (default: the state directory)");
    command->add_flag("--no-outbox", args->noOutbox, "upload without an outbox")->excludes(outbox);
    command->add_option("--map", args->map, "write the route and its fault points as SVG");
    command->add_flag("--json", args->json, "print the report as one JSON object");
    command->add_option(
        "--align", args->align,
        "turn samples into the vehicle's axes: auto (estimated) or PITCH,ROLL,YAW, the "
        "device's angles in degrees");
    return {command, [args] { return runRecord(*args); }};
}

}  // namespace kestrelvue::tools
