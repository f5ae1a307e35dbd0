#include "app/CommandLine.h"

#include "app/Version.h"

#include <array>
#include <getopt.h>

namespace agent::app {

std::optional<CommandLine> parseCommandLine(int argc, char** argv) {
    static constexpr std::array<option, 3> longOptions = {{{"display", no_argument, nullptr, 'd'},
                                                           {"help", no_argument, nullptr, 'h'},
                                                           {nullptr, 0, nullptr, 0}}};
    CommandLine parsed;
    bool understood = true;
    int found = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there are no threads yet
    while ((found = getopt_long(argc, argv, "dh", longOptions.data(), nullptr)) != -1) {
        if (found == 'd') {
            parsed.foreground = true;
        } else {
            understood = false;
        }
    }
    return understood ? std::optional(parsed) : std::nullopt;
}

void printUsage(std::ostream& out) {
    out << "bekd version: " << version << '\n'
        << "Usage:\n"
        << "  -h, --help\n"
        << "\tHelp: display this help and exit.\n"
        << "  -d, --display\n"
        << "\tDisplay: Run bekd in foreground.\n"
        << '\n';
}

} // namespace agent::app
