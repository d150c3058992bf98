#pragma once
// The `serve` command line, shared by kestrelvue-service and `kestrelvue serve`:
//   serve [--db FILE] [--host ADDRESS] [--port N] [--bands FILE] [--quiet]
//   serve token MOBILE [--db FILE]
// serves until SIGINT or SIGTERM (SIGHUP reloads the bands file), or issues a login token.

#include <CLI/CLI.hpp>
#include <string>

namespace kestrelvue::service {

struct ServeArgs {
    std::string db = "kestrelvue.db", host = "127.0.0.1", bands, tokenFor;
    int port = 8080;
    bool quiet = false;
    CLI::App* token = nullptr;  // the `token` subcommand, once added
};

/// Adds the serve options and the `token` subcommand to `app` (the tool's `serve` subcommand, or
/// a program's own command line).
void addServeOptions(CLI::App& app, ServeArgs& args);
/// Runs what the parsed command line asks for. Returns the exit code: 0, or 1 when the service
/// cannot start or no token was issued.
int runServe(const ServeArgs& args, const std::string& name);

}  // namespace kestrelvue::service
