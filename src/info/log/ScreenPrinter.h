#pragma once

#include "info/log/PrinterFunction.h"

namespace agent::info {

/// Writes each message to standard output. A reader of the output that has gone away is no reason to stop:
/// neither an error nor SIGPIPE comes of it.
class ScreenPrinter {
public:
    void print(const std::string& message, int level, LogTime time);

    /// Whether standard output leads anywhere but to /dev/null, as it does for a daemon in the background.
    [[nodiscard]] static bool isWatched();
};

} // namespace agent::info
