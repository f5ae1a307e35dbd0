#pragma once

#include "info/log/IDecorator.h"
#include "info/log/PrinterFunction.h"

#include <cstddef>
#include <string_view>

namespace agent::info {

/// Passes each message on as printable text: what a peer, a script or a disk has put into it can neither
/// control a terminal nor fill the disk. A message may have several lines, but none that looks like another
/// message: the newline before a line that `decorator` can parse is escaped.
/// Owns:    the printer function; the decorator must outlive it.
/// Threads: the logger calls `print` under its mutex.
/// Fails:   `print` throws what the printer throws.
class EscapingPrinter {
public:
    /// In bytes. GET /event returns no more than this of a line, either.
    static constexpr std::size_t maxMessageBytes = 1024UL * 1024;

    EscapingPrinter(IDecorator& decorator, PrinterFunction printer);
    void print(const std::string& message, int level, LogTime time);

private:
    [[nodiscard]] bool passesForMessage(std::string_view line) const;
    [[nodiscard]] std::string printableLines(std::string_view text) const;

    IDecorator* decorator;
    PrinterFunction printer;
};

} // namespace agent::info
