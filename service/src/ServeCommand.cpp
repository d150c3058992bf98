// The `serve` command line, shared by kestrelvue-service and `kestrelvue serve`.

#include <kestrelvue/service/ReferenceService.h>
#include <pthread.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <string>
#include <string_view>

namespace kestrelvue::service {
namespace {

void usage(std::FILE* to, const std::string& name) {
    std::fprintf(to,
                 "usage: %s [--db FILE] [--host ADDRESS] [--port N] [--bands FILE] [--quiet]\n"
                 "       %s token MOBILE [--db FILE]\n"
                 "\n"
                 "Serves the reference service until SIGINT or SIGTERM; SIGHUP reloads --bands.\n"
                 "  --db FILE       SQLite database (default kestrelvue.db; :memory: keeps none);\n"
                 "                  one file (an earlier FILE.motion-1 to -3 is moved into it)\n"
                 "  --host ADDRESS  address to listen on (default 127.0.0.1)\n"
                 "  --port N        port (default 8080; 0 lets the system choose and prints it)\n"
                 "  --bands FILE    JSON threshold reply to serve (default: the shipped one)\n"
                 "  --quiet         no access log on standard error\n"
                 "token MOBILE issues a login token for a mobile number and prints it once; only\n"
                 "its salted hash is stored.\n",
                 name.c_str(), name.c_str());
}

bool parsePort(std::string_view text, int& port) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), port);
    return ec == std::errc() && end == text.data() + text.size() && port >= 0 && port <= 65535;
}

}  // namespace

int runServeCommand(int argc, char** argv) {
    std::string name = argc > 0 ? argv[0] : "serve";
    if (name == "serve") name = "kestrelvue serve";
    if (auto slash = name.rfind('/'); slash != std::string::npos) name.erase(0, slash + 1);

    ServiceOptions options;
    options.databasePath = "kestrelvue.db";
    options.port = 8080;
    options.accessLog = true;
    int i = 1;
    std::string tokenFor;
    const bool tokenCommand = argc > 1 && std::string_view(argv[1]) == "token";
    if (tokenCommand) {
        if (argc < 3 || argv[2][0] == '-') {
            std::fprintf(stderr, "%s: token needs a mobile number\n", name.c_str());
            return 2;
        }
        tokenFor = argv[2];
        i = 3;
    }
    for (; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(stdout, name);
            return 0;
        }
        const bool takesValue =
            arg == "--db" ||
            (!tokenCommand && (arg == "--host" || arg == "--port" || arg == "--bands"));
        if (!takesValue && !(arg == "--quiet" && !tokenCommand)) {
            std::fprintf(stderr, "%s: unknown option %s (see --help)\n", name.c_str(), argv[i]);
            return 2;
        }
        if (arg == "--quiet") {
            options.accessLog = false;
            continue;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "%s: %s needs a value\n", name.c_str(), argv[i]);
            return 2;
        }
        const char* value = argv[++i];
        if (arg == "--db") {
            options.databasePath = value;
        } else if (arg == "--host") {
            options.host = value;
        } else if (arg == "--bands") {
            options.bandsFile = value;
        } else if (!parsePort(value, options.port)) {
            std::fprintf(stderr, "%s: --port: expected a number from 0 to 65535, got %s\n",
                         name.c_str(), value);
            return 2;
        }
    }

    if (tokenCommand) {
        ReferenceService service(options);
        const std::string token = service.issueToken(tokenFor);
        if (token.empty()) {
            std::fprintf(
                stderr, "%s: no token issued: %s\n", name.c_str(),
                service.error().empty() ? "the database refused it" : service.error().c_str());
            return 1;
        }
        std::printf("%s\n", token.c_str());
        std::fprintf(stderr, "%s: token for %s issued; it is not shown again\n", name.c_str(),
                     tokenFor.c_str());
        return 0;
    }

    // The signals are blocked before the service starts its threads, so that only sigwait below
    // takes them.
    sigset_t signals, previous;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, &previous);
    int status = 0;
    tuneAllocatorForService();
    {
        ReferenceService service(options);
        if (!service.start()) {
            std::fprintf(stderr, "%s: %s\n", name.c_str(), service.error().c_str());
            status = 1;
        } else {
            std::fprintf(stderr, "%s: serving %s on %s\n", name.c_str(),
                         options.databasePath.c_str(), service.baseURL().c_str());
            for (int signal = SIGHUP; signal == SIGHUP;) {
                if (sigwait(&signals, &signal) != 0) break;
                if (signal != SIGHUP) break;
                if (service.reloadBands()) {
                    std::fprintf(stderr, "%s: bands reloaded\n", name.c_str());
                } else {
                    std::fprintf(stderr, "%s: bands not reloaded, the previous ones stay: %s\n",
                                 name.c_str(), service.error().c_str());
                }
            }
            std::fprintf(stderr, "%s: stopping\n", name.c_str());
            service.stop();
        }
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return status;
}

}  // namespace kestrelvue::service
