#pragma once

#include "FileAccess.h"
#include "Hold.h"

#include <string>

namespace tolvubd {

/// Holds a volume: the kernel freezes its file system.
/// Owns:    a descriptor of the mount point. Not the freeze, which only `end` undoes.
/// Threads: one at a time; `end` also in a forked child process.
/// Fails:   std::system_error; `begin` with EBUSY when the file system is frozen already.
class FrozenFileSystem : public Hold {
public:
    explicit FrozenFileSystem(const std::string& mountPoint);

    void begin() override;
    bool end() noexcept override;
    [[nodiscard]] int descriptor() const noexcept override { return root.get(); }

private:
    std::string mountPoint;
    os::FileDescriptor root;
};

/// Throws EBUSY when another program has frozen the file system: creating, changing or removing a file on it
/// would block until the thaw.
void requireNotFrozen(const std::string& mountPoint);

/// Thaws a file system that a dead process may have left frozen; does nothing if it isn't.
void thawIfFrozen(const std::string& mountPoint) noexcept;

} // namespace tolvubd
