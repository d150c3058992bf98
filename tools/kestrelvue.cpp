// kestrelvue: the command-line companion of the library. `kestrelvue --help` lists the
// commands, `kestrelvue COMMAND --help` their options.
//
// replay feeds a recorded drive through the engine in virtual time and uploads it; without
// --server it starts the reference service in-process first (in memory unless --db is given).

#include <kestrelvue/service/ReferenceService.h>
#include <kestrelvue/service/ServeCommand.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Drive.h"
#include "Outbox.h"
#include "Replay.h"
#include "Report.h"
#include "Simulate.h"

namespace {

using namespace kestrelvue;

// Exit codes: 0 done, 1 the work failed (a trip not uploaded, records lost, a file unreadable),
// 2 the command line was wrong.
constexpr int kFailed = 1, kUsage = 2;

const CLI::Validator kHttpUrl(
    [](std::string& url) -> std::string {
        if (url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0) return {};
        return "expected an http:// or https:// URL, got '" + url + "'";
    },
    "URL");

const CLI::Validator kUserID(
    [](std::string& text) -> std::string {
        std::int64_t id = 0;
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
        if (ec == std::errc() && end == text.data() + text.size() && id >= 1) return {};
        return "expected a user identifier, a whole number of at least 1, got '" + text + "'";
    },
    "ID");

/// Edits (insertions, deletions, substitutions, swaps of neighbours) from `a` to `b`.
std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        for (std::size_t j = 1; j <= b.size(); ++j) {
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

/// One line on a terminal, redrawn: samples done, how fast, how long still.
class ProgressBar {
public:
    explicit ProgressBar(bool enabled) : enabled_(enabled) {}

    void update(const tools::ReplayProgress& p) {
        if (!enabled_ || p.total == 0) return;
        const auto now = std::chrono::steady_clock::now();
        if (p.done < p.total && now - lastDraw_ < std::chrono::milliseconds(100)) return;
        lastDraw_ = now;
        const double elapsed = std::chrono::duration<double>(now - start_).count();
        const double rate = elapsed > 0 ? static_cast<double>(p.done) / elapsed : 0;
        const double left = rate > 0 ? static_cast<double>(p.total - p.done) / rate : 0;
        const double share = static_cast<double>(p.done) / static_cast<double>(p.total);
        std::string bar(24, '-');
        std::fill(bar.begin(), bar.begin() + static_cast<long>(share * 24), '#');
        std::fprintf(stderr, "\r  [%s] %3.0f%%  %zu/%zu samples  %.0f/s  %.0f s left  ",
                     bar.c_str(), share * 100, p.done, p.total, rate, left);
        if (p.done >= p.total) std::fputc('\n', stderr);
        std::fflush(stderr);
    }

private:
    bool enabled_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now(), lastDraw_;
};

struct SimulateArgs {
    tools::SimulationOptions options;
    std::string events = "all", output, truth, start, mount;
    std::vector<double> fixGap;
};

int simulate(const SimulateArgs& args) {
    tools::SimulationOptions options = args.options;
    if (args.events != "all") {
        options.events.clear();
        std::stringstream list(args.events == "none" ? "" : args.events);
        for (std::string name; std::getline(list, name, ',');) {
            auto kind = tools::kindNamed(name);
            if (!kind) {
                std::fprintf(stderr,
                             "kestrelvue simulate: --events: unknown kind '%s' (braking, "
                             "acceleration, cornering, elevating, lane-change, fuel, all, none)\n",
                             name.c_str());
                return kUsage;
            }
            options.events.push_back(*kind);
        }
    }
    if (args.fixGap.size() == 2) {
        options.fixGapStart = args.fixGap[0];
        options.fixGapSeconds = args.fixGap[1];
    }
    std::optional<platform::MountingAngles> mount;
    if (!args.mount.empty() && !(mount = tools::parseAngles(args.mount))) {
        std::fprintf(stderr,
                     "kestrelvue simulate: --mount: expected PITCH,ROLL,YAW in degrees, got '%s'\n",
                     args.mount.c_str());
        return kUsage;
    }
    tools::Simulation simulation = tools::simulate(options);
    if (mount) tools::mountPhone(simulation.drive, *mount);
    if (args.start.empty()) {
        simulation.drive.start = std::chrono::duration_cast<std::chrono::seconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count();
    } else if (!(simulation.drive.start = tools::parseUtcTime(args.start))) {
        std::fprintf(stderr,
                     "kestrelvue simulate: --start: expected YYYY-MM-DDTHH:MM:SSZ, got '%s'\n",
                     args.start.c_str());
        return kUsage;
    }
    auto writeTo = [](const std::string& path, auto&& write) {
        if (path.empty() || path == "-") {
            write(std::cout);
            return true;
        }
        std::ofstream file(path);
        write(file);
        file.close();
        if (!file) std::fprintf(stderr, "kestrelvue simulate: cannot write %s\n", path.c_str());
        return static_cast<bool>(file);
    };
    if (!writeTo(args.output, [&](std::ostream& o) { tools::writeDrive(o, simulation.drive); }))
        return kFailed;
    if (!args.truth.empty() &&
        !writeTo(args.truth, [&](std::ostream& o) { tools::writeTruth(o, simulation.truth); }))
        return kFailed;
    return 0;
}

struct ReplayArgs {
    std::string drive, server, db, outbox, truth, map, align;
    std::int64_t user = 1, bulk = 0;
    double timeout = 90;
    bool json = false, verbose = false, compress = false, events = false;
};

int replay(const ReplayArgs& args) {
    std::ifstream file(args.drive);
    auto parsed = tools::parseDrive(file);
    if (!parsed.value) {
        std::fprintf(stderr, "kestrelvue replay: %s: %s\n", args.drive.c_str(),
                     parsed.error.c_str());
        return kFailed;
    }
    std::optional<std::vector<tools::TruthEvent>> truth;
    if (!args.truth.empty()) {
        std::ifstream truthFile(args.truth);
        std::string error;
        truth = tools::parseTruth(truthFile, error);
        if (!truth) {
            std::fprintf(stderr, "kestrelvue replay: %s: %s\n", args.truth.c_str(), error.c_str());
            return kFailed;
        }
    }

    tools::ReplayOptions options;
    options.userID = args.user;
    if (args.bulk > 0) options.bulkMotionDataSize = args.bulk;
    options.verbose = args.verbose;
    options.outboxDirectory = args.outbox;
    options.compress = args.compress;
    options.fetchRoute = !args.map.empty();
    if (!tools::parseAlignment(args.align, options)) {
        std::fprintf(stderr,
                     "kestrelvue replay: --align: expected auto or PITCH,ROLL,YAW in degrees, got "
                     "'%s'\n",
                     args.align.c_str());
        return kUsage;
    }
    options.serviceTimeout =
        std::chrono::milliseconds(static_cast<std::int64_t>(args.timeout * 1000));
    options.log = [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); };
    ProgressBar bar(::isatty(STDERR_FILENO) != 0);
    options.progress = [&bar](const tools::ReplayProgress& p) { bar.update(p); };

    std::unique_ptr<service::ReferenceService> embedded;
    if (!args.server.empty()) {
        options.baseURL = args.server;
    } else {
        service::ServiceOptions serviceOptions;
        if (!args.db.empty()) serviceOptions.databasePath = args.db;
        embedded = std::make_unique<service::ReferenceService>(serviceOptions);
        if (!embedded->start()) {
            std::fprintf(stderr, "kestrelvue replay: %s\n", embedded->error().c_str());
            return kFailed;
        }
        options.baseURL = embedded->baseURL();
        std::fprintf(stderr, "reference service on %s\n", options.baseURL.c_str());
    }

    const tools::ReplayResult result = tools::replay(*parsed.value, options);
    std::optional<tools::TruthComparison> comparison;
    if (truth) comparison = tools::compareWithTruth(*truth, result.detections);
    if (args.json)
        tools::printJsonReport(std::cout, result, options.baseURL, comparison);
    else
        tools::printReport(std::cout, result, options.baseURL, comparison, args.events);

    int code = tools::exitCodeOf(result);
    if (!args.map.empty() && !tools::writeMapFile(result, args.map, "replay")) code = kFailed;
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "kestrelvue: replays recorded drives through the KestrelvueCore engine, makes "
        "synthetic ones, and runs the reference service.",
        "kestrelvue"};
    app.set_version_flag("--version", std::string("kestrelvue ") + KESTRELVUE_VERSION);
    app.require_subcommand(1);
    service::ServeArgs serve;
    auto* serveCommand =
        app.add_subcommand("serve",
                           "run the reference service until interrupted, or issue a "
                           "login token (serve token MOBILE)");
    service::addServeOptions(*serveCommand, serve);

