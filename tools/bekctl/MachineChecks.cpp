#include "MachineChecks.h"

#include "SystemServices.h"
#include "Target.h"
#include "TcpConnection.h"
#include "common/BaseDirectories.h"
#include "common/Directory.h"
#include "common/PosixError.h"
#include "core/script/ForeignWriter.h"
#include "tools/common/Text.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>
#include <vector>

namespace bekctl {

using tools::localText;
using tools::plain;
using tools::sizeText;

namespace {

constexpr std::uint64_t megabyte = 1'000'000;
constexpr std::uint64_t leastSpace = 16 * megabyte;
constexpr std::uint64_t plentyOfSpace = 200 * megabyte;
constexpr std::size_t mostScripts = 200;
constexpr std::chrono::seconds connectTimeout(5);

Finding checkLoginManager(const SystemServices& services) {
    if (services.isReachable("org.freedesktop.login1")) {
        return {"login-manager", Verdict::ok, "The login manager keeps the machine awake during backups."};
    }
    return {"login-manager", Verdict::warning,
            "There is no login manager, so nothing keeps the machine awake during a backup.",
            "Install and start systemd-logind, or see that the machine doesn't sleep."};
}

Finding checkUdisks(const SystemServices& services) {
    if (services.isReachable("org.freedesktop.UDisks2")) {
        return {"udisks2", Verdict::ok, "udisks2 can be asked for the volumes."};
    }
    return {"udisks2", Verdict::failure, "udisks2 isn't there, so the agent finds no volume.",
            "Install udisks2 and start it."};
}

Finding checkScript(const std::string& path) {
    if (const std::string open = agent::core::script::findForeignWriter(path); !open.empty()) {
        return {"script", Verdict::failure,
                plain(path) + " is refused: others than root can write " + plain(open) + ".",
                "chown root and chmod go-w it and every directory above it."};
    }
    if (::access(path.c_str(), X_OK) != 0) {
        return {"script", Verdict::warning, plain(path) + " can't be executed, so it does nothing.",
                "chmod u+x it, or move it away."};
    }
    if (path.find_first_of(" \t\n") != std::string::npos) {
        return {"script", Verdict::warning, plain(path) + " can't be run: there is a blank in its name.",
                "Rename it."};
    }
    return {"script", Verdict::ok, plain(path) + " can be run."};
}

bool isDirectory(const std::string& path) {
    struct ::stat found{};
    return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

std::vector<std::string> scriptsIn(const std::string& directory) {
    std::vector<std::string> paths;
    for (const std::string& name : agent::dir::list(directory)) {
        if (const std::string path = agent::Path(directory) / name; !isDirectory(path)) {
            paths.push_back(path);
        }
    }
    std::ranges::sort(paths);
    paths.resize(std::min(paths.size(), mostScripts));
    return paths;
}

} // namespace

Findings checkServices() {
    try {
        const SystemServices services;
        return {{"bus", Verdict::ok, "The system's message bus is there."},
                checkUdisks(services),
                checkLoginManager(services)};
    } catch (const std::exception& error) {
        return {{"bus", Verdict::failure,
                 std::string("The system's message bus can't be reached, so the agent finds no volume: ") +
                     error.what() + ".",
                 "Install and start dbus and udisks2."}};
    }
}

bool isClockSynchronised() {
    timex state{}; // with modes 0 the call changes nothing
    return ::adjtimex(&state) != TIME_ERROR && (static_cast<unsigned>(state.status) & STA_UNSYNC) == 0;
}

Finding checkClock(bool isSynchronised) {
    if (isSynchronised) {
        return {"clock", Verdict::ok, "The clock is synchronised."};
    }
    return {"clock", Verdict::warning,
            "The kernel doesn't take the clock for synchronised: it is " + localText(::time(nullptr)) + ".",
            "Compare it: a clock that is far off makes certificates invalid. Use NTP."};
}

Findings checkScripts(const std::string& directory) {
    Findings found;
    if (!isDirectory(directory)) {
        return found;
    }
    try {
        for (const std::string& path : scriptsIn(directory)) {
            found.push_back(checkScript(path));
        }
    } catch (const std::exception& error) {
        found.push_back({"script", Verdict::open, plain(error.what()) + "."});
    }
    return found;
}

std::optional<DiskSpace> findDiskSpace(const std::string& directory) {
    struct ::statvfs status{};
    if (::statvfs(directory.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return DiskSpace{static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize,
                     (status.f_flag & ST_RDONLY) != 0};
}

Finding checkDisk(const std::optional<DiskSpace>& space) {
    const std::string place = agent::dir::base();
    if (!space) {
        return {"disk", Verdict::failure, place + " isn't there.", "Start the agent once: it makes it."};
    }
    if (space->isReadOnly) {
        return {"disk", Verdict::failure, place + " is on a file system that is mounted read-only.",
                "Mount it so that it can be written to: database and log are there."};
    }
    const std::string text = sizeText(space->free) + " are free for database and log.";
    if (space->free < leastSpace) {
        return {"disk", Verdict::failure, "Only " + text, "Free some room where " + place + " is."};
    }
    if (space->free < plentyOfSpace) {
        return {"disk", Verdict::warning, "Only " + text, "Free some room where " + place + " is."};
    }
    return {"disk", Verdict::ok, text};
}

Finding checkTarget(const std::string& given, const std::string& logged) {
    const std::string& text = given.empty() ? logged : given;
    const std::optional<Target> target = parseTarget(text);
    if (!target) {
        return {"target", Verdict::open, "The log names no target.", "--target HOST:PORT looks at one."};
    }
    const std::string name = target->host + " port " + std::to_string(target->port);
    try {
        static_cast<void>(connectTo(target->host, target->port, connectTimeout));
        return {"target", Verdict::ok, "The target " + name + " can be reached."};
    } catch (const std::exception& error) {
        return {"target", Verdict::failure,
                "The target " + name + " can't be reached: " + plain(error.what()) + ".",
                "See that it runs and listens there; look at address, network and firewall."};
    }
}

} // namespace bekctl
