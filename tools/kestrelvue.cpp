// kestrelvue: the command-line companion of the library.
//
//   kestrelvue serve    [--db FILE] [--host ADDRESS] [--port N] [--bands FILE] [--quiet]
//   kestrelvue serve    token MOBILE [--db FILE]
//   kestrelvue simulate [--seconds N] [--seed N]            > drive.kvd
//   kestrelvue replay   DRIVE [--server URL] [--user ID] [--bulk N] [--db FILE]
//
// replay feeds a recorded drive through the engine in virtual time and uploads it; without
// --server it starts the reference service in-process first (in memory unless --db is given).

#include <kestrelvue/service/ReferenceService.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "Drive.h"
#include "Outbox.h"

namespace {

using Args = std::map<std::string, std::string>;

int usage(int code) {
    std::fputs(
        "usage:\n"
        "  kestrelvue serve    [--db FILE] [--host ADDRESS] [--port N] [--bands FILE] [--quiet]\n"
        "  kestrelvue serve    token MOBILE [--db FILE]\n"
        "  kestrelvue simulate [--seconds N] [--seed N]\n"
        "  kestrelvue replay   DRIVE [--server URL] [--user ID] [--bulk N] [--db FILE] [--verbose "
        "1] [--outbox DIR]\n"
        "  kestrelvue outbox   DIR [--server URL] [--wait SECONDS]\n",
        code == 0 ? stdout : stderr);
    return code;
}

/// Splits "--name value" pairs; positional words go under "".
bool parseArgs(int argc, char** argv, int from, Args& args) {
    for (int i = from; i < argc; ++i) {
        std::string word = argv[i];
        if (word.rfind("--", 0) == 0) {
            if (i + 1 >= argc) return false;
            args[word.substr(2)] = argv[++i];
        } else if (!args.count("")) {
            args[""] = word;
        } else {
            return false;
        }
    }
    return true;
}

bool toInt(const Args& args, const std::string& key, long long& out) {
    auto it = args.find(key);
    if (it == args.end()) return true;
    char* end = nullptr;
    out = std::strtoll(it->second.c_str(), &end, 10);
    return end && *end == '\0' && !it->second.empty();
}

int simulate(const Args& args) {
    long long seconds = 600, seed = 1;
    if (!toInt(args, "seconds", seconds) || !toInt(args, "seed", seed) || seconds <= 0) {
        return usage(2);
    }
    kestrelvue::tools::writeDrive(
        std::cout, kestrelvue::tools::simulateDrive(double(seconds), std::uint32_t(seed)));
    return 0;
}

int replay(const Args& args) {
    if (!args.count("")) return usage(2);
    std::ifstream file(args.at(""));
    if (!file) {
        std::fprintf(stderr, "kestrelvue: cannot read %s\n", args.at("").c_str());
        return 1;
    }
    auto parsed = kestrelvue::tools::parseDrive(file);
    if (!parsed.drive) {
        std::fprintf(stderr, "kestrelvue: %s: %s\n", args.at("").c_str(), parsed.error.c_str());
        return 1;
    }
    kestrelvue::tools::ReplayOptions options;
    long long user = 1, bulk = -1;
    if (!toInt(args, "user", user) || !toInt(args, "bulk", bulk)) return usage(2);
    options.userID = user;
    if (bulk >= 0) options.bulkMotionDataSize = bulk;
    options.verbose = args.count("verbose") && args.at("verbose") != "0";
    if (args.count("outbox")) options.outboxDirectory = args.at("outbox");
    options.progress = [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); };

    std::unique_ptr<kestrelvue::service::ReferenceService> service;
    if (args.count("server")) {
        options.baseURL = args.at("server");
    } else {
        kestrelvue::service::ServiceOptions serviceOptions;
        if (args.count("db")) serviceOptions.databasePath = args.at("db");
        service = std::make_unique<kestrelvue::service::ReferenceService>(serviceOptions);
        if (!service->start()) {
            std::fprintf(stderr, "kestrelvue: %s\n", service->error().c_str());
            return 1;
        }
        options.baseURL = service->baseURL();
        std::fprintf(stderr, "reference service on %s\n", options.baseURL.c_str());
    }

    auto result = kestrelvue::tools::replay(*parsed.drive, options);
    std::printf("fixes %zu, samples %zu\n", result.fixes, result.samples);
    if (!result.finished) {
        std::printf("trip failed: %s\n", result.failure.c_str());
        return 1;
    }
    const auto& t = *result.trip;
    std::printf("trip %s uploaded\n", t.DrivingID.c_str());
    std::printf("  %s, %s\n", t.StartDateTime_Formatted.c_str(),
                t.TimeElapsedTotalDistance_Formatted.c_str());
    std::printf("  from %s\n  to   %s\n", t.StartLocation.c_str(), t.EndLocation.c_str());
    std::printf("  score %.1f\n", t.Score);
    std::printf(
        "  events: cornering %lld, speeding %lld, braking %lld, elevating %lld, lane %lld\n",
        (long long)t.SharpCorneringCount, (long long)t.SharpSpeedingCount,
        (long long)t.SharpBrakingCount, (long long)t.SharpElevatingCount,
        (long long)t.SharpLaneChangingCount);
    if (!result.failure.empty()) std::printf("  reported on the way: %s\n", result.failure.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage(2);
    std::string command = argv[1];
    if (command == "--help" || command == "help") return usage(0);
    // The service reads its own command line (also `serve token MOBILE`).
    if (command == "serve") return kestrelvue::service::runServeCommand(argc - 1, argv + 1);
    Args args;
    if (!parseArgs(argc, argv, 2, args)) return usage(2);
    if (command == "simulate") return simulate(args);
    if (command == "replay") return replay(args);
    if (command == "outbox") {
        long long wait = 30;
        if (!args.count("") || !toInt(args, "wait", wait)) return usage(2);
        return kestrelvue::tools::deliverOutbox(args[""],
                                                args.count("server") ? args["server"] : "",
                                                std::chrono::seconds(wait), std::cout);
    }
    return usage(2);
}
