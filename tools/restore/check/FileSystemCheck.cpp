#include "FileSystemCheck.h"

#include "FatDirtyFlags.h"
#include "tools/restore/view/Mounting.h"
#include "tools/restore/view/Program.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <vector>

namespace restore::check {

namespace {

using Command = std::vector<std::string>;

/// Does what a mount would do to a volume that was in use when its snapshot was taken, and no more. If it
/// fails, the checker that follows says why.
void prepareExt(const std::string& device, const std::string& /*directory*/) {
    view::runProgram({.command = {"e2fsck", "-p", "-E", "journal_only", device}}, std::nullopt);
}

void prepareXfs(const std::string& device, const std::string& directory) {
    view::replayJournal("xfs", device, directory);
}

void prepareFat(const std::string& device, const std::string& /*directory*/) {
    clearFatDirtyFlags(device);
}

void prepareNothing(const std::string& /*device*/, const std::string& /*directory*/) {}

struct Checker {
    std::string_view kind;
    const char* program;
    const char* package;
    std::array<const char*, 3> options; ///< keep it from writing; unused ones are null
    void (*prepare)(const std::string& device, const std::string& directory);
};

constexpr std::array checkers{
    Checker{"ext2", "e2fsck", "e2fsprogs", {"-f", "-n"}, prepareExt},
    Checker{"ext3", "e2fsck", "e2fsprogs", {"-f", "-n"}, prepareExt},
    Checker{"ext4", "e2fsck", "e2fsprogs", {"-f", "-n"}, prepareExt},
    Checker{"xfs", "xfs_repair", "xfsprogs", {"-n"}, prepareXfs},
    Checker{"vfat", "fsck.fat", "dosfstools", {"-n"}, prepareFat},
    Checker{"ntfs", "ntfsresize", "ntfs-3g", {"--info", "--force", "--no-progress-bar"}, prepareNothing},
    Checker{"hfsplus", "fsck.hfsplus", "hfsprogs", {"-f", "-n"}, prepareNothing},
};

Command commandOf(const Checker& checker, const std::string& device) {
    Command command{checker.program};
    for (const char* option : checker.options) {
        if (option != nullptr) {
            command.emplace_back(option);
        }
    }
    command.push_back(device);
    return command;
}

/// Returns false, and notes the damage, if the journal can't be replayed: without the replay, a checker
/// reports errors in an intact file system.
bool prepareForCheck(const Checker& checker, const std::string& device, const std::string& directory,
                     Findings& findings) {
    try {
        checker.prepare(device, directory);
        return true;
    } catch (const view::ProgramMissing&) {
        throw;
    } catch (const view::NoDriver& error) {
        findings.notProven.push_back(std::string("its journal wasn't replayed: ") + error.what());
        return true;
    } catch (const std::runtime_error& error) {
        findings.damage.push_back(
            {"journal", std::string("its journal can't be replayed: ") + error.what(), ""});
        return false;
    }
}

void runChecker(const Checker& checker, const std::string& device, Findings& findings) {
    const view::Outcome outcome = view::runProgram({.command = commandOf(checker, device)}, std::nullopt);
    if (outcome.status == 0) {
        findings.proven.push_back(std::string(checker.program) + " finds nothing wrong");
        return;
    }
    findings.damage.push_back({"checker",
                               std::string(checker.program) + " finds the file system damaged (status " +
                                   std::to_string(outcome.status) +
                                   "): " + view::lastOutputLine(outcome.output),
                               outcome.output});
}

} // namespace

void checkFileSystem(const std::string& kind, const std::string& device, const std::string& directory,
                     Findings& findings) {
    const auto* const checker = std::ranges::find(checkers, kind, &Checker::kind);
    if (checker == checkers.end()) {
        findings.notProven.push_back("no checker is known for " + kind);
        return;
    }
    try {
        if (prepareForCheck(*checker, device, directory, findings)) {
            runChecker(*checker, device, findings);
        }
    } catch (const view::ProgramMissing&) {
        findings.notProven.push_back(std::string(checker->program) + " isn't there; install " +
                                     checker->package);
    }
}

} // namespace restore::check
