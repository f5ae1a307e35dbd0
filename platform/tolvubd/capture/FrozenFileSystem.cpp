#include "capture/FrozenFileSystem.h"

#include "Failure.h"
#include "HoldGuard.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <memory>
#include <sys/ioctl.h>

namespace tolvubd {

FrozenFileSystem::FrozenFileSystem(const std::string& mountPoint)
    : mountPoint(mountPoint), root(openFile(mountPoint, O_RDONLY | O_DIRECTORY)) {}

void FrozenFileSystem::begin() {
    checked(::ioctl(root.get(), FIFREEZE, 0), "freeze " + mountPoint);
}

bool FrozenFileSystem::end() noexcept {
    return ::ioctl(root.get(), FITHAW, 0) == 0;
}

void requireNotFrozen(const std::string& mountPoint) {
    syncFileSystem(mountPoint);
    HoldGuard(std::make_unique<FrozenFileSystem>(mountPoint)).release();
}

void thawIfFrozen(const std::string& mountPoint) noexcept {
    const os::FileDescriptor root(::open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ::ioctl(root.get(), FITHAW, 0);
}

} // namespace tolvubd
