#include "db/PrivateFile.h"

#include "os/FileDescriptor.h"

#include <array>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>

namespace agent::db {

namespace {

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;
constexpr mode_t permissions = 07777;
constexpr std::array companions = {"", "-journal", "-wal", "-shm"};

/// Uses the path, not a descriptor: closing a descriptor would release all of the process's locks on the
/// file.
void chmodToOwner(const std::string& path) {
    struct ::stat found{};
    const bool isFile = ::stat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode);
    if (isFile && (found.st_mode & permissions) != ownerOnly) {
        static_cast<void>(::chmod(path.c_str(), ownerOnly));
    }
}

} // namespace

void restrictToOwner(const std::string& path) noexcept {
    try {
        const os::FileDescriptor made(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, ownerOnly));
        for (const char* companion : companions) {
            chmodToOwner(path + companion);
        }
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): without memory the opening fails, too
    }
}

} // namespace agent::db
