// kestrelvue-service: the reference service on its own; the same command line as
// `kestrelvue serve` (see --help).

#include <kestrelvue/service/ServeCommand.h>

int main(int argc, char** argv) {
    kestrelvue::service::ServeArgs args;
    CLI::App app{"kestrelvue-service: the reference service the library talks to",
                 "kestrelvue-service"};
    kestrelvue::service::addServeOptions(app, args);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    return kestrelvue::service::runServe(args, "kestrelvue-service");
}
