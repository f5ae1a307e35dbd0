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

/// For a file system that may have been left frozen, and need not be.
void thawIfFrozen(const std::string& mountPoint) noexcept;

} // namespace tolvubd
