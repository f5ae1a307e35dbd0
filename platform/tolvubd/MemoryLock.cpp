#include "MemoryLock.h"

#include "Failure.h"

#include <sys/mman.h>
#include <sys/prctl.h>

namespace tolvubd {

namespace {

// PR_SET_IO_FLUSHER needs Linux 5.6. Older kernels return EINVAL; then the locked memory has to be enough.
void setFlusher(bool on) {
    ::prctl(PR_SET_IO_FLUSHER, on ? 1UL : 0UL, 0UL, 0UL, 0UL);
}

} // namespace

MemoryLock::MemoryLock() : wasFlusher(::prctl(PR_GET_IO_FLUSHER, 0UL, 0UL, 0UL, 0UL) == 1) {
    checked(::mlockall(MCL_CURRENT), "lock the memory of the process");
    setFlusher(true);
}

MemoryLock::~MemoryLock() {
    if (!wasFlusher) {
        setFlusher(false);
    }
    ::munlockall();
}

bool MemoryLock::lockPermanently() noexcept {
    setFlusher(true);
    return ::mlockall(MCL_CURRENT) == 0;
}

} // namespace tolvubd
