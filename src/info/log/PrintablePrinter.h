#pragma once

#include "info/log/IDecorator.h"
#include "info/log/PrinterFunction.h"

#include <cstddef>
#include <string_view>

namespace agent::info {

/// Hands each message on as printable text: whatever a peer, a script or a disk has put into it can neither
/// drive a terminal nor fill the disk. A message may have several lines, but none of them passes for another
/// message: a newline before what `decorator` could take apart is written out. The decorator must outlive it.
class PrintablePrinter {
public:
    /// In bytes; what GET /event gives back of a line, too.
    static constexpr std::size_t longestMessage = 1024UL * 1024;

    PrintablePrinter(IDecorator& decorator, PrinterFunction printer);
    void print(const std::string& message, int level, LogTime time);

private:
    [[nodiscard]] bool passesForMessage(std::string_view line) const;
    [[nodiscard]] std::string printableLines(std::string_view text) const;

    IDecorator* decorator;
    PrinterFunction printer;
};

} // namespace agent::info
