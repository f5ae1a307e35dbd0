#pragma once

namespace tolvubd {

/// A way to keep a volume unchanged: nothing is written to its device between `begin` and `end`.
/// Owns:    the one file descriptor that `end` needs.
/// Threads: one at a time.
/// Fails:   `begin` throws std::system_error and leaves the volume as it was.
class Hold {
public:
    virtual ~Hold() = default;
    /// Throws EBUSY when another process holds the volume, EOPNOTSUPP when it can't be held in this way.
    virtual void begin() = 0;
    /// Releases the volume; returns false when it had been released already. May only make system calls: the
    /// forked guard process calls it too, where a lock that another thread held at the fork is never
    /// released.
    virtual bool end() noexcept = 0;
    /// Called first in the forked guard process, before `begin`. May only make system calls.
    virtual void enterChild() noexcept {}
    [[nodiscard]] virtual int descriptor() const noexcept = 0;
};

} // namespace tolvubd
