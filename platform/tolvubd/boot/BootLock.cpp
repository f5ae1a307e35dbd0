#include "boot/BootLock.h"

#include "Failure.h"
#include "FileAccess.h"

#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>

namespace tolvubd {

namespace {

constexpr const char* lockPath = "/run/tolvubd.boot";
constexpr std::chrono::seconds patience{10};
constexpr std::chrono::milliseconds pause{20};

} // namespace

BootLock::BootLock() : lock(openFile(lockPath, O_RDWR | O_CREAT | O_NOFOLLOW, ownerOnly)) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            failWithErrno("lock " + std::string(lockPath));
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            fail(EBUSY, lockPath);
        }
        std::this_thread::sleep_for(pause);
    }
}

} // namespace tolvubd
