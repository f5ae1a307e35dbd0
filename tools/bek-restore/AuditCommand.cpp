#include "Commands.h"
#include "common/PosixError.h"

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace restore {

namespace {

constexpr const char* installed = "/usr/lib/bek-restore/bek-audit";

/// Prefers a program beside this one, as in a build folder.
std::string auditProgram() {
    const std::filesystem::path beside =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / "bek-audit";
    return std::filesystem::exists(beside) ? beside.string() : installed;
}

/// Replaces this process; throws if execv fails.
int audit(std::vector<std::string> arguments) {
    const std::string program = auditProgram();
    arguments.insert(arguments.begin(), program);
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);
    ::execv(program.c_str(), words.data());
    throw agent::PosixError(program + ", which audits, can't be run", errno);
}

} // namespace

void declareAudit(CLI::App& app, Run& chosen) {
    CLI::App& command = *app.add_subcommand(
        "audit", "Compare a sample of the blocks that backups of a volume of this machine leave out");
    command.prefix_command(); // all further arguments are for the other program
    command.set_help_flag();
    command.callback(
        [&command, &chosen] { chosen = [arguments = command.remaining()] { return audit(arguments); }; });
}

} // namespace restore
