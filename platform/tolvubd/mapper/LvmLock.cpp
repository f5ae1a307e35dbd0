#include "mapper/LvmLock.h"

#include "Failure.h"
#include "FileAccess.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

namespace tolvubd {

namespace {

constexpr const char* directory = "/run/lock/lvm";

/// Whether `path` still names the locked file. LVM removes the lock file when no command waits for it; then
/// the lock of a new file counts.
bool isStillThere(const os::FileDescriptor& file, const std::string& path) {
    struct stat ours{};
    struct stat there{};
    return ::fstat(file.get(), &ours) == 0 && ::stat(path.c_str(), &there) == 0 &&
           ours.st_ino == there.st_ino && ours.st_dev == there.st_dev;
}

} // namespace

LvmLock::LvmLock(const dm::Device& volume) {
    constexpr std::chrono::seconds patience{5};
    constexpr std::chrono::milliseconds pause{20};
    if (!volume.uuid.starts_with("LVM-") || !std::filesystem::is_directory(directory)) {
        return;
    }
    const std::string path = std::string(directory) + "/V_" + groupOf(volume.name);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (true) {
        file = openFile(path, O_RDWR | O_CREAT, ownerOnly);
        if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0 && isStillThere(file, path)) {
            return;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            fail(EBUSY, "a command of LVM's is at work on " + volume.name);
        }
        std::this_thread::sleep_for(pause);
    }
}

std::string groupOf(const std::string& name) {
    std::string group;
    for (std::size_t at = 0; at < name.size(); ++at) {
        if (name[at] == '-') {
            if (at + 1 == name.size() || name[at + 1] != '-') {
                break;
            }
            ++at;
        }
        group += name[at];
    }
    return group;
}

} // namespace tolvubd
