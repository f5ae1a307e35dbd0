#pragma once

#include "os/FileDescriptor.h"

#include <string>
#include <sys/types.h>

namespace tolvubd {

/// A node of a block device, under a name that hides it from programs that look for snapshots. The driver
/// makes the node itself, because /dev need not have one yet for a new device.
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
