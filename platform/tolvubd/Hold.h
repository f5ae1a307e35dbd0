#pragma once

namespace tolvubd {

/// A way to keep a volume as it is: nothing is written to its device between `begin` and `end`.
/// Owns:    the one descriptor that `end` needs.
/// Threads: one at a time.
/// Fails:   std::system_error from `begin`, with the volume as it was.
class Hold {
public:
    virtual ~Hold() = default;
    /// EBUSY when somebody else holds the volume, EOPNOTSUPP when it can't be held in this way.
    virtual void begin() = 0;
    /// Lets the volume go on; false when it was going on already. Nothing but system calls: a copy of the
    /// process calls it too, in which no lock of the program will ever be released.
    virtual bool end() noexcept = 0;
    /// What the copy does first, before `begin`. Nothing but system calls.
    virtual void enterCopy() noexcept {}
    [[nodiscard]] virtual int descriptor() const noexcept = 0;
};

} // namespace tolvubd
