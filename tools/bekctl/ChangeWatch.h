#pragma once

#include "os/FileDescriptor.h"

#include <string>

namespace bekctl {

/// Waits for changes of the files of a directory.
/// Owns:    the watch.
/// Threads: one at a time.
/// Fails:   never: where nothing can be watched it waits a second.
class ChangeWatch {
public:
    explicit ChangeWatch(std::string directory);

    /// Until something has changed since the last call, or a minute is over.
    void wait();

private:
    bool attach();

    std::string directory;
    os::FileDescriptor events;
    int watch = -1;
};

} // namespace bekctl
