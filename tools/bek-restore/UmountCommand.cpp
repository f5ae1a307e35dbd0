#include "Commands.h"
#include "Common.h"
#include "tools/restore/view/LoopDevice.h"
#include "tools/restore/view/Program.h"
#include "tools/restore/view/ViewDirectory.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

namespace restore {

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

constexpr seconds umountTimeout(60);              // for umount(8), while the target is busy but alive
constexpr seconds umountTimeoutWithoutServer(30); // after the server was ended, when every read fails at once
constexpr seconds releaseTimeout(10);             // for the release of the loop device
constexpr std::chrono::milliseconds releasePoll(20);

/// Resolves only the parent directory where possible: to touch a dead mount point could hang.
std::string pathOf(std::string directory) {
    while (directory.size() > 1 && directory.ends_with('/')) {
        directory.pop_back();
    }
    const fs::path absolute = fs::absolute(directory);
    std::error_code error;
    const fs::path parent = fs::canonical(absolute.parent_path(), error);
    const fs::path name = absolute.filename();
    return error || name == "." || name == ".." ? fs::weakly_canonical(absolute, error).string()
                                                : (parent / name).string();
}

/// All views mounted at `directory`. Older ones can only lie below the newest one, so all of them are ended.
std::vector<view::MountedView> viewsAt(const std::string& directory) {
    std::vector<view::MountedView> found = view::mountedViews();
    std::erase_if(found, [&](const view::MountedView& each) { return each.state.mountPoint != directory; });
    if (found.empty()) {
        throw std::runtime_error("no image is mounted at " + directory + " by " + programName);
    }
    return found;
}

bool isInUse(const view::MountedView& view) {
    return view::isLoopDevice(view.state.loop, view.place);
}

/// A FUSE driver releases the device a moment after the unmount.
bool awaitEndOfUse(const view::MountedView& view) {
    const auto deadline = std::chrono::steady_clock::now() + releaseTimeout;
    while (isInUse(view) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(releasePoll);
    }
    return !isInUse(view);
}

/// umount(8) waits for pending reads, which hang if the image is out of reach. They fail once the server has
/// ended.
view::Outcome unmount(const view::MountedView& view) {
    const view::Start start{.command = {"umount", "--", view.state.mountPoint}};
    try {
        return view::runProgram(start, umountTimeout);
    } catch (const view::ProgramMissing&) {
        throw;
    } catch (const std::runtime_error&) {
        view::endView(view.place, view.state);
        return view::runProgram(start, umountTimeoutWithoutServer);
    }
}

void endMount(const view::MountedView& view) {
    if (isInUse(view)) {
        const view::Outcome outcome = unmount(view);
        if (outcome.status != 0 && isInUse(view)) {
            throw std::runtime_error(view.state.mountPoint +
                                     " can't be unmounted: " + view::lastOutputLine(outcome.output));
        }
    }
    if (!awaitEndOfUse(view)) {
        throw std::runtime_error(view.state.loop + ", which shows " + view.state.image +
                                 ", is still in use; end what uses it and call this again");
    }
    view::endView(view.place, view.state);
}

int unmountImage(const std::string& directory, bool isJson) {
    const std::string path = pathOf(directory);
    for (const view::MountedView& view : viewsAt(path)) {
        endMount(view);
    }
    view::removeStaleViews();
    if (isJson) {
        print(tools::Json{{"mountPoint", path}});
    }
    return done;
}

} // namespace

void declareUmount(CLI::App& app, Run& chosen) {
    struct Options {
        std::string directory;
        bool isJson = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App& command = *app.add_subcommand(
        "umount",
        "End what mount has begun, whatever has become of it: the image out of reach, the directory "
        "unmounted by hand, processes killed");
    command.add_option("DIR", options->directory, "What mount was given")->required();
    command.add_flag("--json", options->isJson, "Print one JSON object");
    command.callback([options, &chosen] {
        chosen = [options] { return unmountImage(options->directory, options->isJson); };
    });
}

} // namespace restore
