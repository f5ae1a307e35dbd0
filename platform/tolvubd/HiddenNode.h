#pragma once

#include "os/FileDescriptor.h"

#include <string>
#include <sys/types.h>

namespace tolvubd {

/// A node of a block device, out of sight of whoever looks for snapshots. One of our own, because /dev need
/// not have one for a device that has just come into being.
/// Owns:    the node, until it is renamed.
/// Threads: one at a time.
/// Fails:   std::system_error.
class HiddenNode {
public:
    explicit HiddenNode(dev_t number);
    HiddenNode(const HiddenNode&) = delete;
    HiddenNode& operator=(const HiddenNode&) = delete;
    ~HiddenNode();

    [[nodiscard]] os::FileDescriptor open(int flags) const;
    void rename(const std::string& to) const;

private:
    std::string path;
};

} // namespace tolvubd
