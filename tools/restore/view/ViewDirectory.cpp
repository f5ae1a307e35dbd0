#include "ViewDirectory.h"

#include "LoopDevice.h"
#include "common/PosixError.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace restore::view {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* base = "/run/bek-restore";
constexpr int endMilliseconds = 10'000;
constexpr std::array<const char*, 4> files{"state", "state.new", "log", "ready"};
constexpr std::array<const char*, 2> directories{"view", "root"};

/// Locks the base directory while a process makes a place or clears dead ones: a new place mustn't be taken
/// for a dead one before it has its own lock.
os::FileDescriptor lockBase() {
    if (::mkdir(base, 0700) != 0 && errno != EEXIST) {
        throw agent::PosixError(std::string(base) + " can't be made", errno);
    }
    os::FileDescriptor directory(::open(base, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (!directory || ::flock(directory.get(), LOCK_EX) != 0) {
        throw agent::PosixError(std::string(base) + " can't be used", errno);
    }
    return directory;
}

os::FileDescriptor openLocked(const std::string& place) {
    os::FileDescriptor directory(::open(place.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (directory && ::flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
        directory.reset();
    }
    return directory;
}

/// Removes only what was made here: anything else stays.
void removePlace(const std::string& place) {
    for (const char* name : files) {
        ::unlink((place + "/" + name).c_str());
    }
    for (const char* name : directories) {
        ::rmdir((place + "/" + name).c_str());
    }
    ::rmdir(place.c_str());
}

json jsonOf(const ProcessId& process) {
    return {{"pid", process.pid}, {"begin", process.begin}};
}

ProcessId processOf(const json& document) {
    return {document.at("pid").get<pid_t>(), document.at("begin").get<unsigned long long>()};
}

std::optional<ViewState> readState(const std::string& place) {
    std::ifstream file(place + "/state");
    const json document = json::parse(file, nullptr, false);
    try {
        return ViewState{processOf(document.at("owner")), processOf(document.at("server")),
                         document.at("loop").get<std::string>(), document.at("image").get<std::string>(),
                         document.at("mountPoint").get<std::string>()};
    } catch (const json::exception&) {
        return std::nullopt; // killed before the state was written
    }
}

/// Debian 12's C library declares the pidfd functions for C only.
void signalProcess(const os::FileDescriptor& process, int number) {
    ::syscall(SYS_pidfd_send_signal, process.get(), number, nullptr, 0);
}

/// Uses a pidfd, so that a later process with the same number is never hit.
void endProcess(const ProcessId& process) {
    const os::FileDescriptor descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process.pid, 0)));
    if (!descriptor || !process.isAlive()) {
        return;
    }
    signalProcess(descriptor, SIGTERM);
    ::pollfd ended{descriptor.get(), POLLIN, 0};
    if (::poll(&ended, 1, endMilliseconds) == 0) {
        signalProcess(descriptor, SIGKILL);
        ::poll(&ended, 1, endMilliseconds);
    }
}

std::vector<std::string> places() {
    std::vector<std::string> found;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(base, error)) {
        found.push_back(entry.path().string());
    }
    return found;
}

bool isSame(const struct ::stat& one, const struct ::stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/// Compares device and inode, as the path looks different in each server's mount namespace.
bool holdsOpen(const fs::path& process, const struct ::stat& place) {
    std::error_code error;
    for (const fs::directory_entry& descriptor : fs::directory_iterator(process / "fd", error)) {
        struct ::stat status{};
        if (::stat(descriptor.path().c_str(), &status) == 0 && isSame(status, place)) {
            return true;
        }
    }
    return false;
}

/// Ends all processes that serve a view. Each of them holds the place open, even one whose process ID was
/// never recorded, or one that hasn't noticed its parent's end.
void endServers(const std::string& place) {
    struct ::stat status{};
    if (::stat(place.c_str(), &status) != 0) {
        return;
    }
    std::error_code error;
    for (const fs::directory_entry& process : fs::directory_iterator("/proc", error)) {
        const std::string name = process.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos || !holdsOpen(process.path(), status)) {
            continue;
        }
        const std::optional<ProcessId> server = ProcessId::of(static_cast<pid_t>(std::stol(name)));
        if (server && *server != ProcessId::self()) {
            endProcess(*server);
        }
    }
}

