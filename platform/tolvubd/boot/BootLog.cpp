#include "boot/BootLog.h"

#include "FileAccess.h"

#include <exception>
#include <fcntl.h>
#include <span>

namespace tolvubd {

void report(Severity severity, const std::string& text) noexcept {
    logLine(severity, text);
    try {
        const os::FileDescriptor log = openFile("/dev/kmsg", O_WRONLY | O_NONBLOCK);
        const std::string line =
            "<" + std::to_string(static_cast<int>(severity)) + ">tolvubd: " + text + "\n";
        writeAt(log, std::as_bytes(std::span(line)), 0);
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): nobody is left to tell
    }
}

} // namespace tolvubd
