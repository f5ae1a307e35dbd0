#pragma once

namespace tolvubd {

/// Keeps the process going while a volume is held that its own files, or the swap space, may lie on: all of
/// its memory stays in RAM, and where the kernel has to find memory for it, it doesn't write anything out for
/// that.
///
/// Owns:    the lock on the process's memory.
/// Threads: the one that made it also lets go of it; it is the one for which the kernel writes nothing out.
/// Fails:   std::system_error when the memory can't be locked.
class MemoryLock {
public:
    MemoryLock();
    MemoryLock(const MemoryLock&) = delete;
    MemoryLock& operator=(const MemoryLock&) = delete;
    ~MemoryLock();

    /// The same to the end of a copy of the process. System calls only; false when it can't be locked.
    static bool forLife() noexcept;

private:
    bool wasFlusher;
};

} // namespace tolvubd
