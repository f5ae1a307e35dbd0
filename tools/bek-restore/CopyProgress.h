#pragma once

#include "tools/common/Progress.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace restore {

/// Shows on a terminal how far a copying program is. Does nothing if there is no terminal.
/// Owns:    nothing.
/// Threads: one at a time.
/// Fails:   never: a file that can't be examined isn't counted.
class CopyProgress {
public:
    /// Adds up everything that is to be copied, files and directories, if there is a terminal.
    explicit CopyProgress(const std::vector<std::string>& paths);

    /// Counts what the program has read so far as copied.
    void show(pid_t program);

private:
    tools::Progress progress = tools::Progress::ofStandardError();
    std::uint64_t all = 0; // bytes
};

} // namespace restore
