// kestrelvue-service: the reference service on its own.
//   kestrelvue-service [--db FILE] [--host ADDRESS] [--port N]

#include <kestrelvue/service/ReferenceService.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {
kestrelvue::service::ReferenceService* gService = nullptr;
void onSignal(int) {
    if (gService) gService->stop();
}
}  // namespace

int main(int argc, char** argv) {
    kestrelvue::service::ServiceOptions options;
    options.databasePath = "kestrelvue.db";
    options.port = 8080;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        if (arg == "--db" && hasValue) {
            options.databasePath = argv[++i];
        } else if (arg == "--host" && hasValue) {
            options.host = argv[++i];
        } else if (arg == "--port" && hasValue) {
            options.port = std::atoi(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: %s [--db FILE] [--host ADDRESS] [--port N]\n", argv[0]);
            return arg == "--help" ? 0 : 2;
        }
    }
    kestrelvue::service::ReferenceService service(options);
    gService = &service;
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    std::fprintf(stderr, "kestrelvue-service: serving %s on %s:%d\n", options.databasePath.c_str(),
                 options.host.c_str(), options.port);
    if (!service.run()) {
        std::fprintf(stderr, "kestrelvue-service: %s\n", service.error().c_str());
        return 1;
    }
    return 0;
}
