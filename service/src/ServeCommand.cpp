#include <kestrelvue/service/ReferenceService.h>
#include <kestrelvue/service/ServeCommand.h>
#include <pthread.h>

#include <csignal>
#include <cstdio>

namespace kestrelvue::service {

void addServeOptions(CLI::App& app, ServeArgs& args) {
    app.footer("Serves until SIGINT or SIGTERM; SIGHUP reloads --bands.");
    app.add_option("--db", args.db,
                   "SQLite database, one file (:memory: keeps none; an earlier FILE.motion-1 to -3 "
                   "is moved into it)")
        ->capture_default_str();
    app.add_option("--host", args.host, "address to listen on")->capture_default_str();
    app.add_option("--port", args.port, "port (0 lets the system choose and prints it)")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    app.add_option("--bands", args.bands,
                   "JSON threshold reply to serve (default: the shipped one)");
    app.add_flag("--quiet", args.quiet, "no access log on standard error");
    args.token = app.add_subcommand(
        "token",
        "issue a login token for a mobile number and print it once (only its salted "
        "hash is stored)");
    args.token->add_option("mobile", args.tokenFor, "mobile number")->required();
    args.token->add_option("--db", args.db, "SQLite database");
}

int runServe(const ServeArgs& args, const std::string& name) {
    ServiceOptions options;
    options.databasePath = args.db;
    options.host = args.host;
    options.port = args.port;
    options.bandsFile = args.bands;
    options.accessLog = !args.quiet;

    if (args.token && args.token->parsed()) {
        ReferenceService service(options);
        const std::string token = service.issueToken(args.tokenFor);
        if (token.empty()) {
            std::fprintf(
                stderr, "%s: no token issued: %s\n", name.c_str(),
                service.error().empty() ? "the database refused it" : service.error().c_str());
            return 1;
        }
        std::printf("%s\n", token.c_str());
        std::fprintf(stderr, "%s: token for %s issued; it is not shown again\n", name.c_str(),
                     args.tokenFor.c_str());
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
    {
        ReferenceService service(options);
        if (!service.start()) {
            std::fprintf(stderr, "%s: %s\n", name.c_str(), service.error().c_str());
            status = 1;
        } else {
            std::fprintf(stderr, "%s: serving %s on %s\n", name.c_str(),
                         options.databasePath.c_str(), service.baseURL().c_str());
            int signal = 0;
            while (sigwait(&signals, &signal) == 0 && signal == SIGHUP) {
                if (service.reloadBands())
                    std::fprintf(stderr, "%s: bands reloaded\n", name.c_str());
                else
                    std::fprintf(stderr, "%s: bands not reloaded, the previous ones stay: %s\n",
                                 name.c_str(), service.error().c_str());
            }
            std::fprintf(stderr, "%s: stopping\n", name.c_str());
            service.stop();
        }
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return status;
}

}  // namespace kestrelvue::service
