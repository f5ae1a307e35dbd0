#pragma once

#include "tools/common/Progress.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace restore {

/// Shows on a terminal how far a program is that copies files. Anywhere else it does nothing.
/// Owns:    nothing.
/// Threads: one at a time.
/// Fails:   never: what can't be looked at isn't counted.
class CopyProgress {
public:
    /// Looks at all that is to be copied, each a path of a file or a directory, if there is a terminal.
    explicit CopyProgress(const std::vector<std::string>& paths);

    /// What the program has read until now counts as copied.
    void show(pid_t program);

private:
    tools::Progress progress = tools::Progress::ofStandardError();
    std::uint64_t all = 0; // bytes
};

} // namespace restore