void removeIfStale(const std::string& place) {
    if (const os::FileDescriptor held = openLocked(place)) {
        removePlace(place);
        return;
    }
    const std::optional<ViewState> state = readState(place);
    if (state && !state->owner.isAlive() && !isLoopDevice(state->loop, place)) {
        endServers(place);
        removePlace(place);
    }
}

} // namespace

std::optional<ProcessId> ProcessId::of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::size_t name = text.rfind(')'); // end of the name, which may hold blanks and brackets
    if (name == std::string::npos) {
        return std::nullopt;
    }
    constexpr int fieldsBefore = 20; // from the state to the start time
    std::istringstream fields(text.substr(name + 1));
    std::string field;
    fields >> field;
    if (field == "Z" || field == "X") { // a zombie: it has ended, but its parent hasn't reaped it
        return std::nullopt;
    }
    for (int number = 1; number < fieldsBefore; ++number) {
        fields >> field;
    }
    return ProcessId{pid, std::strtoull(field.c_str(), nullptr, 10)};
}

ProcessId ProcessId::self() {
    return of(::getpid()).value_or(ProcessId{});
}

ViewDirectory::ViewDirectory() {
    const os::FileDescriptor all = lockBase();
    std::string name = std::string(base) + "/XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throw agent::PosixError("nothing can be made in " + std::string(base), errno);
    }
    place = name;
    held = openLocked(place);
    for (const char* directory : directories) {
        if (!held || ::mkdir(path(directory).c_str(), 0700) != 0) {
            const int reason = errno;
            removePlace(place);
            throw agent::PosixError(place + " can't be used", reason);
        }
    }
    // Written under the base lock: from here on the owner is known, even if it is killed.
    ViewState begun;
    begun.owner = ProcessId::self();
    write(begun);
}

ViewDirectory::~ViewDirectory() {
    if (isKept) {
        return;
    }
    try {
        // Another bek-restore that looks for remains opens the place for a moment; the lock keeps it from
        // being ended.
        const os::FileDescriptor all = lockBase();
        endServers(place);
        removePlace(place);
    } catch (const std::exception&) { // nothing is ended without the lock; the next start clears what is left
    }
}

std::string ViewDirectory::path(const std::string& name) const {
    return name.empty() ? place : place + "/" + name;
}

void ViewDirectory::write(const ViewState& state) const {
    const json document{{"owner", jsonOf(state.owner)},
                        {"server", jsonOf(state.server)},
                        {"loop", state.loop},
                        {"image", state.image},
                        {"mountPoint", state.mountPoint}};
    std::ofstream file(path("state.new"), std::ios::trunc);
    file << document.dump(2, ' ', false, json::error_handler_t::replace) << '\n';
    if (!file.flush() || ::rename(path("state.new").c_str(), path("state").c_str()) != 0) {
        throw std::runtime_error(path("state") + " can't be written");
    }
}

std::vector<MountedView> mountedViews() {
    std::vector<MountedView> found;
    for (const std::string& place : places()) {
        if (std::optional<ViewState> state = readState(place); state && !state->mountPoint.empty()) {
            found.push_back({place, std::move(*state)});
        }
    }
    return found;
}

void endView(const std::string& place, const ViewState& state) {
    const os::FileDescriptor all = lockBase();
    endProcess(state.server);
    endServers(place);
    removePlace(place);
}

void removeStaleViews() {
    const os::FileDescriptor all = lockBase();
    for (const std::string& place : places()) {
        removeIfStale(place);
    }
}

} // namespace restore::view
