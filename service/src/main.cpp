// kestrelvue-service: the reference service on its own; the same command line as
// `kestrelvue serve` (see --help).

#include <kestrelvue/service/ReferenceService.h>

int main(int argc, char** argv) {
    return kestrelvue::service::runServeCommand(argc, argv);
}
