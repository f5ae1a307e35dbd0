#pragma once

#include "FileAccess.h"
#include "Hold.h"

#include <string>

namespace tolvubd {

/// Holds a volume by having the kernel freeze its file system.
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

/// EBUSY for a file system that somebody else has frozen: to make, change or remove a file on it would wait
/// for him.
void requireNotFrozen(const std::string& mountPoint);

/// For a file system that may have been left frozen, and need not be.
void thawIfFrozen(const std::string& mountPoint) noexcept;

} // namespace tolvubd
