#include "info/log/EscapingPrinter.h"

#include "common/PeerText.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace agent::info {

EscapingPrinter::EscapingPrinter(IDecorator& decorator, PrinterFunction printer)
    : decorator(&decorator), printer(std::move(printer)) {}

void EscapingPrinter::print(const std::string& message, int level, LogTime time) {
    std::string_view text = message;
    const bool hasEnd = text.ends_with('\n');
    text.remove_suffix(hasEnd ? 1 : 0);
    printer(printableLines(shortened(text, maxMessageBytes)) + (hasEnd ? "\n" : ""), level, time);
}

bool EscapingPrinter::passesForMessage(std::string_view line) const {
    try {
        int level = 0;
        LogTime time;
        (void)decorator->undecorate(std::string(line), level, time);
        return true;
    } catch (const std::logic_error&) {
        return false;
    }
}

std::string EscapingPrinter::printableLines(std::string_view text) const {
    std::string shown;
    for (bool isFirst = true;; isFirst = false) {
        const std::size_t length = std::min(text.find('\n'), text.size());
        const std::string line = printable(text.substr(0, length));
        if (!isFirst) {
            shown += passesForMessage(line) ? "\\n" : "\n";
        }
        shown += line;
        if (length == text.size()) {
            return shown;
        }
        text.remove_prefix(length + 1);
    }
}

} // namespace agent::info
