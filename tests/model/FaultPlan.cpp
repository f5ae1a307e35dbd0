#include "model/FaultPlan.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace agent::model {

namespace {

// Global, since the replaced system calls below have no object to refer to.
Fault plan;                  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)
bool isArmed = false;        // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)
std::uint32_t stepsDone = 0; // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

int refuse(int error) {
    errno = error;
    return -1;
}

} // namespace

void arm(const Fault& fault) {
    plan = fault;
    stepsDone = 0;
    isArmed = true;
}

std::uint32_t disarm() {
    isArmed = false;
    return stepsDone;
}

FaultsSuspended::FaultsSuspended() : wasArmed(isArmed) {
    isArmed = false;
}

FaultsSuspended::~FaultsSuspended() {
    isArmed = wasArmed;
}

bool fails(Step step) {
    if (!isArmed) {
        return false;
    }
    ++stepsDone;
    switch (plan.kind) {
    case Fault::Kind::none:
        return false;
    case Fault::Kind::kill:
        if (stepsDone == plan.at) {
            ::_exit(killedStatus);
        }
        return false;
    case Fault::Kind::fail:
        return stepsDone == plan.at;
    case Fault::Kind::diskFull:
        return step == Step::writeFile && stepsDone >= plan.at;
    }
    return false;
}

} // namespace agent::model

// These functions replace the C library's in the whole program, so that file operations fail as planned.
// NOLINTBEGIN(readability-identifier-naming,cert-dcl50-cpp,cppcoreguidelines-pro-type-vararg)
extern "C" {

int open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const bool isRead = (flags & O_ACCMODE) == O_RDONLY;
    if (agent::model::fails(isRead ? agent::model::Step::readFile : agent::model::Step::writeFile)) {
        return agent::model::refuse(isRead ? EIO : ENOSPC);
    }
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

ssize_t read(int descriptor, void* buffer, std::size_t size) {
    if (agent::model::fails(agent::model::Step::readFile)) {
        return agent::model::refuse(EIO);
    }
    return ::syscall(SYS_read, descriptor, buffer, size);
}

ssize_t write(int descriptor, const void* buffer, std::size_t size) {
    if (agent::model::fails(agent::model::Step::writeFile)) {
        return agent::model::refuse(ENOSPC);
    }
    return ::syscall(SYS_write, descriptor, buffer, size);
}

int fsync(int descriptor) {
    if (agent::model::fails(agent::model::Step::writeFile)) {
        return agent::model::refuse(EIO);
    }
    return static_cast<int>(::syscall(SYS_fsync, descriptor));
}

int unlink(const char* path) noexcept {
    if (agent::model::fails(agent::model::Step::writeFile)) {
        return agent::model::refuse(EIO);
    }
    return static_cast<int>(::syscall(SYS_unlink, path));
}

/// No snapshot can be mounted here; the session continues without.
int mount(const char* /*source*/, const char* /*target*/, const char* /*type*/, unsigned long /*flags*/,
          const void* /*data*/) noexcept {
    return agent::model::refuse(ENOENT);
}

/// Nothing here is on a disk, and the test must not sync all disks of the machine.
void sync() noexcept {}
}
// NOLINTEND(readability-identifier-naming,cert-dcl50-cpp,cppcoreguidelines-pro-type-vararg)
