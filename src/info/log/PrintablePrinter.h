#pragma once

#include "info/log/PrinterFunction.h"

#include <cstddef>

namespace agent::info {

/// Hands each message on as one line of printable text: whatever a peer, a script or a disk has put into it
/// can neither drive a terminal, nor pass for further lines of the log, nor fill the disk.
class PrintablePrinter {
public:
    /// In bytes; what GET /event gives back of a line, too.
    static constexpr std::size_t longestMessage = 1024UL * 1024;

    explicit PrintablePrinter(PrinterFunction printer);
    void print(const std::string& message, int level, LogTime time);

private:
    PrinterFunction printer;
};

} // namespace agent::info
