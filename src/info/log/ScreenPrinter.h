#pragma once

#include "info/log/PrinterFunction.h"

namespace agent::info {

/// Writes each message to standard output. If the reader of the output has exited, this raises neither an
/// error nor SIGPIPE.
/// Owns:    nothing between two messages.
/// Threads: any thread may call it; both loggers use one printer at the same time.
/// Fails:   never; a message that can't be written is lost.
class ScreenPrinter {
public:
    void print(const std::string& message, int level, LogTime time);

    /// Returns false if standard output is /dev/null, as it is for a daemon in the background.
    [[nodiscard]] static bool isWatched();
};

} // namespace agent::info