    SimulateArgs sim;
    auto* simulateCommand =
        app.add_subcommand("simulate", "write a synthetic drive (and what was injected into it)");
    simulateCommand->add_option("--profile", sim.options.profile, "city (stops, turns) or motorway")
        ->check(CLI::IsMember({"city", "motorway"}))
        ->capture_default_str();
    simulateCommand->add_option("--seconds", sim.options.seconds, "length of the drive")
        ->check(CLI::Range(1.0, 7 * 24 * 3600.0))
        ->capture_default_str();
    simulateCommand->add_option("--seed", sim.options.seed, "random seed")->capture_default_str();
    simulateCommand
        ->add_option("--events", sim.events,
                     "kinds to inject, comma-separated: braking, acceleration, cornering, "
                     "elevating, lane-change, fuel; or all, none")
        ->capture_default_str();
    simulateCommand
        ->add_option("--spacing", sim.options.eventSpacing, "seconds between injected events")
        ->check(CLI::Range(5.0, 3600.0))
        ->capture_default_str();
    simulateCommand->add_option("--rate", sim.options.rate, "motion samples per second")
        ->check(CLI::Range(1.0, 100.0))
        ->capture_default_str();
    simulateCommand
        ->add_option("--fix-gap", sim.fixGap, "no fixes from START for SECONDS (a tunnel)")
        ->expected(2)
        ->type_name("START SECONDS");
    simulateCommand->add_option("-o,--output", sim.output, "drive file (default: standard output)");
    simulateCommand->add_option("--truth", sim.truth, "also write what was injected, and when");
    simulateCommand->add_option("--mount", sim.mount,
                                "the phone's angles in its holder, PITCH,ROLL,YAW in degrees "
                                "(default: face up, top to the front)");
    simulateCommand->add_option("--start", sim.start,
                                "when the drive began, YYYY-MM-DDTHH:MM:SSZ (default: now)");

