#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "Commands.h"
#include "Import.h"

namespace kestrelvue::tools {

namespace {

struct ImportArgs {
    std::string input, output, format = "auto", phone = "auto";
};

int runImport(const ImportArgs& args) {
    std::optional<ImportFormat> format;
    if (args.format == "nmea") format = ImportFormat::nmea;
    if (args.format == "gpx") format = ImportFormat::gpx;
    if (args.format == "gpsd") format = ImportFormat::gpsd;
    if (args.format == "sensor-logger") format = ImportFormat::sensorLogger;
    if (!format) format = guessFormat(args.input);
    if (!format) {
        std::cerr << "kestrelvue import: " << args.input
                  << ": cannot tell the format from the name; give --format\n";
        return 2;
    }
    std::optional<Phone> phone;
    if (args.phone == "ios") phone = Phone::ios;
    if (args.phone == "android") phone = Phone::android;
    const ImportResult result = importFile(args.input, *format, phone);
    if (!result.drive) {
        std::cerr << "kestrelvue import: " << result.error << "\n";
        return 1;
    }
    std::ofstream file;
    if (!args.output.empty()) {
        file.open(args.output, std::ios::binary);
        if (!file) {
            std::cerr << "kestrelvue import: cannot write " << args.output << "\n";
            return 1;
        }
    }
    std::ostream& out = args.output.empty() ? std::cout : file;
    for (const std::string& note : result.notes) out << "# " << note << "\n";
    writeDrive(out, *result.drive);
    std::size_t fixes = 0, samples = 0;
    for (const DriveEvent& e : result.drive->events)
        fixes += e.fix.has_value(), samples += e.motion.has_value();
    std::cerr << "imported " << fixes << " fixes and " << samples << " motion samples ("
              << result.drive->duration() << " s)\n";
    for (const std::string& note : result.notes) std::cerr << note << "\n";
    out.flush();
    return out ? 0 : 1;
}

}  // namespace

Subcommand addImportCommand(CLI::App& app) {
    auto args = std::make_shared<ImportArgs>();
    auto* command = app.add_subcommand(
        "import",
        "turn an NMEA log, a GPX track, a gpsd capture or a sensor-logger export into a drive");
    command->add_option("log", args->input, "the log (a directory for a sensor-logger export)")
        ->required()
        ->check(CLI::ExistingPath);
    command->add_option("-o,--output", args->output, "drive file (default: standard output)");
    command
        ->add_option("--format", args->format, "nmea, gpx, gpsd, sensor-logger, or auto (by name)")
        ->check(CLI::IsMember({"auto", "nmea", "gpx", "gpsd", "sensor-logger"}))
        ->capture_default_str();
    command
        ->add_option("--phone", args->phone,
                     "the phone of a sensor-logger export: ios, android, or auto (Metadata.csv)")
        ->check(CLI::IsMember({"auto", "ios", "android"}))
        ->capture_default_str();
    return {command, [args] { return runImport(*args); }};
}

}  // namespace kestrelvue::tools
