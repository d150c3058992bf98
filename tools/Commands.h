#pragma once
// Subcommands that live in files of their own: each adds itself to the tool's command line and
// hands back what to run when it was chosen.

#include <CLI/CLI.hpp>
#include <functional>

namespace kestrelvue::tools {

struct Subcommand {
    CLI::App* command = nullptr;
    std::function<int()> run;
};

/// `kestrelvue import LOG -o DRIVE`
Subcommand addImportCommand(CLI::App& app);
/// `kestrelvue record [--seconds N]`
Subcommand addRecordCommand(CLI::App& app);

}  // namespace kestrelvue::tools