    ReplayArgs rep;
    auto* replayCommand = app.add_subcommand(
        "replay", "play a recorded drive through the engine, upload it and report");
    replayCommand->add_option("drive", rep.drive, "drive file")
        ->required()
        ->check(CLI::ExistingFile);
    auto* server = replayCommand
                       ->add_option("--server", rep.server,
                                    "base URL of a running service (default: start one in-process)")
                       ->check(kHttpUrl);
    replayCommand->add_option("--db", rep.db, "database of the in-process service")
        ->excludes(server);
    replayCommand->add_option("--user", rep.user, "user identifier the trip is recorded for")
        ->check(kUserID)
        ->capture_default_str();
    replayCommand
        ->add_option("--bulk", rep.bulk, "motion samples per upload (default: the engine's)")
        ->check(CLI::Range(1, 100000));
    replayCommand->add_option("--outbox", rep.outbox,
                              "keep what the service does not confirm in this directory");
    replayCommand->add_option("--truth", rep.truth, "compare the detections with a truth file")
        ->check(CLI::ExistingFile);
    replayCommand->add_option("--map", rep.map, "write the route and its fault points as SVG");
    replayCommand->add_flag("--json", rep.json, "print the report as one JSON object");
    replayCommand->add_flag("--compress", rep.compress, "send motion bulks gzip-compressed");
    replayCommand->add_option("--align", rep.align,
                              "turn samples into the car's axes: auto (estimated) or "
                              "PITCH,ROLL,YAW, the phone's angles in its holder in degrees");
    replayCommand->add_flag("--events", rep.events,
                            "list every event with its time, length, peak and penalty");
    replayCommand->add_flag("--verbose", rep.verbose, "also print the engine's notifications");
    replayCommand
        ->add_option("--timeout", rep.timeout, "seconds to wait for the service at each step")
        ->check(CLI::Range(1.0, 3600.0))
        ->capture_default_str();

    std::string outboxDirectory, outboxServer;
    int wait = 30;
    auto* outboxCommand = app.add_subcommand(
        "outbox", "send what an outbox directory still holds, print what is left");
    outboxCommand->add_option("dir", outboxDirectory, "outbox directory")
        ->required()
        ->check(CLI::ExistingDirectory);
    outboxCommand->add_option("--server", outboxServer, "base URL of the service")->check(kHttpUrl);
    outboxCommand->add_option("--wait", wait, "seconds to keep trying")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();

    // A word where the command goes that names none: say so, with the nearest command.
    if (argc > 1 && argv[1][0] != '-') {
        const std::string word = argv[1];
        std::string nearest;
        std::size_t best = 3;  // at most two edits away
        for (const char* command : {"serve", "simulate", "replay", "record", "import", "outbox"}) {
            const std::size_t d = editDistance(word, command);
            if (d == 0) best = 0, nearest.clear();
            if (d < best) best = d, nearest = command;
        }
        if (best != 0) {
            std::fprintf(stderr,
                         "kestrelvue: unknown command '%s'%s (commands: serve, simulate, "
                         "replay, record, import, outbox; kestrelvue --help)\n",
                         word.c_str(),
                         nearest.empty() ? "" : ("; did you mean '" + nearest + "'?").c_str());
            return kUsage;
        }
    }
    const tools::Subcommand importer = tools::addImportCommand(app);
    const tools::Subcommand recorder = tools::addRecordCommand(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kUsage;
    }
    if (serveCommand->parsed()) return service::runServe(serve, "kestrelvue serve");
    if (simulateCommand->parsed()) return simulate(sim);
    if (replayCommand->parsed()) return replay(rep);
    if (importer.command->parsed()) return importer.run();
    if (recorder.command->parsed()) return recorder.run();
    if (outboxCommand->parsed()) {
        // Pointed at a directory that holds no outbox, it would make one there.
        std::error_code error;
        if (!std::filesystem::exists(std::filesystem::path(outboxDirectory) / "outbox.sqlite",
                                     error)) {
            std::fprintf(stderr,
                         "kestrelvue outbox: %s holds no outbox (no outbox.sqlite; replay "
                         "--outbox DIR makes one)\n",
                         outboxDirectory.c_str());
            return kUsage;
        }
        return tools::deliverOutbox(outboxDirectory, outboxServer, std::chrono::seconds(wait),
                                    std::cout);
    }
    return kUsage;
}
