#pragma once

namespace tolvubd {

/// Keeps the process running while a volume is held, even if the process's own files or the swap space are on
/// that volume: all memory of the process stays in RAM, and the kernel doesn't write out other pages in order
/// to allocate memory for it.
///
/// Owns:    the lock on the process's memory.
/// Threads: the thread that constructs it must destroy it; PR_SET_IO_FLUSHER applies to that thread only.
/// Fails:   std::system_error when the memory can't be locked.
class MemoryLock {
public:
    MemoryLock();
    MemoryLock(const MemoryLock&) = delete;
    MemoryLock& operator=(const MemoryLock&) = delete;
    ~MemoryLock();

    /// The same for the rest of a forked child's life. Only makes system calls; returns false when the memory
    /// can't be locked.
    static bool lockPermanently() noexcept;

private:
    bool wasFlusher;
};

} // namespace tolvubd
