// The command line: selects the command, and turns exceptions into an exit status.

#include "Commands.h"
#include "Common.h"
#include "app/Version.h"
#include "tools/common/CommandLine.h"

namespace restore {
namespace {

constexpr const char* description = R"(bek-restore - bring back what the backup agent has put into an image

Looks at the image of a volume, proves that it can be trusted, brings single files back from it, or
the whole volume to a device. The image is only read, whatever is done. It needs neither the agent
nor the appliance, and runs on any rescue system.

Exit status: 0; 1 if it failed; 2 if the command is wrong; 3 if an image isn't as it should be.)";

int run(int argc, char** argv) {
    CLI::App app(description);
    app.name(programName);
    app.failure_message(&tools::failureText);
    app.set_version_flag("--version", std::string(programName) + " " + agent::app::version,
                         "Print the version");
    app.require_subcommand(1);
    Run chosen;
    declareInfo(app, chosen);
    declareCheck(app, chosen);
    declareLs(app, chosen);
    declareGet(app, chosen);
    declareMount(app, chosen);
    declareUmount(app, chosen);
    declareWrite(app, chosen);
    declareAudit(app, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? done : wrongCommand;
    }
    return chosen();
}

} // namespace
} // namespace restore

int main(int argc, char** argv) {
    return tools::statusOf(restore::programName, [&] { return restore::run(argc, argv); });
}
